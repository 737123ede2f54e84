// base::Optional is the standard's optional.
#ifndef QUENOR_BASE_PLATFORM_BASE_OPTIONAL_H_
#define QUENOR_BASE_PLATFORM_BASE_OPTIONAL_H_

#include <optional>

#include "quenor_base/platform/base/abi.h"

QUENOR_NAMESPACE_BEGIN
namespace base {

template <typename T>
using Optional = std::optional<T>;
inline constexpr std::nullopt_t nullopt = std::nullopt;

}  // namespace base
QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_PLATFORM_BASE_OPTIONAL_H_
