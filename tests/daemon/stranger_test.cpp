// Clients that send what nobody should: the daemon answers or refuses it, and goes on.

#include <dbus/dbus.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "daemon/fixture.h"

namespace {

using test::Reply;

constexpr char kService[] = "com.wexel.Quillspeak";
constexpr char kPath[] = "/com/wexel/Quillspeak";
constexpr char kInterface[] = "com.wexel.QuillspeakInterface1";
constexpr char kProperties[] = "org.freedesktop.DBus.Properties";

class Stranger : public test::DaemonTest {
 protected:
  void SetUp() override { start(); }
  void TearDown() override {
    EXPECT_EQ(client->setVolume(2).error, "");
    EXPECT_EQ(playToEnd({"on"}), 0U) << "the service lives";
  }
};

TEST_F(Stranger, IsAnsweredWhateverArgumentsAMethodGets) {
  const struct {
    const char *interface, *method;
  } kMethods[] = {{kInterface, "DoTTSAndPlay"},
                  {kInterface, "StopTTSPlay"},
                  {kInterface, "ReloadConfig"},
                  {kInterface, "SetVolume"},
                  {kInterface, "DoTTSFetchInFile"},
                  {kInterface, ""},
                  {kProperties, "Get"},
                  {kProperties, "Set"},
                  {kProperties, "GetAll"},
                  {"org.freedesktop.DBus.Introspectable", "Introspect"},
                  {"org.freedesktop.DBus.Peer", "GetMachineId"},
                  {"x.y", "Z"}};
  for (const auto& [interface, name] : kMethods) {
    const char* const method = *name != '\0' ? name : "A";
    for (const char* const named : {interface, ""}) {
      test::Client& c = *client;
      const Reply replies[] = {
          c.call(named, method),
          c.call(named, method, "s", "text"),
          c.call(named, method, "i", 2),
          c.call(named, method, "t", std::uint64_t{1}),
          c.call(named, method, "d", 0.5),
          c.call(named, method, "h", 0),
          c.call(named, method, "as", 0),
          c.call(named, method, "as", 2, "one", "two"),
          c.call(named, method, "asi", 1, "one", 2),
          c.call(named, method, "asiih", 0, 1, 2, 0),
          c.call(named, method, "aas", 1, 1, "one"),
          c.call(named, method, "ai", 3, 1, 2, 3),
          c.call(named, method, "ah", 1, 0),
          c.call(named, method, "v", "h", 0),
          c.call(named, method, "v", "v", "s", "text"),
          c.call(named, method, "a{sv}", 1, "key", "i", 1),
          c.call(named, method, "(is)", 1, "text"),
          c.call(named, method, "ssss", "", "", "", ""),
          c.call(named, method, "sah", kInterface, 1, 0),
      };
      for (const Reply& reply : replies) {
        const auto place = &reply - replies;
        EXPECT_TRUE(reply.error.empty() || reply.error.starts_with("org.freedesktop.DBus.Error."))
            << method << " " << place << " " << reply.error;
        EXPECT_NE(reply.error, "org.freedesktop.DBus.Error.NoReply") << method << " " << place;
        if (*named == '\0') {
          EXPECT_EQ(reply.error, "org.freedesktop.DBus.Error.UnknownInterface") << method;
        }
      }
    }
  }
}

/// Messages that sd-bus would not send.
class RawClient {
 public:
  explicit RawClient(const std::string& address)
      : connection(dbus_connection_open_private(address.c_str(), nullptr)) {
    dbus_connection_set_exit_on_disconnect(connection, FALSE);
    EXPECT_TRUE(dbus_bus_register(connection, nullptr));
  }
  ~RawClient() {
    dbus_connection_close(connection);
    dbus_connection_unref(connection);
  }
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  void send(DBusMessage* message) {
    dbus_message_set_destination(message, kService);
    EXPECT_TRUE(dbus_connection_send(connection, message, nullptr));
    dbus_message_unref(message);
    dbus_connection_flush(connection);
  }

 private:
  DBusConnection* const connection;
};

TEST_F(Stranger, IsIgnoredWhereItAnswersNobodyAndSignalsInOurName) {
  RawClient raw(bus.address());
  for (dbus_uint32_t serial = 1; serial <= 40; ++serial) {
    for (const int type : {DBUS_MESSAGE_TYPE_METHOD_RETURN, DBUS_MESSAGE_TYPE_ERROR}) {
      DBusMessage* const answer = dbus_message_new(type);
      dbus_message_set_reply_serial(answer, serial);
      if (type == DBUS_MESSAGE_TYPE_ERROR) dbus_message_set_error_name(answer, "x.y.Z");
      raw.send(answer);
    }
  }
  for (const char* const member : {"ReportTTSPlayResult", "NameLost", "Disconnected", "A"}) {
    for (const char* const interface : {kInterface, "org.freedesktop.DBus"})
      raw.send(dbus_message_new_signal(kPath, interface, member));
  }
  for (const char* const path :
       {"/", "/com/wexel", "/com/wexel/Quillspeak/x", "/org/freedesktop"}) {
    for (const char* const method : {"StopTTSPlay", "Introspect", "Get"}) {
      raw.send(dbus_message_new_method_call(kService, path, kInterface, method));
      raw.send(dbus_message_new_method_call(kService, path, nullptr, method));
    }
  }
}

TEST_F(Stranger, MayWantNoReplyAndVanishWithCallsPending) {
  for (int round = 0; round < 20; ++round) {
    RawClient raw(bus.address());
    for (const char* const method :
         {"DoTTSAndPlay", "StopTTSPlay", "ReloadConfig", "SetVolume", "DoTTSFetchInFile"}) {
      DBusMessage* const call = dbus_message_new_method_call(kService, kPath, kInterface, method);
      const dbus_int32_t level = 2;
      dbus_message_append_args(call, DBUS_TYPE_INT32, &level, DBUS_TYPE_INVALID);
      dbus_message_set_no_reply(call, round % 2 == 0 ? TRUE : FALSE);
      raw.send(call);
    }
    DBusMessage* const conversion =
        dbus_message_new_method_call(kService, kPath, kInterface, "DoTTSFetchInFile");
    const char* const text = "on";
    const std::string file = folder / "nobody.wav";
    const char* const path = file.c_str();
    dbus_message_append_args(conversion, DBUS_TYPE_STRING, &text, DBUS_TYPE_STRING, &path,
                             DBUS_TYPE_INVALID);
    dbus_message_set_no_reply(conversion, round % 2 == 0 ? TRUE : FALSE);
    raw.send(conversion);
  }
}

TEST_F(Stranger, MaySendMegabytesAndAMillionTexts) {
  constexpr char kExceeded[] = "org.freedesktop.DBus.Error.LimitsExceeded";
  // The bus passes on what is up to 32 MB, and parts with whoever sends more.
  EXPECT_NE(test::Client(bus.address()).play({std::string(64 << 20, 'a')}).error, "");
  EXPECT_EQ(client->play({std::string(30 << 20, 'a')}).error, kExceeded);
  EXPECT_EQ(client->play(std::vector<std::string>(100'000, "a")).error, kExceeded);
  EXPECT_EQ(client->play(std::vector<std::string>(1'000'000, "")).error, kExceeded);
  EXPECT_EQ(client->fetch(std::string(30 << 20, 'a'), folder / "a.wav").error, kExceeded);
  // A path as long as this is no file's.
  EXPECT_EQ(client->fetch("on", std::string(20 << 20, 'p')).error, "");
}

}  // namespace
