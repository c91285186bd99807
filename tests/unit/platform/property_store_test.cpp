#include "platform/property_store.h"

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/key_value_file.h"
#include "support/scratch_folder.h"
#include "support/syslog_capture.h"

namespace {

class PropertyStore : public testing::Test {
 public:
  PropertyStore() { setenv("QUILLSPEAK_PROPERTIES", file.c_str(), 1); }
  ~PropertyStore() override { unsetenv("QUILLSPEAK_PROPERTIES"); }

 protected:
  void store(const std::string& text) { test::writeFile(file, text); }
  test::ScratchFolder folder;
  const std::string file = folder / "properties.conf";
};

// Each reads into variables that hold something else, so that a failed read that touches them
// shows.
std::string boolean(const char* key) {
  bool one = false;
  bool other = true;
  const int status = getBooleanProperty(key, &one) + getBooleanProperty(key, &other);
  if (status != 0) return !one && other ? "failed" : "touched";
  return one && other ? "true" : (one || other ? "both" : "false");
}

std::string integer(const char* key) {
  int value = 77;
  if (getIntegerProperty(key, &value) == 0) return std::to_string(value);
  return value == 77 ? "failed" : "touched";
}

std::string cutText(const char* key, std::size_t size) {
  std::vector<char> value(64, 'x');
  if (getStringProperty(key, value.data(), size) == 0) return value.data();
  return value == std::vector<char>(64, 'x') ? "failed" : "touched";
}

std::string text(const char* key) {
  return cutText(key, 64);
}

TEST_F(PropertyStore, ReadsEachKindInAllItsSpellingsAndCutsNoStringShort) {
  const struct {
    std::string (*read)(const char*);
    const char* expected;
    std::vector<std::string> values;
  } kRows[] = {
      {boolean, "true", {"true", "1", "YES", "On"}},
      {boolean, "false", {"FALSE", "0", "no", "off"}},
      {boolean, "failed", {"2", "tru", "", "true true"}},
      {integer, "-2147483648", {"-2147483648"}},
      {integer, "2147483647", {"+2147483647"}},
      {integer, "7", {"007", "+7"}},
      {integer, "failed", {"3x", "2147483648", "-2147483649", "99999999999999999999"}},
      {integer, "failed", {"0x10", "", "- 1", "+-1", "1 2"}},
      {text, "two words", {"  two words "}},
      {text, "", {""}},
      {text, "a=b", {"a=b\r"}},
  };
  for (const auto& row : kRows) {
    for (const std::string& value : row.values) {
      store("key\t=\t" + value + "\n");
      EXPECT_EQ(row.read("key"), row.expected) << value;
    }
  }
  store("key = kal16");
  EXPECT_EQ(cutText("key", 6), "kal16");
  EXPECT_EQ(cutText("key", 5), "failed");
  EXPECT_EQ(cutText("key", 0), "failed");
  EXPECT_EQ(text("missing"), "failed");
}

TEST_F(PropertyStore, ReadsTheLastLineOfAKeyAndPassesOverTheRest) {
  store(
      "# key = comment\n  # key = comment\nkey = first\nno equals sign\n = no key\n"
      "key = last # not this\ncolour = a#b\nlast.wrong = 5\nlast.wrong = five\n" +
      std::string("nul = a\0b\n", 10) + "end = no newline");
  EXPECT_EQ(text("key"), "last");
  EXPECT_EQ(text("colour"), "a");
  EXPECT_EQ(integer("last.wrong"), "failed");
  EXPECT_EQ(text("nul"), "failed");
  EXPECT_EQ(text("end"), "no newline");
  EXPECT_EQ(text(""), "failed");
}

TEST_F(PropertyStore, SeesEachChangeAtTheNextRead) {
  // Of one size, and faster than the clock of file times ticks.
  for (int round = 0; round < 200; ++round) {
    const std::string speed = std::to_string(round % 10);
    const std::string place = round % 3 == 0 ? file + ".new" : file;
    test::writeFile(place, "speed = " + speed);
    std::filesystem::rename(place, file);
    ASSERT_EQ(integer("speed"), speed) << round;
  }
}

TEST_F(PropertyStore, RefusesAFileThatIsTooLargeAndSaysSoOnce) {
  std::string noise(platform::KeyValueFile::kMaxBytes, '\0');
  for (std::size_t i = 0; i < noise.size(); ++i)
    noise[i] = static_cast<char>(i * i >> 7);
  test::clearLog();
  store(noise + "\nspeed = 2");
  EXPECT_EQ(integer("speed"), "failed");
  EXPECT_EQ(integer("speed"), "failed");
  EXPECT_EQ(test::countLog(file + ": cannot be read: File too large"), 1);
  store(noise.substr(10) + "\nspeed = 2");
  EXPECT_EQ(integer("speed"), "2");
}

TEST_F(PropertyStore, ParsesAnUnchangedFileOnce) {
  store("key = value");
  platform::KeyValueFile reader;
  // Until the tick of the file's own time has passed, an equal stamp proves nothing.
  unsigned parsed = 0;
  for (bool settled = false; !settled; parsed = reader.timesParsed()) {
    ASSERT_TRUE(reader.refresh(file));
    settled = reader.timesParsed() == parsed;
  }
  for (int reads = 0; reads < 100; ++reads)
    ASSERT_TRUE(reader.refresh(file));
  EXPECT_EQ(reader.timesParsed(), parsed);

  // The same size, and the time put back.
  const auto written = std::filesystem::last_write_time(file);
  store("key = other");
  std::filesystem::last_write_time(file, written);
  ASSERT_TRUE(reader.refresh(file));
  EXPECT_EQ(*reader.find("key"), "other");
}

}  // namespace
