#pragma once

#include <string>

namespace platform::audio {

/// Takes ALSA's messages from stderr, where it would write a dozen lines for one failed opening,
/// and keeps the first that this thread causes from here on.
void collectAlsaErrors();

/// `status` in words, with the message that was kept, if any.
std::string describeAlsaError(int status);

}  // namespace platform::audio
