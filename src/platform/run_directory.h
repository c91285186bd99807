#pragma once

#include <string>

namespace platform {

/// The folder of pid registrations: `QUILLSPEAK_RUN_DIR`, else `/run/quillspeak` as root or where
/// that can be written to, else `$XDG_RUNTIME_DIR`, else a private folder under `/tmp`. Made where
/// it is missing. Empty where it cannot be had, or is no folder to trust; the log says why.
std::string runDirectory();

/// `folder`, made for its owner alone where it is missing. Anybody can make one of that name in a
/// folder shared by all, so a link, another user's folder and one that others may look into are
/// refused: empty, and logged.
std::string privateFolder(const std::string& folder);

}  // namespace platform
