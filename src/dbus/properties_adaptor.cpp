#include "dbus/properties_adaptor.h"

#include <dbus/dbus-protocol.h>

#include <map>
#include <vector>

namespace qs_ns {

namespace {

using Values = std::map<std::string, DBus::Variant>;

// The table itself is out of reach from here; the declarations name what is in it.
void addNames(const DBus::InterfaceAdaptor& interface, std::vector<std::string>& names) {
  const DBus::IntrospectedInterface* const declared = interface.introspect();
  if (declared == nullptr) return;
  for (const DBus::IntrospectedProperty* one = declared->properties; one->name != nullptr; ++one)
    names.emplace_back(one->name);
}

}  // namespace

PropertiesAdaptor::PropertiesAdaptor() {
  using Method = DBus::Callback<PropertiesAdaptor, DBus::Message, const DBus::CallMessage&>;
  _methods["GetAll"] = new Method(this, &PropertiesAdaptor::getAll);
  _methods["Set"] = new Method(this, &PropertiesAdaptor::refuseSet);
}

DBus::Message PropertiesAdaptor::getAll(const DBus::CallMessage& call) {
  DBus::MessageIter arguments = call.reader();
  std::string wanted;
  arguments >> wanted;
  if (!wanted.empty() && find_interface(wanted) == nullptr) {
    throw DBus::Error(DBUS_ERROR_UNKNOWN_INTERFACE, "requested interface not found");
  }
  Values values;
  for (const auto& [name, interface] : _interfaces) {
    if (!wanted.empty() && name != wanted) continue;
    std::vector<std::string> properties;
    addNames(*interface, properties);
    for (const std::string& property : properties) {
      DBus::Variant& value = *interface->get_property(property);
      on_get_property(*interface, property, value);
      values[property] = value;
    }
  }
  DBus::ReturnMessage reply(call);
  DBus::MessageIter writer = reply.writer();
  writer << values;
  return reply;
}

// The library's own copies the value before it looks whether it may be set, and a descriptor in it
// ends the process.
DBus::Message PropertiesAdaptor::refuseSet(const DBus::CallMessage& call) {
  DBus::MessageIter arguments = call.reader();
  std::string interface;
  std::string property;
  arguments >> interface >> property;
  if (arguments.type() != DBUS_TYPE_VARIANT) throw DBus::ErrorInvalidArgs("variant type expected");
  DBus::InterfaceAdaptor* const owner = find_interface(interface);
  if (owner == nullptr) throw DBus::ErrorFailed("requested interface not found");
  if (owner->get_property(property) == nullptr) {
    throw DBus::ErrorFailed("requested property not found");
  }
  throw DBus::ErrorAccessDenied("property is not writeable");
}

void PropertiesAdaptor::emitChanged(const std::string& interface, const std::string& property,
                                    const DBus::Variant& value) {
  DBus::SignalMessage changed("PropertiesChanged");
  DBus::MessageIter writer = changed.writer();
  writer << interface << Values{{property, value}} << std::vector<std::string>{};
  emit_signal(changed);
}

DBus::IntrospectedInterface* PropertiesAdaptor::introspect() const {
  static const DBus::IntrospectedArgument kGet[] = {{"interface_name", "s", true},
                                                    {"property_name", "s", true},
                                                    {"value", "v", false},
                                                    {nullptr, nullptr, false}};
  static const DBus::IntrospectedArgument kSet[] = {{"interface_name", "s", true},
                                                    {"property_name", "s", true},
                                                    {"value", "v", true},
                                                    {nullptr, nullptr, false}};
  static const DBus::IntrospectedArgument kGetAll[] = {
      {"interface_name", "s", true}, {"properties", "a{sv}", false}, {nullptr, nullptr, false}};
  static const DBus::IntrospectedArgument kChanged[] = {{"interface_name", "s", false},
                                                        {"changed_properties", "a{sv}", false},
                                                        {"invalidated_properties", "as", false},
                                                        {nullptr, nullptr, false}};
  static const DBus::IntrospectedMethod kMethods[] = {
      {"Get", kGet}, {"Set", kSet}, {"GetAll", kGetAll}, {nullptr, nullptr}};
  static const DBus::IntrospectedMethod kSignals[] = {{"PropertiesChanged", kChanged},
                                                      {nullptr, nullptr}};
  static const DBus::IntrospectedProperty kNone[] = {{nullptr, nullptr, false, false}};
  static DBus::IntrospectedInterface standard{"org.freedesktop.DBus.Properties", kMethods, kSignals,
                                              kNone};
  return &standard;
}

}  // namespace qs_ns
