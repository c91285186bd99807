#include "platform/property_store.h"

#include <cstdint>
#include <cstring>
#include <limits>
#include <optional>
#include <string>

#include "platform/environment.h"
#include "platform/key_value_file.h"
#include "platform/mutex.h"

namespace {

constexpr int kFailed = -1;

platform::Mutex storeMutex(true);
platform::KeyValueFile store GUARDED_BY(storeMutex);

std::optional<std::string> valueOf(const char* key) {
  const std::string path = platform::propertyFile();
  const platform::MutexLock lock(storeMutex);
  if (!store.refresh(path)) return std::nullopt;
  const std::string* value = store.find(key);
  return value != nullptr ? std::optional(*value) : std::nullopt;
}

}  // namespace

std::string platform::propertyFile() {
  return environmentOr("QUILLSPEAK_PROPERTIES", "/etc/quillspeak/properties.conf");
}

int getBooleanProperty(const char* key, bool* value) {
  const auto text = valueOf(key);
  const auto flag = text ? platform::parseBoolean(*text) : std::nullopt;
  if (!flag) return kFailed;
  *value = *flag;
  return 0;
}

int getIntegerProperty(const char* key, int* value) {
  using Limits = std::numeric_limits<std::int32_t>;
  const auto text = valueOf(key);
  const auto number = text ? platform::parseDecimal(*text) : std::nullopt;
  if (!number || *number < Limits::min() || *number > Limits::max()) return kFailed;
  *value = static_cast<int>(*number);
  return 0;
}

int getStringProperty(const char* key, char* value, std::size_t size) {
  const auto text = valueOf(key);
  if (!text || text->size() >= size) return kFailed;
  std::memcpy(value, text->c_str(), text->size() + 1);
  return 0;
}
