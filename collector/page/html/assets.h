// The page's stylesheet and its few lines of script, which it brings itself.
#ifndef COLLECTOR_PAGE_HTML_ASSETS_H_
#define COLLECTOR_PAGE_HTML_ASSETS_H_

namespace quenor::collector {

extern const char kStyle[];
extern const char kScript[];

}  // namespace quenor::collector

#endif  // COLLECTOR_PAGE_HTML_ASSETS_H_
