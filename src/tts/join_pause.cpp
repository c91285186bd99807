#include "tts/join_pause.h"

#include <algorithm>
#include <cstddef>
#include <numeric>

namespace qs_ns {

namespace {

constexpr int kPauseMs = 150;
constexpr int kLeastPauseMs = 100;
constexpr int kMarginMs = 30;
constexpr int kFrameMs = 5;
// All of it lies before the sound, even at the highest speed.
constexpr int kNoiseMs = 60;
constexpr int kTimesNoise = 4;
// Of the noise's RMS: less was measured by chance, more is sound with which a piece begins.
constexpr int kLeastNoise = 12;
constexpr int kMostNoise = 28;

int samplesOf(int milliseconds, const cst_wave& wave) {
  return wave.sample_rate * milliseconds / 1000;
}

std::int64_t energy(const short* samples, int count) {
  return std::accumulate(samples, samples + count, std::int64_t{0},
                         [](std::int64_t sum, int sample) { return sum + sample * sample; });
}

/// How loud a frame of the piece is at least that is not quiet; its first `count` samples are
/// there.
std::int64_t loudnessIn(const cst_wave& piece, int count) {
  const int noise = std::min(samplesOf(kNoiseMs, piece), count);
  const std::int64_t frame = samplesOf(kFrameMs, piece);
  const std::int64_t measured = energy(piece.samples, noise) * frame / std::max(noise, 1);
  constexpr std::int64_t kFactor = kTimesNoise * kTimesNoise;
  return kFactor *
         std::clamp(measured, frame * kLeastNoise * kLeastNoise, frame * kMostNoise * kMostNoise);
}

}  // namespace

JoinPause::Samples JoinPause::cut(const cst_wave& piece, int start, int size) {
  if (passes) return {0, start, size};
  const int end = start + size;
  const int first = onset(piece, end);
  if (first < 0) return {0, end, 0};
  passes = true;
  const int wanted = std::max(samplesOf(kMarginMs, piece), samplesOf(kPauseMs, piece) - quiet);
  const int kept = std::min(first, wanted);
  const int silence = std::max(0, samplesOf(kLeastPauseMs, piece) - quiet - kept);
  return {silence, first - kept, end - (first - kept)};
}

/// Where the first frame begins that is not quiet; -1 where there is none in the first `count`
/// samples.
int JoinPause::onset(const cst_wave& piece, int count) {
  if (count < samplesOf(kNoiseMs, piece)) return -1;
  if (loudness == 0) loudness = loudnessIn(piece, count);
  const int frame = samplesOf(kFrameMs, piece);
  for (; scanned + frame <= count; scanned += frame)
    if (energy(piece.samples + scanned, frame) >= loudness) return scanned;
  return -1;
}

void JoinPause::endPiece(const cst_wave& piece) {
  if (passes) {
    const int frame = samplesOf(kFrameMs, piece);
    const std::int64_t loud = loudnessIn(piece, piece.num_samples);
    int end = piece.num_samples;
    while (end >= frame && energy(piece.samples + end - frame, frame) < loud)
      end -= frame;
    quiet = piece.num_samples - end;
  }
  passes = false;
  scanned = 0;
  loudness = 0;
}

}  // namespace qs_ns
