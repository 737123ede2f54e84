// base::Optional is the standard's optional.
#ifndef QUENOR_BASE_PLATFORM_BASE_OPTIONAL_H_
#define QUENOR_BASE_PLATFORM_BASE_OPTIONAL_H_

#include <optional>

namespace quenor::base {

template <typename T>
using Optional = std::optional<T>;
inline constexpr std::nullopt_t nullopt = std::nullopt;

}  // namespace quenor::base

#endif  // QUENOR_BASE_PLATFORM_BASE_OPTIONAL_H_
