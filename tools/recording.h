#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// A finished or growing recording: RIFF WAVE with a header of 44 bytes, 48,000 samples a second,
/// mono, signed 16-bit.
class Recording {
 public:
  static constexpr int kRate = 48000;
  static constexpr std::int64_t kHeaderBytes = 44;

  /// What `path` holds now; nothing where it cannot be read or is no such recording.
  static std::optional<Recording> read(const std::string& path);

  /// Does the header count every sample of the file? Not so while the file is being written.
  bool headerIsCorrect() const;
  double seconds() const { return static_cast<double>(samples.size()) / kRate; }
  /// The largest magnitude, 0 to 32,768.
  int peak() const;
  /// The seconds before the first sample of 1 % of full scale; nothing in a silent recording.
  std::optional<double> secondsBeforeSound() const;

 private:
  std::uint32_t countedBytes = 0;
  std::vector<std::int16_t> samples;
};
