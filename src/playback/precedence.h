#pragma once

#include <cstdint>

#include "playback/play_request.h"

namespace qs_ns {

/// Does a queued or playing request with flags `existing` give way to a newer one with `newer`? One
/// with bit 0x2 gives way to nobody; one with 0x1 alone to all; one with neither to all but a
/// newcomer with 0x1 alone, which queues politely behind it.
constexpr bool givesWay(std::int32_t existing, std::int32_t newer) {
  const std::int32_t a = existing & kPrecedenceMask;
  const std::int32_t b = newer & kPrecedenceMask;
  if ((a & 0x2) != 0) return false;
  return !(a == 0 && b == 0x1);
}

}  // namespace qs_ns
