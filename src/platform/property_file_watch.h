#pragma once

#include <filesystem>
#include <optional>

#include "platform/condition.h"
#include "platform/unique_fd.h"

namespace platform {

/// Tells a loop that the file of the property store may have changed. What it watches is the file's
/// folder, which also shows a file that is put in place by rename or is not there yet, and the
/// folder of what a link there leads to. A folder that is not there, is another one by now, or
/// cannot be watched is found when the loop turns for another reason, a second later at most:
/// nothing here wakes it but the folders. The loop's own thread.
class PropertyFileWatch {
 public:
  /// Where there can be no descriptor the log says so, and only the loop's own turns remain.
  PropertyFileWatch();

  /// Readable when something happened in a folder, until the next look; -1 where there is none.
  int descriptor() const { return inotify.get(); }

  /// To be asked at each turn of the loop. True the first time, when something happened in a
  /// folder, and when a second has passed since it was last true. Does not block.
  bool mayHaveChanged();

 private:
  struct Folder {
    int number = -1;  // as inotify has it; -1 for none
    int error = 0;    // errno of the last attempt, told once
  };

  bool somethingHappened() const;
  Folder watch(const std::filesystem::path& of, const Folder& before) const;
  void watchFolders();

  const std::filesystem::path file;
  UniqueFd inotify;
  Folder own;
  Folder linked;
  std::optional<MonotonicTime> lastLook;
};

}  // namespace platform
