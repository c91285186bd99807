#include "platform/key_value_file.h"

#include <fcntl.h>
#include <strings.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <ctime>
#include <limits>

#include "platform/unique_fd.h"

namespace platform {

namespace {

bool sameTime(const timespec& a, const timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

// The change time tells of a rewrite that puts the modification time back.
bool sameState(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
         sameTime(a.st_mtim, b.st_mtim) && sameTime(a.st_ctim, b.st_ctim);
}

// File times come from the coarse clock and move in ticks: a rewrite in the tick of the last change
// keeps the stamp. Once that tick has passed, any rewrite moves it. Where the file system keeps no
// fractions of a second, a tick is up to 2 s. A stamp from the future, before the clock was set, is
// no rewrite's either.
bool tickHasPassed(const timespec& now, const timespec& changed) {
  if (changed.tv_sec - now.tv_sec >= 2) return true;
  if (changed.tv_nsec == 0) return now.tv_sec - changed.tv_sec >= 2;
  return now.tv_sec > changed.tv_sec ||
         (now.tv_sec == changed.tv_sec && now.tv_nsec > changed.tv_nsec);
}

int refusal(const struct stat& status) {
  if (!S_ISREG(status.st_mode)) return S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
  return static_cast<std::uintmax_t>(status.st_size) > KeyValueFile::kMaxBytes ? EFBIG : 0;
}

// The whole file into `text`: 0 or an errno value. It may have grown since its size was looked at.
int readAll(int descriptor, std::string& text) {
  text.resize(KeyValueFile::kMaxBytes + 1);
  std::size_t length = 0;
  while (length < text.size()) {
    const ssize_t count = read(descriptor, text.data() + length, text.size() - length);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return errno;
    if (count == 0) break;
    length += static_cast<std::size_t>(count);
  }
  if (length > KeyValueFile::kMaxBytes) return EFBIG;
  text.resize(length);
  return 0;
}

constexpr std::string_view kBlanks = " \t\r\v\f";

std::string_view trimmed(std::string_view text) {
  const std::size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

std::optional<std::int64_t> parseDigits(std::string_view digits, int base) {
  std::int64_t number = 0;
  const char* end = digits.data() + digits.size();
  const auto [rest, error] = std::from_chars(digits.data(), end, number, base);
  if (rest != end) return std::nullopt;
  if (error == std::errc::result_out_of_range) {
    return digits.starts_with('-') ? std::numeric_limits<std::int64_t>::min()
                                   : std::numeric_limits<std::int64_t>::max();
  }
  return error == std::errc() ? std::optional(number) : std::nullopt;
}

}  // namespace

bool KeyValueFile::refresh(const std::string& newPath) {
  if (unchanged(newPath)) return true;
  if (path != newPath) lastError = 0;
  path = newPath;
  values.clear();
  settled = false;
  const int error = load();
  if (error != 0) return fail(error);
  lastError = 0;
  return true;
}

const std::string* KeyValueFile::find(std::string_view key) const {
  const auto found = values.find(key);
  return found != values.end() ? &found->second : nullptr;
}

bool KeyValueFile::unchanged(const std::string& newPath) const {
  struct stat now {};
  return settled && path == newPath && stat(path.c_str(), &now) == 0 && sameState(now, stamp);
}

int KeyValueFile::load() {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return errno;
  if (const int error = refusal(status); error != 0) return error;
  // Another kind of file may have taken its place meanwhile; opening a pipe must not block.
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  return file ? loadFrom(file.get()) : errno;
}

int KeyValueFile::loadFrom(int descriptor) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME_COARSE, &now);
  if (fstat(descriptor, &stamp) != 0) return errno;
  if (const int error = refusal(stamp); error != 0) return error;
  std::string text;
  if (const int error = readAll(descriptor, text); error != 0) return error;
  parse(text);
  settled = tickHasPassed(now, stamp.st_ctim);
  return 0;
}

void KeyValueFile::parse(std::string_view text) {
  ++parsed;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    parseLine(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
}

void KeyValueFile::parseLine(std::string_view line) {
  if (const auto setting = parseSetting(line)) {
    values.insert_or_assign(std::string(setting->first), setting->second);
  }
}

// A missing file is a setting like any other; what was meant to be read and could not be is said
// once.
bool KeyValueFile::fail(int error) {
  if (error != ENOENT && error != lastError) {
    syslog(LOG_WARNING, "%s: cannot be read: %s", path.c_str(), std::strerror(error));
  }
  lastError = error;
  return false;
}

std::optional<std::pair<std::string_view, std::string_view>> parseSetting(std::string_view line) {
  line = line.substr(0, line.find('#'));
  const std::size_t equals = line.find('=');
  // A NUL would cut the value short for a caller that wants a C string.
  if (equals == std::string_view::npos || line.find('\0') != std::string_view::npos) return {};
  const std::string_view key = trimmed(line.substr(0, equals));
  if (key.empty()) return {};
  const std::string_view rest = line.substr(equals + 1);
  const std::string_view value = trimmed(rest);
  return std::pair(key, value.empty() ? rest.substr(0, 0) : value);
}

std::optional<bool> parseBoolean(std::string_view text) {
  static constexpr std::string_view kTrue[] = {"true", "1", "yes", "on"};
  static constexpr std::string_view kFalse[] = {"false", "0", "no", "off"};
  const auto isText = [text](std::string_view word) {
    return word.size() == text.size() && strncasecmp(word.data(), text.data(), word.size()) == 0;
  };
  if (std::any_of(std::begin(kTrue), std::end(kTrue), isText)) return true;
  if (std::any_of(std::begin(kFalse), std::end(kFalse), isText)) return false;
  return std::nullopt;
}

std::optional<std::int64_t> parseDecimal(std::string_view text) {
  // from_chars takes a minus and no plus.
  if (text.starts_with("+") && !text.starts_with("+-")) text.remove_prefix(1);
  return parseDigits(text, 10);
}

std::optional<std::int64_t> parseNumber(std::string_view text) {
  if (!text.starts_with("0x") && !text.starts_with("0X")) return parseDecimal(text);
  text.remove_prefix(2);
  return text.starts_with("-") ? std::nullopt : parseDigits(text, 16);
}

}  // namespace platform
