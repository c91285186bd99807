// Clients that send what nobody should: the daemon answers or refuses it, and goes on.

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

TEST_F(Stranger, IsIgnoredWhereItAnswersNobodyAndSignalsInOurName) {
  sd_bus* const own = client->bus();
  sd_bus_message* message = nullptr;
  const auto send = [&] {
    std::uint64_t serial = 0;  // where nobody wants it, no reply is asked for
    EXPECT_GE(sd_bus_send_to(own, message, kService, &serial), 0);
    sd_bus_message_unref(message);
  };
  for (std::uint64_t call = 1; call <= 40; ++call) {
    sd_bus_message* asked = nullptr;
    EXPECT_GE(sd_bus_message_new_method_call(own, &asked, kService, kPath, kInterface, "A"), 0);
    EXPECT_GE(sd_bus_message_seal(asked, call, 0), 0);
    EXPECT_GE(sd_bus_message_new_method_return(asked, &message), 0);
    send();
    EXPECT_GE(sd_bus_message_new_method_errorf(asked, &message, "x.y.Z", "no"), 0);
    send();
    sd_bus_message_unref(asked);
  }
  for (const char* const member : {"ReportTTSPlayResult", "NameLost", "Disconnected", "A"}) {
    for (const char* const interface : {kInterface, "org.freedesktop.DBus"}) {
      EXPECT_GE(sd_bus_message_new_signal(own, &message, kPath, interface, member), 0);
      send();
    }
  }
  for (const char* const path :
       {"/", "/com/wexel", "/com/wexel/Quillspeak/x", "/org/freedesktop"}) {
    for (const char* const method : {"StopTTSPlay", "Introspect", "Get"}) {
      for (const char* const interface : {kInterface, static_cast<const char*>(nullptr)}) {
        EXPECT_GE(sd_bus_message_new_method_call(own, &message, kService, path, interface, method),
                  0);
        send();
      }
    }
  }
}

TEST_F(Stranger, MayWantNoReplyAndVanishWithCallsPending) {
  // Ends at once, since there is no file.
  constexpr std::int32_t kAlertInTurn = 4 + 2;
  for (int round = 0; round < 20; ++round) {
    test::Client leaving(bus.address());
    test::Client::Answered answered;
    if (round % 2 == 0) answered = [](const Reply&) {};
    for (const char* const method :
         {"DoTTSAndPlay", "StopTTSPlay", "ReloadConfig", "SetVolume", "DoTTSFetchInFile"})
      leaving.callLater(answered, method, "i", 2);
    leaving.callLater(answered, "DoTTSFetchInFile", "ss", "on", (folder / "nobody.wav").c_str());
    leaving.callLater(answered, "DoTTSAndPlay", "asiii", 0, 2, 2, kAlertInTurn);
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
