// The page's stylesheet, few lines of script and icon, which it brings itself.
#ifndef COLLECTOR_PAGE_HTML_ASSETS_H_
#define COLLECTOR_PAGE_HTML_ASSETS_H_

namespace quenor::collector {

extern const char kStyle[];
extern const char kScript[];
extern const char kIcon[];

}  // namespace quenor::collector

#endif  // COLLECTOR_PAGE_HTML_ASSETS_H_
