#pragma once

#include <cstdint>
#include <string>

#include <dbus-c++/dbus.h>

namespace qs_ns {

/// The standard properties interface as other services have it. The library's knows only `Get` and
/// `Set`. For properties that are read only; bus thread.
class PropertiesAdaptor : public DBus::PropertiesAdaptor {
 public:
  PropertiesAdaptor();

  /// `GetAll`: the properties of one interface as `on_get_property` has them, or of all where the
  /// call names none. An interface without properties has an empty answer.
  DBus::Message getAll(const DBus::CallMessage& call);
  /// `Set`: always an error.
  DBus::Message refuseSet(const DBus::CallMessage& call);

  DBus::IntrospectedInterface* introspect() const override;

 protected:
  /// Emits `PropertiesChanged` with the one property and its value.
  void emitChanged(const std::string& interface, const std::string& property,
                   const DBus::Variant& value);
};

}  // namespace qs_ns
