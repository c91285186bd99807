#pragma once

#include <quillspeak_adaptor.h>

#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include <dbus-c++/dbus.h>

#include "core/interfaces/dbus_base.h"
#include "dbus/bus_work.h"
#include "dbus/convert_tts_thread.h"
#include "dbus/properties_adaptor.h"

namespace qs_ns {

class QS_Controller;

/// The one object on the bus. Its methods run on the bus thread, one at a time, hand the work on
/// and return at once; results come back from other threads and are posted. Nothing that a client
/// sends or that goes wrong inside leaves a method but as a D-Bus error.
class QuillspeakDBusImpl final : public QS_DBusBase,
                                 public com::wexel::QuillspeakInterface1_adaptor,
                                 public DBus::IntrospectableAdaptor,
                                 public PropertiesAdaptor,
                                 public DBus::ObjectAdaptor {
 public:
  /// `posted` is run by the loop that serves `connection`; both outlive the object.
  QuillspeakDBusImpl(DBus::Connection& connection, BusWork& posted);
  /// Ends the conversions, answers their callers, and sends what was posted before.
  ~QuillspeakDBusImpl() override;

  /// Before the bus loop runs. Not owned.
  void setController(QS_Controller* controller) { mController = controller; }

  /// Reads `State` as a client would and emits `PropertiesChanged` where it is no longer what was
  /// last announced, or what it was when the object was made. Bus thread, not within a call of the
  /// library's.
  void announceState();

  void reportPlayRequestResult(const std::vector<std::string>& texts, const unsigned int& params,
                               const unsigned int& type, const unsigned int& flags,
                               const unsigned int& resultCode, const void* request) override;

  std::int32_t DoTTSFetchInFile(const std::string& textToConvert,
                                const std::string& filePath) override;
  std::uint64_t DoTTSAndPlay(const std::vector<std::string>& textToConvert,
                             const std::int32_t& params, const std::int32_t& type,
                             const std::int32_t& flags) override;
  std::uint64_t StopTTSPlay(const std::uint64_t& handle, const std::int32_t& type,
                            const std::int32_t& flags) override;
  void ReloadConfig(const std::int32_t& flags) override;
  void SetVolume(const std::int32_t& volume) override;

 protected:
  void on_get_property(DBus::InterfaceAdaptor& interface, const std::string& property,
                       DBus::Variant& value) override;

 private:
  struct Conversion {
    /// What the call is registered under until it is answered; then null.
    std::unique_ptr<DBus::Tag> tag;
    std::unique_ptr<QS_ConvertTTSThread> thread;
  };

  std::int32_t readState();
  void guardMethods();
  bool answerWithoutInterface(const DBus::Message& message);
  DBus::Tag* startConversion(const std::string& text, const std::string& path);
  /// Any conversion's thread.
  void actionFinishedCallBack(FliteConversionResponse& response);
  void answerConversion(const FliteConversionResponse& response);
  void reapConversions();
  void endConversions();

  QS_Controller* mController = nullptr;
  std::int32_t mAnnouncedState = 0;
  ConversionCallback mFinishedCallback;
  BusWork& mPosted;
  DBus::MessageSlot mFilter;
  ConversionLine mConversionLine;
  std::list<Conversion> mConversions;
};

}  // namespace qs_ns
