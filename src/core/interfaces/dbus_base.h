#pragma once

#include <string>
#include <vector>

namespace qs_ns {

/// How the controller reaches the bus side.
class QS_DBusBase {
 public:
  virtual ~QS_DBusBase() = default;

  /// Announces a finished request. On the thread that finished it, never the bus thread; does not
  /// wait for the bus. `resultCode` is 0 (played to its end) or 1 (stopped), `request` is the
  /// `QS_PlayRequest`, which may die once this has returned.
  virtual void reportPlayRequestResult(const std::vector<std::string>& texts,
                                       const unsigned int& params, const unsigned int& type,
                                       const unsigned int& flags, const unsigned int& resultCode,
                                       const void* request) = 0;
};

}  // namespace qs_ns
