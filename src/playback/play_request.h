#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "playback/stage_times.h"
#include "playback/wqueue.h"

namespace qs_ns {

/// What the bits of a request's `flags` mean.
inline constexpr std::int32_t kPrecedenceMask = 0x3;
inline constexpr std::int32_t kPlayAlertAfterTexts = 0x4;
inline constexpr std::int32_t kSilenceBetweenTexts = 0x8;

/// What the bits of a request's `params` mean.
inline constexpr std::int32_t kSpeedMask = 0x7;
inline constexpr int kVoiceShift = 3;

/// Samples a second of the speech engine, of both caches and of the alert file.
inline constexpr int kSpeechRate = 16000;

/// One request to speak. Owned by the play queue from `addToQueue` on, then by the streaming object
/// that plays it. Unchanged after construction, but for its times.
struct QS_PlayRequest {
  QS_PlayRequest(std::vector<std::string> texts, const char* alert, std::int32_t requestParams,
                 std::int32_t requestType, std::int32_t requestFlags);

  const std::vector<std::string> textToConvert;
  /// Path of a file of raw samples at the speech rate; a constant, not owned. May be null.
  const char* const alertFile;
  const std::int32_t params;
  /// The client's own; carried and reported back.
  const std::int32_t type;
  const std::int32_t flags;
  /// The request's identity on the bus: never 0, never given out twice.
  const std::uint64_t handle;
  mutable StageTimes times;
};

/// A block of samples on its way from the synthesis to the writer.
struct QS_StreamData {
  std::unique_ptr<std::int16_t[]> samples;
  /// Samples, not bytes.
  std::int32_t count;
};

using SampleQueue = wqueue<std::unique_ptr<QS_StreamData>>;

}  // namespace qs_ns
