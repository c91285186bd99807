#pragma once

#include "platform/audio/output.h"
#include "platform/audio/pacer.h"
#include "platform/unique_fd.h"

namespace platform::audio {

/// A RIFF WAVE file of exactly the samples that were sent, sessions back to back, in the time that
/// they would take. The first session creates or empties the file, later ones go on in it. Samples
/// and a header that counts them are in the file when a write returns, so that whoever looks at it
/// in between, or after a crash, has a whole file.
class WavOutput final : public Output {
 public:
  explicit WavOutput(std::string filePath);

  /// Whether the file could be written: 0, or the negative errno value. Creates nothing.
  static int checkWritable(const std::string& path);

  int open(std::string& why) override;
  int write(const std::int16_t* samples, std::size_t frames) override;
  int close() override;

 private:
  int create();
  int writeHeader();

  const std::string path;
  UniqueFd file;
  std::uint64_t framesInFile = 0;
  Pacer pacer;
};

}  // namespace platform::audio
