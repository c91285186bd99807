#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace test {

/// A folder of the test's own, gone with it.
class ScratchFolder {
 public:
  ScratchFolder() {
    char pattern[] = "/tmp/quillspeak-test-XXXXXX";
    const char* made = mkdtemp(pattern);
    if (made == nullptr) std::abort();
    folder = made;
  }
  ~ScratchFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
  }
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;

  std::string operator/(const std::string& name) const { return folder + "/" + name; }
  const std::string& path() const { return folder; }

 private:
  std::string folder;
};

inline void writeFile(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

inline std::string readFile(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

}  // namespace test
