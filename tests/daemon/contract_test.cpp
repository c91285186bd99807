// What a polite client may rely on.

#include "daemon/harness.h"

namespace {

using test::kInterface;
using test::kLimitsExceeded;
using test::kProperties;
using test::Reply;
using Samples = std::vector<std::int16_t>;

class Contract : public test::DaemonTest {
 protected:
  void SetUp() override { start(); }
};

TEST_F(Contract, IntrospectionListsEveryMemberWithItsArguments) {
  const Reply reply = client->call("org.freedesktop.DBus.Introspectable", "Introspect");
  for (const char* const standard :
       {"<method name=\"GetAll\">", "<signal name=\"PropertiesChanged\">"})
    EXPECT_NE(reply.text.find(standard), std::string::npos) << standard;
  const auto begin = reply.text.find("<interface name=\"com.wexel.QuillspeakInterface1\">");
  ASSERT_NE(begin, std::string::npos) << reply.text;
  const auto end = reply.text.find("</interface>", begin);
  std::string members = reply.text.substr(begin, end - begin);
  for (const std::string_view noise :
       {"\n", "\t", "\"", "name=", "type=", "direction=", "access="}) {
    for (auto at = members.find(noise); at != std::string::npos; at = members.find(noise))
      members.erase(at, noise.size());
  }
  for (const char* const member :
       {"<method DoTTSFetchInFile><arg in s textToConvert/><arg in s filePath/>"
        "<arg out i resultCode/></method>",
        "<method DoTTSAndPlay><arg in as textToConvert/><arg in i params/><arg in i type/>"
        "<arg in i flags/><arg out t handle/></method>",
        "<method StopTTSPlay><arg in t handle/><arg in i type/><arg in i flags/>"
        "<arg out t resultCode/></method>",
        "<method ReloadConfig><arg in i flags/></method>",
        "<method SetVolume><arg in i volume/></method>",
        "<signal ReportTTSPlayResult><arg as textToConvert/><arg u params/><arg u type/>"
        "<arg u flags/><arg u resultCode/><arg t handle/></signal>",
        "<property Version i read/>", "<property State i read/>"}) {
    EXPECT_NE(members.find(member), std::string::npos) << member << " in\n" << members;
  }
}

TEST_F(Contract, PropertiesAreReadLiveAndCannotBeSet) {
  EXPECT_EQ(client->property("State"), 0);
  setProperties("device.accessibility.qs_enabled = off\n");
  EXPECT_EQ(client->property("State"), -1);
  setProperties("device.accessibility.qs_enabled = yes\n");
  EXPECT_EQ(client->property("State"), 0);
  EXPECT_EQ(client->property("Other"), std::nullopt);
  const std::string denied = "org.freedesktop.DBus.Error.AccessDenied";
  EXPECT_EQ(client->call(kProperties, "Set", "ssv", kInterface, "State", "i", 5).error, denied);
  // A descriptor in the value ends whoever copies it with the library's own code.
  EXPECT_EQ(client->call(kProperties, "Set", "ssv", kInterface, "State", "h", 0).error, denied);
  EXPECT_EQ(client->call(kProperties, "Set", "ssv", "x.y", "z", "ah", 2, 0, 1).error,
            "org.freedesktop.DBus.Error.Failed");
  EXPECT_EQ(client->call(kProperties, "Set", "ss", kInterface, "State").error,
            "org.freedesktop.DBus.Error.InvalidArgs");
  EXPECT_EQ(client->property("Version"), 1);
}

TEST_F(Contract, AllPropertiesAreReadAtOnce) {
  setProperties("device.accessibility.qs_enabled = off\n");
  const auto all = [&](const char* interface) {
    return client->call(kProperties, "GetAll", "s", interface);
  };
  EXPECT_EQ(all(kInterface).text, "State=-1;Version=1;");
  EXPECT_EQ(all("").text, "State=-1;Version=1;");
  EXPECT_EQ(all(kProperties).error, "");
  EXPECT_EQ(all(kProperties).text, "");
  EXPECT_EQ(all("x.y").error, "org.freedesktop.DBus.Error.UnknownInterface");
  EXPECT_EQ(client->call(kProperties, "GetAll", "i", 1).error,
            "org.freedesktop.DBus.Error.InvalidArgs");
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

TEST_F(Contract, ANewerTextDisplacesAndAPoliteOneWaits) {
  const std::uint64_t first = client->play({test::longText()}).value;
  // One that is still queued would be displaced without a result.
  ASSERT_TRUE(daemon->waitForLog("WriteTTSThread started"));
  const std::uint64_t second = client->play({"second"}).value;
  const std::uint64_t polite = client->play({"third"}, 1).value;
  ASSERT_TRUE(client->awaitResult(polite).has_value());
  std::vector<std::pair<std::uint64_t, std::uint32_t>> ends;
  for (const auto& result : client->results())
    ends.emplace_back(result.handle, result.resultCode);
  EXPECT_EQ(ends, (decltype(ends){{first, 1}, {second, 0}, {polite, 0}}));
}

TEST_F(Contract, ARepeatedTextComesWholeFromTheCacheUntilAReload) {
  const auto samples = [&](std::int32_t flags) {
    const std::size_t before = test::readWave(folder / "sound.wav").size();
    EXPECT_EQ(playToEnd({"one two", "three four"}, flags), 0U);
    return test::readWave(folder / "sound.wav").size() - before;
  };
  const std::size_t silent = samples(8);
  EXPECT_EQ(daemon->countLog("Marking WriteTTSThread to send silence"), 2);
  EXPECT_EQ(daemon->countLog("Dynamic text match found"), 0);
  EXPECT_GE(silent, samples(0)) << "with silence in between nothing is lost";
  EXPECT_EQ(daemon->countLog("Dynamic text match found"), 2);
  EXPECT_EQ(client->reload(0).error, "");
  samples(0);
  EXPECT_EQ(daemon->countLog("Dynamic text match found"), 2);
}

TEST_F(Contract, TextAndAlertAreHeardAtTheVolumeInForce) {
  writeAlert(1600);
  const auto heardAt = [&](std::int32_t volume) {
    const std::ptrdiff_t before = std::ssize(test::readWave(folder / "sound.wav"));
    EXPECT_EQ(client->setVolume(volume).error, "");
    EXPECT_EQ(playToEnd({"volume"}, 4), 0U);
    Samples all = test::readWave(folder / "sound.wav");
    all.erase(all.begin(), all.begin() + before);
    return all;
  };
  const auto peak = [](auto begin, auto end) {
    const auto quieter = [](int a, int b) { return std::abs(a) < std::abs(b); };
    return begin < end ? std::abs(*std::max_element(begin, end, quieter)) : 0;
  };
  const Samples normal = heardAt(2);
  const Samples quiet = heardAt(-5);
  // Of the alert ten frames of sound, and one of silence since the end of the file shows only then.
  constexpr std::ptrdiff_t kAlert = 11 * 480;
  const int text = peak(normal.begin(), normal.end() - kAlert);
  EXPECT_GT(text, 2000);
  EXPECT_NEAR(peak(quiet.begin(), quiet.end() - kAlert), text * 71.0 / 502.0, 20)
      << "the ramp settles 10 below its target, so 502 before and 71 now";
  const int alert = peak(normal.end() - kAlert, normal.end());
  EXPECT_NEAR(alert, 4500, 700) << "half volume, with the filter's overshoot at the edges";
  EXPECT_NEAR(peak(quiet.end() - kAlert, quiet.end()), alert * 81.0 / 512.0, 20);
}

}  // namespace
