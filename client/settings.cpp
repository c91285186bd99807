#include "settings.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <sstream>

#include "bus.h"
#include "failure.h"
#include "platform/environment.h"
#include "platform/key_value_file.h"
#include "platform/unique_fd.h"

namespace qs_client {

namespace {

struct Property {
  const char* key;
  const char* byDefault;
  const char* allowed;
  bool (*isAllowed)(const std::string& value);
  bool reload;  // does the daemon keep what was made with the old value?
};

bool isInteger(const std::string& text, std::int64_t low, std::int64_t high) {
  const auto number = platform::parseDecimal(text);
  return number && *number >= low && *number <= high;
}

constexpr Property kProperties[] = {
    {"device.accessibility.qs_enabled", "false", "true or false",
     [](const std::string& text) { return platform::parseBoolean(text).has_value(); }, false},
    {"device.accessibility.qs_speed", "3", "1 to 5",
     [](const std::string& text) { return isInteger(text, 1, 5); }, true},
    {"qs_voice", "slt", "slt or kal16",
     [](const std::string& text) { return text == "slt" || text == "kal16"; }, true},
    {"qs_cache", "enable", "enable or disable",
     [](const std::string& text) { return text == "enable" || text == "disable"; }, true},
    {"device.feature.dbus-automation", "0", "0 or 1",
     [](const std::string& text) { return isInteger(text, 0, 1); }, false},
};

const Property& propertyOf(const std::string& key) {
  std::string keys;
  for (const Property& one : kProperties) {
    if (key == one.key) return one;
    keys += std::string(keys.empty() ? "" : ", ") + one.key;
  }
  throw Failure("there is no property " + key + "; there are " + keys);
}

std::string storePath() {
  return platform::environmentOr("QUILLSPEAK_PROPERTIES", "/etc/quillspeak/properties.conf");
}

std::optional<std::string> valueIn(const std::string& path, const std::string& key) {
  platform::KeyValueFile file;
  const std::string* value = file.refresh(path) ? file.find(key) : nullptr;
  return value != nullptr ? std::optional(*value) : std::nullopt;
}

[[noreturn]] void fail(const std::string& path) {
  throw Failure("cannot write " + path + ": " + std::strerror(errno) +
                "; run this as a user who may");
}

// The line in force is the last of its key.
std::string changed(const std::string& text, const std::string& key, const std::string& value) {
  std::size_t begin = std::string::npos;
  std::size_t length = 0;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find('\n', at), text.size());
    const auto setting = platform::parseSetting(std::string_view(text).substr(at, end - at));
    if (setting && setting->first == key) {
      begin = static_cast<std::size_t>(setting->second.data() - text.data());
      length = setting->second.size();
    }
    at = end + 1;
  }
  if (begin != std::string::npos) return std::string(text).replace(begin, length, value);
  const char* const newline = text.empty() || text.ends_with('\n') ? "" : "\n";
  return text + newline + key + " = " + value + "\n";
}

void writeAll(int file, const std::string& text, const std::string& path) {
  for (std::size_t done = 0; done < text.size();) {
    const ssize_t count = write(file, text.data() + done, text.size() - done);
    if (count < 0 && errno != EINTR) fail(path);
    if (count > 0) done += static_cast<std::size_t>(count);
  }
  if (fsync(file) != 0) fail(path);
}

void replaceFile(const std::string& path, const std::string& text) {
  std::string fresh = path + ".XXXXXX";
  const platform::UniqueFd file(mkostemp(fresh.data(), O_CLOEXEC));
  if (!file) fail(path);
  try {
    struct stat old {};
    const bool existed = stat(path.c_str(), &old) == 0;
    if (existed && fchown(file.get(), old.st_uid, old.st_gid) != 0) fail(path);
    if (fchmod(file.get(), existed ? old.st_mode & 07777 : 0644) != 0) fail(path);
    writeAll(file.get(), text, path);
    if (rename(fresh.c_str(), path.c_str()) != 0) fail(path);
  } catch (const Failure&) {
    unlink(fresh.c_str());
    throw;
  }
}

void reload() {
  try {
    Bus bus;
    bus.owner();
    bus.ReloadConfig(0);
  } catch (const DBus::Error&) {
    std::cerr << "quillspeak: the daemon was not reached; it will heed this when it starts\n";
  }
}

}  // namespace

int printProperty(const std::string& key) {
  const Property& property = propertyOf(key);
  const auto value = valueIn(storePath(), key);
  const bool valid = value && property.isAllowed(*value);
  std::cout << (valid ? *value : property.byDefault) << '\n';
  return kOk;
}

int setProperty(const std::string& key, const std::string& value) {
  const Property& property = propertyOf(key);
  if (!property.isAllowed(value)) throw Failure(key + " may be " + property.allowed);
  const std::string path = std::filesystem::weakly_canonical(storePath());
  const std::string folder = std::filesystem::path(path).parent_path();
  // Two that change the file at once would lose one change.
  const platform::UniqueFd lock(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!lock || flock(lock.get(), LOCK_EX) != 0) fail(path);
  const auto before = valueIn(path, key);
  std::ostringstream text;
  std::ifstream old(path, std::ios::binary);
  if (!old && std::filesystem::exists(path)) fail(path);
  if (old && old.peek() != std::ifstream::traits_type::eof()) text << old.rdbuf();
  replaceFile(path, changed(text.str(), key, value));
  if (fsync(lock.get()) != 0) fail(path);
  if (property.reload && before != value) reload();
  return kOk;
}

}  // namespace qs_client
