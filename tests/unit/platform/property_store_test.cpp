#include "platform/property_store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
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
  void storeByRename(const std::string& text) {
    test::writeFile(file + ".new", text);
    std::filesystem::rename(file + ".new", file);
  }

  test::ScratchFolder folder;
  const std::string file = folder / "properties.conf";
};

// Reads into a variable that holds something else, so that a failed read that touches it shows.
std::string boolean(const char* key) {
  std::string seen;
  for (const bool before : {false, true}) {
    bool value = before;
    const int result = getBooleanProperty(key, &value);
    seen += result == 0 ? (value ? "true " : "false ") : (value == before ? "failed " : "touched ");
  }
  return seen;
}

std::string integer(const char* key) {
  int value = 77;
  if (getIntegerProperty(key, &value) == 0) return std::to_string(value);
  return value == 77 ? "failed" : "touched";
}

std::string text(const char* key, std::size_t size = 64) {
  std::vector<char> value(64, 'x');
  if (getStringProperty(key, value.data(), size) == 0) return value.data();
  return value == std::vector<char>(64, 'x') ? "failed" : "touched";
}

TEST_F(PropertyStore, ReadsEachKindInAllItsSpellings) {
  store(
      "t1=true\nt2 = 1\nt3\t=\tYES\nt4 = On\nf1=FALSE\nf2=0\nf3=no\nf4=off\n"
      "b1=2\nb2=tru\nb3=\nb4=true true\n"
      "i1=5\ni2=-2147483648\ni3=+2147483647\ni4=007\n"
      "n1=3x\nn2=2147483648\nn3=-2147483649\nn4=0x10\nn5=\nn6=- 1\nn7=+-1\nn8=1 2\n"
      "n9=99999999999999999999\n"
      "s1=  two words \ns2=\ns3=a=b\r\n");
  for (const char* key : {"t1", "t2", "t3", "t4"})
    EXPECT_EQ(boolean(key), "true true ") << key;
  for (const char* key : {"f1", "f2", "f3", "f4"})
    EXPECT_EQ(boolean(key), "false false ") << key;
  for (const char* key : {"b1", "b2", "b3", "b4", "missing"})
    EXPECT_EQ(boolean(key), "failed failed ") << key;

  EXPECT_EQ(integer("i1"), "5");
  EXPECT_EQ(integer("i2"), "-2147483648");
  EXPECT_EQ(integer("i3"), "2147483647");
  EXPECT_EQ(integer("i4"), "7");
  for (const char* key : {"n1", "n2", "n3", "n4", "n5", "n6", "n7", "n8", "n9", "missing"})
    EXPECT_EQ(integer(key), "failed") << key;

  EXPECT_EQ(text("s1"), "two words");
  EXPECT_EQ(text("s2"), "");
  EXPECT_EQ(text("s3"), "a=b");
  EXPECT_EQ(text("missing"), "failed");
}

TEST_F(PropertyStore, CutsNoStringShort) {
  store("voice = kal16");
  EXPECT_EQ(text("voice", 6), "kal16");
  EXPECT_EQ(text("voice", 5), "failed");
  EXPECT_EQ(text("voice", 0), "failed");
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
  EXPECT_EQ(integer("speed"), "failed");
  store("speed = 1");
  EXPECT_EQ(integer("speed"), "1");
  std::filesystem::remove(file);
  EXPECT_EQ(integer("speed"), "failed");

  // Of one size, and faster than the clock of file times ticks.
  for (int round = 0; round < 200; ++round) {
    const std::string speed = std::to_string(round % 10);
    round % 3 == 0 ? storeByRename("speed = " + speed) : store("speed = " + speed);
    ASSERT_EQ(integer("speed"), speed) << round;
  }
}

TEST_F(PropertyStore, IsNotHurtByWhatIsNoPropertyFile) {
  mkfifo(file.c_str(), 0600);
  EXPECT_EQ(integer("speed"), "failed");
  std::filesystem::remove(file);
  std::filesystem::create_directory(file);
  EXPECT_EQ(integer("speed"), "failed");
  std::filesystem::remove(file);
  std::filesystem::create_symlink("/dev/zero", file);
  EXPECT_EQ(integer("speed"), "failed");
  std::filesystem::remove(file);
  std::filesystem::create_symlink(file, file);
  EXPECT_EQ(integer("speed"), "failed");
  std::filesystem::remove(file);

  std::string noise(10 * 1024 * 1024, '\0');
  for (std::size_t i = 0; i < noise.size(); ++i)
    noise[i] = static_cast<char>(i * i >> 7);
  test::clearLog();
  store(noise);
  EXPECT_EQ(integer("speed"), "failed");
  EXPECT_EQ(integer("speed"), "failed");
  EXPECT_EQ(test::countLog(file + ": cannot be read: File too large"), 1);

  noise.resize(platform::KeyValueFile::kMaxBytes - 10);
  store(noise + "\nspeed = 2");
  EXPECT_EQ(integer("speed"), "2");
}

TEST(KeyValueFile, ParsesAnUnchangedFileOnce) {
  const test::ScratchFolder folder;
  const std::string path = folder / "file";
  test::writeFile(path, "key = value");
  platform::KeyValueFile file;
  // Until the tick of the file's own time has passed, an equal stamp proves nothing.
  unsigned parsed = 0;
  for (bool settled = false; !settled; parsed = file.timesParsed()) {
    ASSERT_TRUE(file.refresh(path));
    settled = file.timesParsed() == parsed;
  }
  for (int reads = 0; reads < 100; ++reads)
    ASSERT_TRUE(file.refresh(path));
  EXPECT_EQ(file.timesParsed(), parsed);

  // The same size, and the time put back.
  struct stat before {};
  ASSERT_EQ(stat(path.c_str(), &before), 0);
  test::writeFile(path, "key = other");
  const timespec times[] = {before.st_atim, before.st_mtim};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  ASSERT_TRUE(file.refresh(path));
  ASSERT_NE(file.find("key"), nullptr);
  EXPECT_EQ(*file.find("key"), "other");
}

}  // namespace
