#include "recording.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace {

static_assert(std::endian::native == std::endian::little, "a WAVE file is read as it lies there");

struct Header {
  std::array<char, 4> riff;
  std::uint32_t riffBytes;
  std::array<char, 8> waveFormat;
  std::uint32_t formatBytes;
  std::uint16_t coding;
  std::uint16_t channels;
  std::uint32_t rate;
  std::uint32_t bytesPerSecond;
  std::uint16_t bytesPerFrame;
  std::uint16_t bitsPerSample;
  std::array<char, 4> data;
  std::uint32_t dataBytes;

  bool isRecording() const {
    return std::memcmp(riff.data(), "RIFF", 4) == 0 &&
           std::memcmp(waveFormat.data(), "WAVEfmt ", 8) == 0 &&
           std::memcmp(data.data(), "data", 4) == 0 && coding == 1 && channels == 1 &&
           rate == Recording::kRate && bitsPerSample == 16;
  }
};
static_assert(sizeof(Header) == Recording::kHeaderBytes);

// Full scale is 32,768.
constexpr int kSound = 328;

bool isSound(std::int16_t sample) {
  return std::abs(int{sample}) >= kSound;
}

}  // namespace

std::optional<Recording> Recording::read(const std::string& path) {
  std::ifstream file(path, std::ios::binary | std::ios::ate);
  const std::streamoff bytes = file.tellg();
  Header header{};
  if (!file || bytes < kHeaderBytes || !file.seekg(0) ||
      !file.read(reinterpret_cast<char*>(&header), kHeaderBytes) || !header.isRecording())
    return std::nullopt;

  Recording recording;
  recording.countedBytes = header.dataBytes;
  recording.samples.resize(static_cast<std::size_t>(bytes - kHeaderBytes) / sizeof(std::int16_t));
  file.read(reinterpret_cast<char*>(recording.samples.data()),
            static_cast<std::streamsize>(recording.samples.size() * sizeof(std::int16_t)));
  return file ? std::optional(recording) : std::nullopt;
}

bool Recording::headerIsCorrect() const {
  return countedBytes == samples.size() * sizeof(std::int16_t);
}

int Recording::peak() const {
  int largest = 0;
  for (const std::int16_t sample : samples)
    largest = std::max(largest, std::abs(int{sample}));
  return largest;
}

std::optional<double> Recording::secondsBeforeSound() const {
  const auto first = std::find_if(samples.begin(), samples.end(), isSound);
  if (first == samples.end()) return std::nullopt;
  return static_cast<double>(first - samples.begin()) / kRate;
}
