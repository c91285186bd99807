#include <array>
#include <initializer_list>

#include <gtest/gtest.h>

#include "daemon/fixture.h"

namespace {

using test::Reply;
using Contract = test::DaemonTest;

constexpr char kInterface[] = "com.wexel.QuillspeakInterface1";
constexpr char kProperties[] = "org.freedesktop.DBus.Properties";

TEST_F(Contract, IntrospectionListsEveryMemberWithItsArguments) {
  start();
  std::string document = client->introspect();
  const auto begin = document.find("<interface name=\"com.wexel.QuillspeakInterface1\">");
  ASSERT_NE(begin, std::string::npos) << document;
  document = document.substr(begin, document.find("</interface>", begin) - begin);
  std::erase_if(document, [](char c) { return c == '\n' || c == '\t'; });
  const auto member = [](const char* kind, const char* name,
                         std::initializer_list<std::array<const char*, 3>> arguments) {
    std::string text = std::string("<") + kind + " name=\"" + name + "\">";
    for (const auto& [direction, type, argument] : arguments) {
      text +=
          std::string("<arg ") + direction + "type=\"" + type + "\" name=\"" + argument + "\"/>";
    }
    return text + "</" + kind + ">";
  };
  constexpr char kIn[] = "direction=\"in\" ";
  constexpr char kOut[] = "direction=\"out\" ";
  const std::string members[] = {
      member("method", "DoTTSFetchInFile",
             {{kIn, "s", "textToConvert"}, {kIn, "s", "filePath"}, {kOut, "i", "resultCode"}}),
      member("method", "DoTTSAndPlay",
             {{kIn, "as", "textToConvert"},
              {kIn, "i", "params"},
              {kIn, "i", "type"},
              {kIn, "i", "flags"},
              {kOut, "t", "handle"}}),
      member("method", "StopTTSPlay",
             {{kIn, "t", "handle"},
              {kIn, "i", "type"},
              {kIn, "i", "flags"},
              {kOut, "t", "resultCode"}}),
      member("method", "ReloadConfig", {{kIn, "i", "flags"}}),
      member("method", "SetVolume", {{kIn, "i", "volume"}}),
      member("signal", "ReportTTSPlayResult",
             {{"", "as", "textToConvert"},
              {"", "u", "params"},
              {"", "u", "type"},
              {"", "u", "flags"},
              {"", "u", "resultCode"},
              {"", "t", "handle"}}),
      "<property name=\"Version\" type=\"i\" access=\"read\"/>",
      "<property name=\"State\" type=\"i\" access=\"read\"/>",
  };
  for (const std::string& wanted : members)
    EXPECT_NE(document.find(wanted), std::string::npos) << wanted << " in\n" << document;
}

TEST_F(Contract, PropertiesAreReadLiveAndCannotBeSet) {
  start();
  EXPECT_EQ(client->property("Version"), 1);
  EXPECT_EQ(client->property("State"), 0);
  setProperties("device.accessibility.qs_enabled = off\n");
  EXPECT_EQ(client->property("State"), -1);
  setProperties("device.accessibility.qs_enabled = yes\n");
  EXPECT_EQ(client->property("State"), 0);
  std::filesystem::remove(folder / "properties.conf");
  EXPECT_EQ(client->property("State"), -1);
  EXPECT_EQ(client->call(kProperties, "Set", "ssv", kInterface, "State", "i", 5).error,
            "org.freedesktop.DBus.Error.AccessDenied");
  EXPECT_EQ(client->property("Other"), std::nullopt);
  // A descriptor in the value ends whoever copies it with the library's own code.
  EXPECT_EQ(client->call(kProperties, "Set", "ssv", kInterface, "State", "h", 0).error,
            "org.freedesktop.DBus.Error.AccessDenied");
  EXPECT_EQ(client->call(kProperties, "Set", "ssv", "x.y", "z", "ah", 2, 0, 1).error,
            "org.freedesktop.DBus.Error.Failed");
  EXPECT_EQ(client->call(kProperties, "Set", "ss", kInterface, "State").error,
            "org.freedesktop.DBus.Error.InvalidArgs");
  EXPECT_EQ(client->property("Version"), 1);
}

TEST_F(Contract, BadCallsAreRefusedInTheLibrarysWords) {
  start();
  const struct {
    const char* what;
    Reply reply;
    const char* error;
    const char* message;
  } kCases[] = {
      {"a string for the list", client->call(kInterface, "DoTTSAndPlay", "siii", "text", 0, 0, 0),
       "org.freedesktop.DBus.Error.InvalidArgs", "array expected"},
      {"a string for a number", client->call(kInterface, "SetVolume", "s", "loud"),
       "org.freedesktop.DBus.Error.InvalidArgs", "type mismatch"},
      {"no arguments", client->call(kInterface, "StopTTSPlay"),
       "org.freedesktop.DBus.Error.InvalidArgs", "type mismatch"},
      {"an unknown method", client->call(kInterface, "Sing"),
       "org.freedesktop.DBus.Error.UnknownMethod", "Sing"},
      {"all properties", client->call(kProperties, "GetAll", "s", kInterface),
       "org.freedesktop.DBus.Error.UnknownMethod", "GetAll"},
      {"no interface", client->call("", "SetVolume", "i", 2),
       "org.freedesktop.DBus.Error.UnknownInterface", "no interface"},
  };
  for (const auto& refused : kCases) {
    EXPECT_EQ(refused.reply.error, refused.error) << refused.what;
    EXPECT_NE(refused.reply.message.find(refused.message), std::string::npos) << refused.what;
  }
  EXPECT_EQ(client->property("Version"), 1) << "and the service lives";
}

TEST_F(Contract, ARequestWithNothingToSayGetsHandleZero) {
  start();
  EXPECT_EQ(client->play({}).value, 0U);
  EXPECT_EQ(client->play({"", ""}).value, 0U);
  EXPECT_EQ(daemon->countLog("LOG_WARNING DoTTSAndPlay: Empty string passed for conversion"), 2);
  const Reply alertOnly = client->play({"", ""}, 4);
  EXPECT_NE(alertOnly.value, 0U);
  EXPECT_TRUE(client->awaitResult(alertOnly.value).has_value());
}

TEST_F(Contract, LimitsAreNamedAndWhatIsWithinThemIsTaken) {
  start();
  constexpr char kExceeded[] = "org.freedesktop.DBus.Error.LimitsExceeded";
  const auto words = [](std::size_t letters) {
    std::string text(letters, 'a');
    for (std::size_t i = 5; i < letters; i += 6)
      text[i] = ' ';
    return text;
  };
  const std::uint64_t playing = client->play({test::longText()}, 2).value;
  const struct {
    std::vector<std::string> texts;
    const char* names;
  } kRefused[] = {
      {{words(4097)}, "4096"},
      {{std::string(683, '7')}, "4096"},
      {{std::string(20 << 20, 'a')}, "4096"},
      {std::vector<std::string>(65, "a"), "64"},
      {std::vector<std::string>(65, ""), "64"},
      {std::vector<std::string>(9, words(4000)), "32768"},
  };
  for (const auto& refused : kRefused) {
    const Reply reply = client->play(refused.texts);
    EXPECT_EQ(reply.error, kExceeded) << refused.names;
    EXPECT_NE(reply.message.find(refused.names), std::string::npos) << reply.message;
  }
  EXPECT_EQ(client->play({words(4096)}, 2).error, "");
  EXPECT_EQ(client->play(std::vector<std::string>(64, "a"), 2).error, "");
  for (int waiting = 2; waiting < 64; ++waiting)
    EXPECT_EQ(client->play({"a"}, 2).error, "");
  const Reply full = client->play({"a"}, 0);
  EXPECT_EQ(full.error, kExceeded);
  EXPECT_NE(full.message.find("64 requests"), std::string::npos);
  EXPECT_EQ(client->fetch(words(16385), folder / "f.wav").error, kExceeded);
  for (int i = 0; i < 16; ++i)
    client->fetchLater(words(4000), folder / "f.wav");
  const Reply seventeenth = client->fetch("one more", folder / "f.wav");
  EXPECT_EQ(seventeenth.error, kExceeded);
  EXPECT_NE(seventeenth.message.find("16 conversions"), std::string::npos);
  EXPECT_EQ(client->results().size(), 0U) << "a refused request displaces nothing";
  EXPECT_EQ(client->stop(playing).value, 0U);
}

TEST_F(Contract, TheReplyWithAHandleComesBeforeItsSignal) {
  start();
  struct Seen {
    test::Client* client;
    int replies = 0;
    int signalsFirst = 0;
  } seen{&*client};
  const auto onReply = [](sd_bus_message* reply, void* data, sd_bus_error*) {
    auto& order = *static_cast<Seen*>(data);
    std::uint64_t handle = 0;
    sd_bus_message_read_basic(reply, 't', &handle);
    ++order.replies;
    if (order.client->hasResult(handle)) ++order.signalsFirst;
    return 0;
  };
  constexpr int kCalls = 20;
  for (int i = 0; i < kCalls; ++i) {
    // Only an alert, whose file is not there: it ends as soon as it begins.
    ASSERT_GE(sd_bus_call_method_async(client->bus(), nullptr, "com.wexel.Quillspeak",
                                       "/com/wexel/Quillspeak", kInterface, "DoTTSAndPlay", onReply,
                                       &seen, "asiii", 0, 0, i, 6),
              0);
  }
  EXPECT_TRUE(client->awaitResults(kCalls));
  EXPECT_EQ(seen.replies, kCalls);
  EXPECT_EQ(seen.signalsFirst, 0);
}

}  // namespace
