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
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <vector>

#include "bus.h"
#include "failure.h"
#include "platform/key_value_file.h"
#include "platform/unique_fd.h"
#include "properties.h"

namespace qs_client {

namespace {

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

int onlyAtNextStart(const std::string& reason, int code) {
  std::cerr << "quillspeak: the value is set, and heeded when the daemon next starts: " << reason
            << '\n';
  return code;
}

// A daemon that runs and refuses goes on with the old value.
int reload() {
  std::optional<Bus> bus;
  try {
    bus.emplace();
  } catch (const DBus::Error& error) {
    return onlyAtNextStart(explain(error), kOk);
  }
  if (bus->owner().empty()) return onlyAtNextStart(kNotRunning, kOk);
  try {
    bus->ReloadConfig(0);
  } catch (const DBus::Error& error) {
    return onlyAtNextStart(explain(error), kFailed);
  }
  return kOk;
}

int takeEffect(Property::Effect effect) {
  switch (effect) {
    case Property::Effect::atNextRead:
      return kOk;
    case Property::Effect::afterReload:
      return reload();
    case Property::Effect::atNextStart:
      return onlyAtNextStart("systemctl restart quillspeak", kOk);
  }
  return kOk;
}

}  // namespace

void printProperties(const std::string& key, bool json) {
  const auto properties = key.empty() ? propertiesInForce() : std::vector{propertyInForce(key)};
  if (json) {
    std::cout << toJson(properties) << '\n';
  } else if (key.empty()) {
    std::cout << toText(properties);
  } else {
    std::cout << properties.front().value << '\n';
  }
}

int setProperty(const std::string& key, const std::string& value) {
  const Property& property = propertyOf(key);
  if (!property.isAllowed(value)) throw UsageFailure(key + " may be " + property.allowed);
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
  return before != value ? takeEffect(property.effect) : kOk;
}

}  // namespace qs_client
