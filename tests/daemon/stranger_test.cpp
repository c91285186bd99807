// Clients that send what nobody should: the daemon answers or refuses it, and goes on.

#include <dbus/dbus.h>

#include "daemon/harness.h"

namespace {

using test::kInterface;
using test::kLimitsExceeded;
using test::kPath;
using test::kProperties;
using test::kService;
using test::Reply;

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
    const char *interface, *method, *error;
  } kMethods[] = {{kInterface, "DoTTSAndPlay", "InvalidArgs"},
                  {kInterface, "StopTTSPlay", "InvalidArgs"},
                  {kInterface, "ReloadConfig", "InvalidArgs"},
                  {kInterface, "SetVolume", "InvalidArgs"},
                  {kInterface, "DoTTSFetchInFile", "InvalidArgs"},
                  {kInterface, "A", "UnknownMethod"},
                  {kProperties, "Get", ""},
                  {kProperties, "Set", ""},
                  {kProperties, "GetAll", ""},
                  {"org.freedesktop.DBus.Introspectable", "Introspect", ""},
                  {"org.freedesktop.DBus.Peer", "GetMachineId", ""},
                  {"x.y", "Z", "UnknownMethod"}};
  for (const auto& [interface, method, error] : kMethods) {
    for (const char* const named : {interface, ""}) {
      const std::string refusal = *named != '\0' ? error : "UnknownInterface";
      test::Client& c = *client;
      const Reply replies[] = {
          c.call(named, method),
          c.call(named, method, "s", "text"),
          c.call(named, method, "i", 2),
          c.call(named, method, "t", std::uint64_t{1}),
          c.call(named, method, "h", 0),
          c.call(named, method, "as", 0),
          c.call(named, method, "as", 2, "one", "two"),
          c.call(named, method, "asiih", 0, 1, 2, 0),
          c.call(named, method, "aas", 1, 1, "one"),
          c.call(named, method, "ah", 1, 0),
          c.call(named, method, "v", "h", 0),
          c.call(named, method, "v", "v", "s", "text"),
          c.call(named, method, "a{sv}", 1, "key", "i", 1),
          c.call(named, method, "(is)", 1, "text"),
          c.call(named, method, "ssss", "", "", "", ""),
          c.call(named, method, "sah", kInterface, 1, 0),
      };
      for (const Reply& reply : replies) {
        SCOPED_TRACE(testing::Message() << method << " " << &reply - replies << reply.error);
        EXPECT_NE(reply.error, "org.freedesktop.DBus.Error.NoReply");
        EXPECT_TRUE((reply.error.empty() && *named != '\0') ||
                    reply.error.starts_with("org.freedesktop.DBus.Error." + refusal));
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
  const auto call = [](const char* method, bool noReply) {
    DBusMessage* const message = dbus_message_new_method_call(kService, kPath, kInterface, method);
    dbus_message_set_no_reply(message, noReply ? TRUE : FALSE);
    return message;
  };
  const std::string file = folder / "nobody.wav";
  const char* const path = file.c_str();
  const char* const text = "on";
  const dbus_int32_t level = 2;
  // Ends at once, since there is no file.
  const dbus_int32_t alertInTurn = 4 + 2;
  for (int round = 0; round < 20; ++round) {
    RawClient raw(bus.address());
    const bool noReply = round % 2 == 0;
    for (const char* const method :
         {"DoTTSAndPlay", "StopTTSPlay", "ReloadConfig", "SetVolume", "DoTTSFetchInFile"}) {
      DBusMessage* const message = call(method, noReply);
      dbus_message_append_args(message, DBUS_TYPE_INT32, &level, DBUS_TYPE_INVALID);
      raw.send(message);
    }
    DBusMessage* const conversion = call("DoTTSFetchInFile", noReply);
    dbus_message_append_args(conversion, DBUS_TYPE_STRING, &text, DBUS_TYPE_STRING, &path,
                             DBUS_TYPE_INVALID);
    raw.send(conversion);
    DBusMessage* const play = call("DoTTSAndPlay", noReply);
    const char* const* const texts = &text;
    dbus_message_append_args(play, DBUS_TYPE_ARRAY, DBUS_TYPE_STRING, &texts, 0, DBUS_TYPE_INT32,
                             &level, DBUS_TYPE_INT32, &level, DBUS_TYPE_INT32, &alertInTurn,
                             DBUS_TYPE_INVALID);
    raw.send(play);
  }
  EXPECT_TRUE(client->until([&] { return client->results().size() >= 20; }))
      << "they are played all the same";
}

TEST_F(Stranger, MaySendMegabytesAndAMillionTexts) {
  // The bus passes on what is up to 32 MB, and parts with whoever sends more.
  EXPECT_NE(test::Client(bus.address()).play({std::string(64 << 20, 'a')}).error, "");
  EXPECT_EQ(client->play({std::string(30 << 20, 'a')}).error, kLimitsExceeded);
  EXPECT_EQ(client->play(std::vector<std::string>(100'000, "a")).error, kLimitsExceeded);
  EXPECT_EQ(client->play(std::vector<std::string>(1'000'000, "")).error, kLimitsExceeded);
  EXPECT_EQ(client->fetch(std::string(30 << 20, 'a'), folder / "a.wav").error, kLimitsExceeded);
  // A path as long as this is no file's.
  EXPECT_EQ(client->fetch("on", std::string(20 << 20, 'p')).error, "");
}

}  // namespace
