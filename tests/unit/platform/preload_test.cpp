// The tests' own tool for whole programs, tried on a program of its own.

#include <sys/wait.h>

#include <string>

#include <gtest/gtest.h>

#include "support/child_process.h"
#include "support/scratch_folder.h"

namespace {

std::string run(const std::string& subject, const test::Environment& environment) {
  test::ChildProcess child(QS_PRELOAD_SUBJECT, {subject}, environment);
  std::string output = child.readAll();
  EXPECT_EQ(child.wait(), 0) << subject;
  return output;
}

TEST(Preload, WritesALineForEachMessageThatPassesTheMask) {
  const test::ScratchFolder folder;
  const std::string log = folder / "log";
  run("log", {test::preloadEntry(), "QS_TEST_SYSLOG=" + log});
  EXPECT_EQ(test::readFile(log),
            "openlog ident=quillspeak option=0x49 facility=0x80\n"
            "LOG_NOTICE a line\\n\tanother 7\\n\n"
            "LOG_ERR with a facility\n"
            "LOG_WARNING " +
                std::string(20000, 'x') + "\n");
}

TEST(Preload, FindsTheFixedPathsInAFolderOfTheTest) {
  const test::ScratchFolder folder;
  run("files", {test::preloadEntry(), "QS_TEST_FILES=" + folder.path()});
  EXPECT_EQ(test::readFile(folder / "test.rwb"), "fopen");
  EXPECT_EQ(test::readFile(folder / "test.wav"), "open");
  EXPECT_EQ(test::readFile(folder / "error_mono.raw"), "ofstream");
}

TEST(Preload, GivesEachUtteranceTheSameNoise) {
  const test::Environment pinned = {test::preloadEntry(), "QS_TEST_RAND=1"};
  const std::string once = run("rand", pinned);
  EXPECT_TRUE(once.starts_with("equal ")) << once;
  EXPECT_EQ(run("rand", pinned), once);
  EXPECT_TRUE(run("rand", {test::preloadEntry()}).starts_with("different "));
}

}  // namespace
