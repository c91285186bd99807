// What a polite client may rely on.

#include "daemon/harness.h"

namespace {

using test::kInterface;
using test::kLimitsExceeded;
using test::kProperties;
using test::Reply;

class Contract : public test::DaemonTest {
 protected:
  void SetUp() override { start(); }
};

TEST_F(Contract, IntrospectionListsEveryMemberWithItsArguments) {
  test::ChildProcess gdbus(
      "/bin/sh",
      {"-c", "gdbus introspect --system --dest $0 --object-path $1 | tr -s '\\n ' ' '",
       test::kService, test::kPath},
      {"DBUS_SYSTEM_BUS_ADDRESS=" + bus.address()});
  const std::string shown = gdbus.readAll();
  for (const char* const member :
       {"DoTTSFetchInFile(in s textToConvert, in s filePath, out i resultCode);",
        "DoTTSAndPlay(in as textToConvert, in i params, in i type, in i flags, out t handle);",
        "StopTTSPlay(in t handle, in i type, in i flags, out t resultCode);",
        "ReloadConfig(in i flags);", "SetVolume(in i volume);",
        "ReportTTSPlayResult(as textToConvert, u params, u type, u flags, u resultCode, t handle);",
        "readonly i Version = 1;", "readonly i State = 0;", "GetAll(", "PropertiesChanged("})
    EXPECT_PRED_FORMAT2(testing::IsSubstring, member, shown);
}

TEST_F(Contract, PropertiesAreReadLiveAndCannotBeSet) {
  const auto all = [&](const char* interface) {
    return client->call(kProperties, "GetAll", "s", interface);
  };
  EXPECT_EQ(client->property("State"), 0);
  setProperties("device.accessibility.qs_enabled = off\n");
  EXPECT_EQ(client->property("State"), -1);
  EXPECT_EQ(all(kInterface).text, "State=-1;Version=1;");
  setProperties("device.accessibility.qs_enabled = yes\n");
  EXPECT_EQ(all("").text, "State=0;Version=1;");
  EXPECT_EQ(client->property("State"), 0);
  EXPECT_EQ(all(kProperties).error, "");
  EXPECT_EQ(all(kProperties).text, "");
  EXPECT_EQ(client->property("Other"), std::nullopt);
  const std::string error = "org.freedesktop.DBus.Error.";
  EXPECT_EQ(all("x.y").error, error + "UnknownInterface");
  EXPECT_EQ(client->call(kProperties, "GetAll", "i", 1).error, error + "InvalidArgs");
  const auto set = [&](auto... arguments) {
    return client->call(kProperties, "Set", arguments...).error;
  };
  EXPECT_EQ(set("ssv", kInterface, "State", "i", 5), error + "AccessDenied");
  // A descriptor in the value ends whoever copies it with the library's own code.
  EXPECT_EQ(set("ssv", kInterface, "State", "h", 0), error + "AccessDenied");
  EXPECT_EQ(set("ssv", "x.y", "z", "ah", 2, 0, 1), error + "Failed");
  EXPECT_EQ(set("ss", kInterface, "State"), error + "InvalidArgs");
  EXPECT_EQ(client->property("Version"), 1);
}

/// What the daemon announces of its state, in order.
class Announcements {
 public:
  explicit Announcements(sd_bus* bus) {
    sd_bus_match_signal(bus, nullptr, nullptr, test::kPath, kProperties, "PropertiesChanged",
                        onChanged, this);
  }
  std::vector<std::int32_t> states;

 private:
  static int onChanged(sd_bus_message* message, void* self, sd_bus_error*) {
    const char* interface = "";
    const char* property = "";
    std::int32_t state = 0;
    const int status =
        sd_bus_message_read(message, "sa{sv}as", &interface, 1, &property, "i", &state, 0);
    EXPECT_GE(status, 0);
    EXPECT_EQ(interface, std::string(kInterface));
    EXPECT_EQ(property, std::string("State"));
    static_cast<Announcements*>(self)->states.push_back(state);
    return 0;
  }
};

TEST_F(Contract, AChangedStateIsAnnouncedOnceAndWithoutAQuestion) {
  const std::string etc = folder / "etc";
  const std::string file = etc + "/properties.conf";
  const auto replace = [&](const char* text) { return [=, this] { setProperties(text); }; };
  constexpr char kOff[] = "device.accessibility.qs_enabled = off\n";
  constexpr char kOnAndFast[] = "device.accessibility.qs_enabled = yes\nqs_speed = 5\n";
  const struct {
    const char* what;
    std::function<void()> change;
    std::vector<std::int32_t> announced;
  } kSteps[] = {
      {"off, by rename", replace(kOff), {-1}},
      {"off again", replace(kOff), {}},
      {"on, by rename", replace(test::kEnabled), {0}},
      {"another key", replace(kOnAndFast), {}},
      {"touched", [&] { std::filesystem::last_write_time(file, {}); }, {}},
      {"off, in place", [&] { std::ofstream(file, std::ios::in) << kOff << '#'; }, {-1}},
      {"on, in place", [&] { std::ofstream(file, std::ios::in) << test::kEnabled; }, {0}},
      {"deleted", [&] { std::filesystem::remove(file); }, {-1}},
      {"created", [&] { test::writeFile(file, test::kEnabled); }, {0}},
      {"moved away", [&] { std::filesystem::rename(file, etc + ".old"); }, {-1}},
      {"moved back", [&] { std::filesystem::rename(etc + ".old", file); }, {0}},
      {"linked to",
       [&] {
         std::filesystem::create_directory(etc + ".data");
         test::writeFile(etc + ".data/on", test::kEnabled);
         std::filesystem::create_symlink(etc + ".data/on", etc + "/link");
         std::filesystem::rename(etc + "/link", file);
       },
       {}},
      {"off, behind the link", [&] { test::writeFile(etc + ".data/on", kOff); }, {-1}},
      {"on, behind the link", [&] { test::writeFile(etc + ".data/on", test::kEnabled); }, {0}},
      {"folder moved away", [&] { std::filesystem::rename(etc, etc + ".old"); }, {-1}},
      {"changed where it is not looked for", [&] { test::writeFile(etc + ".old/x", ""); }, {}},
  };
  Announcements announcements(client->bus());
  EXPECT_EQ(client->property("State"), 0);
  for (const auto& step : kSteps) {
    announcements.states.clear();
    step.change();
    // Those that come need nobody who asks, nor the library's own turn each 10 s; those too many
    // would come before an answer.
    const auto come = [&] { return announcements.states.size() >= step.announced.size(); };
    ASSERT_TRUE(client->until(come, std::chrono::seconds(5))) << step.what;
    client->property("State");
    client->results();
    EXPECT_EQ(announcements.states, step.announced) << step.what;
  }
  // Nothing wakes a loop whose folder is gone: it looks when it is asked something.
  test::writeFile(etc, "a file in its place");
  EXPECT_TRUE(client->until(
      [&] { return client->property("Version") == 1 && daemon->countLog("no watch") > 0; }));
  EXPECT_EQ(daemon->countLog("no watch"), 1);
  std::filesystem::remove(etc);
  announcements.states.clear();
  std::filesystem::create_directory(etc);
  test::writeFile(file, test::kEnabled);
  const auto announced = [&] { return !announcements.states.empty(); };
  EXPECT_TRUE(client->until([&] { return client->property("Version") == 1 && announced(); }));
  announcements.states.clear();
  setProperties(kOff);
  EXPECT_TRUE(client->until(announced, std::chrono::seconds(5)))
      << "the folder that came back is watched";
}

TEST_F(Contract, LimitsAreNamedAndWhatIsWithinThemIsTaken) {
  const auto words = [](std::size_t letters) {
    std::string text(letters, 'a');
    for (std::size_t i = 5; i < letters; i += 6)
      text[i] = ' ';
    return text;
  };
  const auto expectRefusal = [](const Reply& reply, const char* names) {
    EXPECT_EQ(reply.error, kLimitsExceeded) << names;
    EXPECT_NE(reply.message.find(names), std::string::npos) << reply.message;
  };
  const std::uint64_t playing = client->play({test::longText()}, 2).value;
  ASSERT_TRUE(daemon->waitForLog("WriteTTSThread started"));
  expectRefusal(client->play({words(4097)}), "4096");
  expectRefusal(client->play({std::string(683, '7')}), "4096");
  expectRefusal(client->play(std::vector<std::string>(65, "a")), "64");
  std::vector<std::string> most(8, words(4096));
  EXPECT_EQ(client->play(most, 2).error, "");
  most.emplace_back("a");
  expectRefusal(client->play(most), "32768");
  EXPECT_EQ(client->play(std::vector<std::string>(64, "a"), 2).error, "");
  for (int waiting = 2; waiting < 64; ++waiting)
    EXPECT_EQ(client->play({"a"}, 2).error, "");
  expectRefusal(client->play({"a"}), "64 requests");
  expectRefusal(client->fetch(words(16385), folder / "f.wav"), "16384");
  for (int i = 0; i < 16; ++i)
    client->fetchLater(words(16384), folder / "f.wav");
  expectRefusal(client->fetch("one more", folder / "f.wav"), "16 conversions");
  EXPECT_EQ(client->results().size(), 0U) << "a refused request displaces nothing";
  EXPECT_EQ(client->stop(playing).value, 0U);
}

TEST_F(Contract, ARepeatedTextComesWholeFromTheCacheUntilAReload) {
  const auto fromCache = [&] {
    EXPECT_EQ(playToEnd({"one two", "three four"}), 0U);
    return daemon->countLog("Dynamic text match found");
  };
  EXPECT_EQ(fromCache(), 0);
  EXPECT_EQ(client->reload(-1).error, "") << "without the feature the trigger is only logged";
  EXPECT_EQ(fromCache(), 2);
  EXPECT_EQ(client->reload(0).error, "");
  EXPECT_EQ(fromCache(), 2);
}

TEST_F(Contract, AnAlertIsHeardAtTheVolumeInForce) {
  writeAlert(1600);
  const auto loudestAt = [&](std::int32_t volume) {
    const std::ptrdiff_t before = std::ssize(test::readWave(folder / "sound.wav"));
    EXPECT_EQ(client->setVolume(volume).error, "");
    EXPECT_EQ(playToEnd({}, 4), 0U);
    const std::vector<std::int16_t> all = test::readWave(folder / "sound.wav");
    EXPECT_GT(std::ssize(all), before + 1600 * 3);
    return *std::max_element(all.begin() + before, all.end());
  };
  const int normal = loudestAt(2);
  EXPECT_NEAR(normal, 4500, 700) << "half volume, with the filter's overshoot at the edges";
  EXPECT_NEAR(loudestAt(-5), normal * 81.0 / 512.0, 20);
}

}  // namespace
