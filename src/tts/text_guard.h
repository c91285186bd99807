#pragma once

#include <string>
#include <string_view>

namespace qs_ns {

/// Makes a text safe for Flite, which overruns its heap on some 300 punctuation characters in a row
/// and takes quadratic time for a long token: invalid UTF-8 becomes U+FFFD, a run of more than 16
/// punctuation characters is cut to 16, and a token of more than 64 characters gets a blank after
/// each 64. A text that needs none of this comes back unchanged. Any thread.
std::string guardText(std::string_view text);

}  // namespace qs_ns
