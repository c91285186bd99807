#include "platform/audio/wav_output.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstring>
#include <filesystem>

namespace platform::audio {

namespace {

static_assert(std::endian::native == std::endian::little, "a WAVE file has its low byte first");

constexpr std::size_t kHeaderBytes = 44;
constexpr std::uint32_t kBytesPerFrame = 2;

using Header = std::array<char, kHeaderBytes>;

/// Appends to a header: the file's fields one after the other.
class HeaderText {
 public:
  explicit HeaderText(Header& target) : header(target) {}
  HeaderText& tag(const char (&fourLetters)[5]) { return append(fourLetters, 4); }
  HeaderText& word(std::uint16_t value) { return append(&value, sizeof value); }
  HeaderText& dword(std::uint32_t value) { return append(&value, sizeof value); }

 private:
  HeaderText& append(const void* bytes, std::size_t size) {
    std::memcpy(header.data() + used, bytes, size);
    used += size;
    return *this;
  }
  Header& header;
  std::size_t used = 0;
};

/// The sizes have 32 bits, 12 hours; what is longer stays in the file but is not counted.
std::uint32_t countedBytes(std::uint64_t frames) {
  constexpr std::uint64_t kMost = 0xFFFFFFFEU - kHeaderBytes;
  return static_cast<std::uint32_t>(std::min(frames * kBytesPerFrame, kMost));
}

Header headerFor(std::uint64_t frames) {
  constexpr std::uint16_t kPcm = 1;
  constexpr std::uint16_t kMono = 1;
  const std::uint32_t dataBytes = countedBytes(frames);
  Header header{};
  HeaderText text(header);
  text.tag("RIFF").dword(static_cast<std::uint32_t>(kHeaderBytes - 8) + dataBytes).tag("WAVE");
  text.tag("fmt ").dword(16).word(kPcm).word(kMono);
  text.dword(kFramesPerSecond).dword(kFramesPerSecond * kBytesPerFrame);
  text.word(kBytesPerFrame).word(8 * kBytesPerFrame);
  text.tag("data").dword(dataBytes);
  return header;
}

/// All of `bytes` at `offset`: 0, or the negative errno value.
int writeAt(int file, const void* bytes, std::size_t size, std::uint64_t offset) {
  const char* next = static_cast<const char*>(bytes);
  while (size > 0) {
    const ssize_t done = pwrite(file, next, size, static_cast<off_t>(offset));
    if (done < 0 && errno == EINTR) continue;
    if (done < 0) return -errno;
    next += done;
    size -= static_cast<std::size_t>(done);
    offset += static_cast<std::uint64_t>(done);
  }
  return 0;
}

int accessStatus(const char* path, int mode) {
  return faccessat(AT_FDCWD, path, mode, AT_EACCESS) == 0 ? 0 : -errno;
}

}  // namespace

WavOutput::WavOutput(std::string filePath) : path(std::move(filePath)) {}

int WavOutput::checkWritable(const std::string& path) {
  if (path.empty()) return -ENOENT;
  struct stat found {};
  if (stat(path.c_str(), &found) == 0) {
    // A pipe or a device would block, and has no header to correct.
    return S_ISREG(found.st_mode) ? accessStatus(path.c_str(), W_OK) : -EINVAL;
  }
  if (errno != ENOENT) return -errno;
  const std::filesystem::path folder = std::filesystem::path(path).parent_path();
  return accessStatus(folder.empty() ? "." : folder.c_str(), W_OK | X_OK);
}

int WavOutput::open(std::string& why) {
  const int status = file ? 0 : create();
  if (status < 0) why = path + ": " + std::strerror(-status);
  pacer.restart();
  return status;
}

int WavOutput::create() {
  UniqueFd created(
      ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0644));
  if (!created) return -errno;
  struct stat found {};
  if (fstat(created.get(), &found) != 0) return -errno;
  if (!S_ISREG(found.st_mode)) return -EINVAL;
  if (ftruncate(created.get(), 0) != 0) return -errno;
  file = std::move(created);
  return writeHeader();
}

int WavOutput::write(const std::int16_t* samples, std::size_t frames) {
  pacer.waitForRoom(frames, kDepthFrames);
  // At its place, not at the end: where a full disk cut a write short, the next one mends it.
  const std::uint64_t place = kHeaderBytes + framesInFile * kBytesPerFrame;
  if (const int status = writeAt(file.get(), samples, frames * kBytesPerFrame, place); status < 0) {
    return status;
  }
  framesInFile += frames;
  pacer.add(frames);
  return writeHeader();
}

int WavOutput::close() {
  pacer.drain();
  return 0;
}

int WavOutput::writeHeader() {
  const Header header = headerFor(framesInFile);
  return writeAt(file.get(), header.data(), header.size(), 0);
}

}  // namespace platform::audio
