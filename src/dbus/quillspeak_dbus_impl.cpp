#include "dbus/quillspeak_dbus_impl.h"

#include <dbus/dbus-protocol.h>
#include <syslog.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <exception>
#include <new>
#include <utility>

#include "core/controller.h"
#include "dbus/limits.h"
#include "platform/property_store.h"
#include "playback/play_request.h"

namespace qs_ns {

namespace {

constexpr char kObjectPath[] = "/com/wexel/Quillspeak";

// Stands around a method in the library's table. The library, C code among it, bears nothing but
// its own errors (and the private one by which a late reply leaves), and keeps the pointers of
// their texts.
class GuardedMethod final : public DBus::Callback_Base<DBus::Message, const DBus::CallMessage&> {
 public:
  using Method = DBus::Slot<DBus::Message, const DBus::CallMessage&>;

  explicit GuardedMethod(const Method& guarded) : method(guarded) {}

  DBus::Message call(const DBus::CallMessage& message) const override {
    try {
      return method.call(message);
    } catch (const DBus::Error&) {
      throw;
    } catch (const std::bad_alloc&) {
      throw DBus::ErrorNoMemory("out of memory; try again with a shorter text");
    } catch (const std::exception&) {
      throw DBus::ErrorFailed("internal failure; the service goes on");
    }
  }

 private:
  Method method;
};

// Counts the texts of a play request before the library unpacks them: a million empty strings would
// hold the bus for half a second.
class CountedTexts final : public DBus::Callback_Base<DBus::Message, const DBus::CallMessage&> {
 public:
  explicit CountedTexts(const GuardedMethod::Method& unpacking) : method(unpacking) {}

  DBus::Message call(const DBus::CallMessage& message) const override {
    if (const char* limit = textCountLimitBroken(countTexts(message))) {
      throw DBus::ErrorLimitsExceeded(limit);
    }
    return method.call(message);
  }

 private:
  // No further than it takes to know that they are too many.
  static std::size_t countTexts(const DBus::CallMessage& message) {
    DBus::MessageIter arguments = message.reader();
    if (!arguments.is_array()) return 0;
    std::size_t count = 0;
    for (DBus::MessageIter text = arguments.recurse(); !text.at_end() && count <= kMaxTexts; ++text)
      ++count;
    return count;
  }

  GuardedMethod::Method method;
};

}  // namespace

QuillspeakDBusImpl::QuillspeakDBusImpl(DBus::Connection& connection, BusWork& posted)
    : DBus::ObjectAdaptor(connection, kObjectPath), mPosted(posted) {
  Version = 1;
  State = 0;
  mAnnouncedState = readState();
  guardMethods();
  mFinishedCallback =
      std::make_shared<DBus::Callback<QuillspeakDBusImpl, void, FliteConversionResponse&>>(
          this, &QuillspeakDBusImpl::actionFinishedCallBack);
  mFilter = new DBus::Callback<QuillspeakDBusImpl, bool, const DBus::Message&>(
      this, &QuillspeakDBusImpl::answerWithoutInterface);
  conn().add_filter(mFilter);
}

QuillspeakDBusImpl::~QuillspeakDBusImpl() {
  endConversions();
  mPosted.run();
  conn().flush();
  conn().remove_filter(mFilter);
}

void QuillspeakDBusImpl::guardMethods() {
  DBus::MethodTable& methods = com::wexel::QuillspeakInterface1_adaptor::_methods;
  methods["DoTTSAndPlay"] = new CountedTexts(methods["DoTTSAndPlay"]);
  const auto guard = [](DBus::MethodTable& table) {
    for (auto& [name, method] : table)
      method = new GuardedMethod(method);
  };
  guard(methods);
  guard(PropertiesAdaptor::_methods);
  guard(DBus::IntrospectableAdaptor::_methods);
}

// The library looks the interface up by its name and would end the process where there is none.
bool QuillspeakDBusImpl::answerWithoutInterface(const DBus::Message& message) {
  if (message.type() != DBUS_MESSAGE_TYPE_METHOD_CALL) return false;
  const auto& call = static_cast<const DBus::CallMessage&>(message);
  if (call.interface() != nullptr) return false;
  conn().send(DBus::ErrorMessage(call, DBUS_ERROR_UNKNOWN_INTERFACE,
                                 "the call names no interface; send it with the interface's name"));
  return true;
}

std::uint64_t QuillspeakDBusImpl::DoTTSAndPlay(const std::vector<std::string>& textToConvert,
                                               const std::int32_t& params, const std::int32_t& type,
                                               const std::int32_t& flags) {
  const bool silent = std::all_of(textToConvert.begin(), textToConvert.end(),
                                  [](const std::string& text) { return text.empty(); });
  if (silent && (flags & kPlayAlertAfterTexts) == 0) {
    syslog(LOG_WARNING, "%s: Empty string passed for conversion", "DoTTSAndPlay");
    return 0;
  }
  syslog(LOG_INFO, "%s: params-%d, flags-%d", "DoTTSAndPlay", params, flags);
  for (const std::string& text : textToConvert) {
    syslog(LOG_INFO, "%s: Sending string with size %d", "DoTTSAndPlay",
           static_cast<int>(text.size()));
  }
  if (const char* limit = playLimitBroken(textToConvert, mController->requestsWaiting())) {
    throw DBus::ErrorLimitsExceeded(limit);
  }
  return mController->playMediaFromText(textToConvert, params, type, flags);
}

std::uint64_t QuillspeakDBusImpl::StopTTSPlay(const std::uint64_t& handle, const std::int32_t& type,
                                              const std::int32_t& flags) {
  syslog(LOG_INFO, "%s: %lu - %d, %d", "StopTTSPlay", static_cast<unsigned long>(handle), type,
         flags);
  mController->stopMediaPlaying(handle, type, flags);
  // A client that was told "stopped" must not hear "played" afterwards.
  mPosted.runSignals();
  return 0;
}

void QuillspeakDBusImpl::ReloadConfig(const std::int32_t& flags) {
  syslog(LOG_INFO, "%s: %d", "ReloadConfig", flags);
  mController->reloadConfig(flags);
}

void QuillspeakDBusImpl::SetVolume(const std::int32_t& volume) {
  syslog(LOG_INFO, "QuillspeakDBusImpl::%s: %d", "SetVolume", volume);
  mController->setVolume(volume);
}

std::int32_t QuillspeakDBusImpl::DoTTSFetchInFile(const std::string& textToConvert,
                                                  const std::string& filePath) {
  // Of a path longer than any that can be opened, too much to log, the beginning fails as well.
  // Leaves by an exception of the library's own.
  return_later(startConversion(textToConvert, filePath.substr(0, PATH_MAX)));
  return 0;
}

DBus::Tag* QuillspeakDBusImpl::startConversion(const std::string& text, const std::string& path) {
  syslog(LOG_INFO, "%s: %s", "DoTTSFetchInFile", path.c_str());
  reapConversions();
  const auto unanswered =
      std::count_if(mConversions.begin(), mConversions.end(),
                    [](const Conversion& conversion) { return conversion.tag != nullptr; });
  if (const char* limit = conversionLimitBroken(text, static_cast<std::size_t>(unanswered))) {
    throw DBus::ErrorLimitsExceeded(limit);
  }
  Conversion conversion;
  conversion.tag = std::make_unique<DBus::Tag>();
  conversion.thread = std::make_unique<QS_ConvertTTSThread>(conversion.tag.get(), text, path,
                                                            mFinishedCallback, mConversionLine);
  mConversions.push_back(std::move(conversion));
  if (mConversions.back().thread->start() != 0) {
    mConversions.pop_back();
    throw DBus::ErrorFailed("no thread could be started for the conversion; try again later");
  }
  return mConversions.back().tag.get();
}

// Later than the answer, so that the bus thread need not wait for a thread of low priority to be
// scheduled once more.
void QuillspeakDBusImpl::reapConversions() {
  mConversions.remove_if([](const Conversion& conversion) {
    if (conversion.tag != nullptr || !conversion.thread->hasEnded()) return false;
    conversion.thread->join();
    return true;
  });
}

void QuillspeakDBusImpl::actionFinishedCallBack(FliteConversionResponse& response) {
  syslog(LOG_INFO, "%s: Entry 2, retVal: %d", "actionFinishedCallBack", response.result);
  // Posted, so it runs after the call was registered, whichever thread was faster.
  mPosted.post(BusWork::Kind::reply, [this, response] { answerConversion(response); });
}

void QuillspeakDBusImpl::answerConversion(const FliteConversionResponse& response) {
  // Gone in any case, or the conversion would count as under way for ever.
  std::unique_ptr<DBus::Tag> answered;
  for (Conversion& conversion : mConversions) {
    if (conversion.tag.get() == response.tag) answered = std::move(conversion.tag);
  }
  Continuation* const call = find_continuation(response.tag);
  if (call == nullptr) {
    char address[32];
    std::snprintf(address, sizeof address, "%p", static_cast<void*>(response.tag));
    syslog(LOG_ERR, "%s: Could not find transaction tag[%s] for action", "actionFinishedCallBack",
           address);
  } else if (response.stopped) {
    return_error(call, DBus::ErrorFailed("the conversion was ended because the service gives up "
                                         "the bus; ask again when it is back"));
  } else {
    call->writer().append_int32(response.result);
    return_now(call);
  }
}

void QuillspeakDBusImpl::endConversions() {
  for (const Conversion& conversion : mConversions)
    conversion.thread->stop();
  for (const Conversion& conversion : mConversions)
    conversion.thread->join();
}

void QuillspeakDBusImpl::reportPlayRequestResult(
    const std::vector<std::string>& texts, const unsigned int& params, const unsigned int& type,
    const unsigned int& flags, const unsigned int& resultCode, const void* request) {
  const std::uint64_t handle = static_cast<const QS_PlayRequest*>(request)->handle;
  syslog(LOG_INFO,
         "%s: TTS Reporting result - first phrase length=%d, arraylen=%d, resultCode=%d, handle: "
         "%lu",
         "reportPlayRequestResult", texts.empty() ? 0 : static_cast<int>(texts[0].size()),
         static_cast<int>(texts.size()), static_cast<int>(resultCode),
         static_cast<unsigned long>(handle));
  mPosted.post(BusWork::Kind::signal,
               [=, this] { ReportTTSPlayResult(texts, params, type, flags, resultCode, handle); });
}

void QuillspeakDBusImpl::on_get_property(DBus::InterfaceAdaptor& /*interface*/,
                                         const std::string& property, DBus::Variant& value) {
  if (property != "State") return;
  bool enabled = false;
  const bool known = getBooleanProperty("device.accessibility.qs_enabled", &enabled) == 0;
  std::int32_t state = value;
  if (!known || !enabled) {
    state = -1;
  } else if (state == -1) {
    state = 0;
  }
  value.clear();
  value.writer().append_int32(state);
}

std::int32_t QuillspeakDBusImpl::readState() {
  com::wexel::QuillspeakInterface1_adaptor& served = *this;
  on_get_property(served, "State", *served.get_property("State"));
  return State();
}

void QuillspeakDBusImpl::announceState() {
  const std::int32_t state = readState();
  if (state == mAnnouncedState) return;
  com::wexel::QuillspeakInterface1_adaptor& served = *this;
  emitChanged(served.name(), "State", *served.get_property("State"));
  mAnnouncedState = state;
}

}  // namespace qs_ns
