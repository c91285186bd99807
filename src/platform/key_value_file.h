#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace platform {

/// A small text file of `key = value` lines, parsed again only when it has changed.
///
/// Blanks around key and value do not count, the last line of a key wins, lines without `=` or key
/// are passed over, `#` begins a comment wherever it stands. Only a regular file of at most
/// `kMaxBytes` is read: a pipe, a folder or a file of noise is a failed read and blocks nobody.
///
/// A file that is replaced by rename is read whole, the old one or the new one. Not synchronised:
/// the owner's lock guards it.
class KeyValueFile {
 public:
  /// Some thousand lines; parsed in a few milliseconds on a slow processor.
  static constexpr std::size_t kMaxBytes = 256 * 1024;

  /// Brings the values up to date with the file at `path`, which may be another one each time.
  /// False where it cannot be read; there are no values then. The log says why, once.
  bool refresh(const std::string& path);

  /// The value of `key`, or null. Valid until the next `refresh`.
  const std::string* find(std::string_view key) const;

  /// How often a file was parsed.
  unsigned timesParsed() const { return parsed; }

 private:
  bool unchanged(const std::string& newPath) const;
  int load();
  int loadFrom(int descriptor);
  void parse(std::string_view text);
  void parseLine(std::string_view line);
  bool fail(int error);

  std::string path;
  std::map<std::string, std::string, std::less<>> values;
  struct stat stamp {};
  bool settled = false;  // can a further change no longer hide behind an equal stamp?
  int lastError = 0;
  unsigned parsed = 0;
};

/// Key and value of a line without its newline, both views into it (also where the value is empty);
/// nothing where it sets nothing.
std::optional<std::pair<std::string_view, std::string_view>> parseSetting(std::string_view line);

/// `true`/`false`, `1`/`0`, `yes`/`no`, `on`/`off`, in any case.
std::optional<bool> parseBoolean(std::string_view text);

/// A whole decimal number with an optional sign; outside 64 bits the nearest one within.
std::optional<std::int64_t> parseDecimal(std::string_view text);

/// The same, or `0x` and hexadecimal digits.
std::optional<std::int64_t> parseNumber(std::string_view text);

}  // namespace platform
