#pragma once

#include <cstddef>
#include <string_view>

namespace qs_ns {

/// What a text that may not be UTF-8 begins with: a character, or (not valid) the bytes for which
/// one U+FFFD stands, which are as many as could still have become a character.
struct Utf8Unit {
  std::size_t bytes;
  bool valid;
};

/// The first unit of `text`, which must not be empty. Any thread.
Utf8Unit firstUtf8Unit(std::string_view text);

/// Does Flite separate tokens at this character?
constexpr bool isBlank(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

}  // namespace qs_ns
