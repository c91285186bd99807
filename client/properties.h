#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

namespace qs_client {

/// A property that the daemon knows.
struct Property {
  /// When does a change take effect?
  enum class Effect { atNextRead, afterReload, atNextStart };

  const char* key;
  const char* byDefault;
  const char* allowed;
  bool (*isAllowed)(const std::string& value);
  Effect effect;
};

/// Throws UsageFailure where there is none.
const Property& propertyOf(const std::string& key);

/// The store's file, which need not exist.
std::string storePath();
/// The end of a sentence: what to do where it cannot be read or written for that errno value.
std::string storeRemedy(int error);
/// The last value of `key` in the file at `path`, whether it is allowed or not.
std::optional<std::string> valueIn(const std::string& path, const std::string& key);

struct PropertyInForce {
  const char* key;
  std::string value;
  bool byDefault;  // is the value not the store's?
};

/// Those that the daemon goes by at its next read, of all keys or one: the defaults where the store
/// is no file that it would read. Throws Failure where this user may not read it, UsageFailure for
/// an unknown key.
std::vector<PropertyInForce> propertiesInForce();
PropertyInForce propertyInForce(const std::string& key);

/// An object with a member for each key.
nlohmann::json toJson(const std::vector<PropertyInForce>& properties);
/// Lines as those of the store, with a comment where a value is the default.
std::string toText(const std::vector<PropertyInForce>& properties);

}  // namespace qs_client
