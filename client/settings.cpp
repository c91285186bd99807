#include "settings.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <system_error>
#include <thread>
#include <vector>

#include "bus.h"
#include "failure.h"
#include "platform/key_value_file.h"
#include "platform/unique_fd.h"
#include "properties.h"

namespace qs_client {

namespace {

[[noreturn]] void fail(const std::string& path) {
  throw Failure("cannot write " + path + ": " + std::strerror(errno) + storeRemedy(errno));
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

struct Reload {
  std::string whyNot{};  // empty where the daemon was told
  int code = kOk;
};

// A daemon that runs and refuses goes on with the old value.
Reload reload() {
  std::optional<Bus> bus;
  try {
    bus.emplace();
  } catch (const DBus::Error& error) {
    return {explain(error)};
  } catch (const Failure& noBus) {
    return {noBus.what()};
  }
  if (bus->owner().empty()) return {kNotRunning};
  try {
    bus->ReloadConfig(0);
  } catch (const DBus::Error& error) {
    return {explain(error), kFailed};
  }
  return {};
}

// Also where the value was there before: the reload may have been refused then.
int takeEffect(Property::Effect effect) {
  if (effect == Property::Effect::atNextRead) return kOk;
  Reload reloaded = reload();
  const bool refused = reloaded.code != kOk;
  if (reloaded.whyNot.empty() && effect == Property::Effect::atNextStart) {
    reloaded.whyNot = "systemctl restart quillspeak";
  }
  if (!reloaded.whyNot.empty()) {
    // A daemon that runs reads these for each text that it does not know yet.
    const bool waitsForReload = refused && effect == Property::Effect::afterReload;
    std::cerr << "quillspeak: the value is set, "
              << (waitsForReload ? "but what is cached keeps the old one until a reload: "
                                 : "and heeded when the daemon next starts: ")
              << reloaded.whyNot << '\n';
  }
  return reloaded.code;
}

// The folder is open to everybody, and so is its lock, which has no deadline of its own.
void lockFolder(int folder, const std::string& path) {
  constexpr std::chrono::milliseconds kBetweenTries{20};
  constexpr int kTries = 250;
  for (int i = 0; flock(folder, LOCK_EX | LOCK_NB) != 0; ++i) {
    if (errno != EWOULDBLOCK && errno != EINTR) fail(path);
    if (i == kTries) throw Failure(path + " is being changed by another; try again");
    std::this_thread::sleep_for(kBetweenTries);
  }
}

// What the daemon would not read is not read here either: it may have no end.
std::string readStore(const std::string& path) {
  struct stat state {};
  if (stat(path.c_str(), &state) != 0) {
    if (errno == ENOENT) return {};
    fail(path);
  }
  if (!S_ISREG(state.st_mode)) {
    throw Failure(path + " is no regular file; name another with QUILLSPEAK_PROPERTIES");
  }
  std::ifstream file(path, std::ios::binary);
  if (!file) fail(path);
  std::ostringstream text;
  if (file.peek() != std::ifstream::traits_type::eof()) text << file.rdbuf();
  return text.str();
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
  std::error_code failure;
  const auto whole = std::filesystem::absolute(storePath(), failure);
  const std::string path = failure ? "" : std::filesystem::weakly_canonical(whole, failure);
  if (failure) {
    errno = failure.value();
    fail(storePath());
  }
  const std::string folder = std::filesystem::path(path).parent_path();
  // Two that change the file at once would lose one change.
  const platform::UniqueFd lock(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!lock) fail(path);
  lockFolder(lock.get(), path);
  const std::string text = changed(readStore(path), key, value);
  if (text.size() > platform::KeyValueFile::kMaxBytes) {
    throw Failure(path + " is larger than the 256 KB that the daemon reads; shorten it");
  }
  replaceFile(path, text);
  if (fsync(lock.get()) != 0) fail(path);
  return takeEffect(property.effect);
}

}  // namespace qs_client
