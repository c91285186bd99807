#include "properties.h"

#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <nlohmann/json.hpp>

#include "failure.h"
#include "platform/environment.h"
#include "platform/key_value_file.h"

namespace qs_client {

namespace {

bool isInteger(const std::string& text, std::int64_t low, std::int64_t high) {
  const auto number = platform::parseDecimal(text);
  return number && *number >= low && *number <= high;
}

constexpr Property kProperties[] = {
    {"device.accessibility.qs_enabled", "false", "true or false",
     [](const std::string& text) { return platform::parseBoolean(text).has_value(); },
     Property::Effect::atNextRead},
    {"device.accessibility.qs_speed", "3", "1 to 5",
     [](const std::string& text) { return isInteger(text, 1, 5); }, Property::Effect::afterReload},
    {"qs_voice", "slt", "slt or kal16",
     [](const std::string& text) { return text == "slt" || text == "kal16"; },
     Property::Effect::afterReload},
    {"qs_cache", "enable", "enable or disable",
     [](const std::string& text) { return text == "enable" || text == "disable"; },
     Property::Effect::atNextStart},
    {"device.feature.dbus-automation", "0", "0 or 1",
     [](const std::string& text) { return isInteger(text, 0, 1); }, Property::Effect::atNextRead},
};

void requireReadable(const std::string& path) {
  if (access(path.c_str(), R_OK) == 0 || errno == ENOENT) return;
  throw Failure("cannot read " + path + ": " + std::strerror(errno) + storeRemedy(errno));
}

PropertyInForce inForce(const Property& property, const std::string* stored) {
  const bool heeded = stored != nullptr && property.isAllowed(*stored);
  return {property.key, heeded ? *stored : property.byDefault, !heeded};
}

}  // namespace

const Property& propertyOf(const std::string& key) {
  std::string keys;
  for (const Property& one : kProperties) {
    if (key == one.key) return one;
    keys += std::string(keys.empty() ? "" : ", ") + one.key;
  }
  throw UsageFailure("there is no property " + key + "; name one of " + keys);
}

std::string storePath() {
  return platform::environmentOr("QUILLSPEAK_PROPERTIES", "/etc/quillspeak/properties.conf");
}

std::string storeRemedy(int error) {
  switch (error) {
    case EACCES:
    case EPERM:
      return "; run this as a user who may";
    case ENOSPC:
    case EDQUOT:
      return "; free space there";
    case ENOENT:
      return "; make its folder";
    default:
      return "; name another file with QUILLSPEAK_PROPERTIES";
  }
}

std::optional<std::string> valueIn(const std::string& path, const std::string& key) {
  platform::KeyValueFile file;
  const std::string* value = file.refresh(path) ? file.find(key) : nullptr;
  return value != nullptr ? std::optional(*value) : std::nullopt;
}

std::vector<PropertyInForce> propertiesInForce() {
  const std::string path = storePath();
  requireReadable(path);
  platform::KeyValueFile file;
  const bool read = file.refresh(path);
  std::vector<PropertyInForce> all;
  all.reserve(std::size(kProperties));
  for (const Property& one : kProperties)
    all.push_back(inForce(one, read ? file.find(one.key) : nullptr));
  return all;
}

PropertyInForce propertyInForce(const std::string& key) {
  const Property& property = propertyOf(key);
  requireReadable(storePath());
  const auto stored = valueIn(storePath(), key);
  return inForce(property, stored ? &*stored : nullptr);
}

nlohmann::json toJson(const std::vector<PropertyInForce>& properties) {
  auto object = nlohmann::json::object();
  for (const PropertyInForce& one : properties)
    object[one.key] = {{"value", one.value}, {"default", one.byDefault}};
  return object;
}

std::string toText(const std::vector<PropertyInForce>& properties) {
  std::string text;
  for (const PropertyInForce& one : properties)
    text += one.key + (" = " + one.value) + (one.byDefault ? "  # default\n" : "\n");
  return text;
}

}  // namespace qs_client
