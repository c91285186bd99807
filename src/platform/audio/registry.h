#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "platform/audio/output.h"

namespace platform::audio {

/// What names an output, for people.
inline constexpr char kValidOutputs[] =
    "alsa:PCM, wav:FILE (a file that can be written), null, auto";

/// The output that `value` names. Null where it names none or a file that cannot be written, with
/// what is wrong in `why`. Opens no device and creates no file.
std::unique_ptr<Output> makeOutput(std::string_view value, std::string& why);

}  // namespace platform::audio
