#pragma once

#include <string>

#include "platform/unique_fd.h"

namespace qs_ns {

/// Opens the file at `path` for writing, creates it where there is none (mode 0666 less the umask)
/// and empties it. The path comes from strangers: only a regular file is opened or emptied, a pipe
/// without a reader does not block, and neither a symbolic link as its last component is followed
/// nor one that somebody else may have planted on the way, in a folder that others can write to.
/// 0 with the file in `file`, or the errno value of what went wrong (ELOOP for such a link,
/// EOPNOTSUPP for what is no regular file). Blocks as long as the file system does. Any thread.
int openOutputFile(const std::string& path, platform::UniqueFd& file);

}  // namespace qs_ns
