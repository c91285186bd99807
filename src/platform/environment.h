#pragma once

#include <cstdlib>

namespace platform {

/// The value of an environment variable, or `otherwise` where it is unset or empty. Read at each
/// use: the daemon changes its environment before its first thread only, so any thread may ask.
inline const char* environmentOr(const char* name, const char* otherwise) {
  const char* value = std::getenv(name);
  return value != nullptr && *value != '\0' ? value : otherwise;
}

}  // namespace platform
