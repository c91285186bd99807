#pragma once

#include "platform/mutex.h"

namespace qs_ns {

/// How a request ended, decided once: by the writer at its end, or by a stop. Whoever comes second
/// changes nothing, so every request that is played gets one result and not two.
struct RequestOutcome {
  enum class Result { undecided, played, stopped };

  /// Taken inside the play queue's control lock. Held while the writer posts result 0, so that a
  /// stop which finds it decided knows that the signal is on its way.
  platform::Mutex lock{true};
  Result result GUARDED_BY(lock) = Result::undecided;
};

}  // namespace qs_ns
