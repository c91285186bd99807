// What the restart manager is told: that the daemon is up, and that its loop still runs.

#include <fcntl.h>
#include <sys/stat.h>

#include "daemon/harness.h"
#include "platform/unique_fd.h"
#include "support/background.h"
#include "support/notify_socket.h"

namespace {

using std::chrono::milliseconds;

constexpr milliseconds kPeriod{100};

class Watched : public test::DaemonTest {
 protected:
  void launchWatched(const std::string& busAddress, const std::string& properties) {
    test::Daemon::Options options{.properties = properties};
    options.environment = {"NOTIFY_SOCKET=" + manager.path,
                           "WATCHDOG_USEC=" + std::to_string(2000 * kPeriod.count())};
    daemon.emplace(folder, busAddress, options);
  }

  /// Returns once the daemon has said that it is ready, which is after it has its name.
  void launchServing() {
    launchWatched(bus.address(), test::kEnabled);
    EXPECT_EQ(manager.next(), "STATUS=Starting");
    EXPECT_EQ(manager.next(), "READY=1\nSTATUS=");
    client.emplace(bus.address());
  }

  /// Until the log has that line, takes what the manager is told, whose socket holds ten messages:
  /// how often the daemon said that it is ready.
  int awaitLog(const char* part) {
    int ready = 0;
    client.emplace(bus.address());
    EXPECT_TRUE(client->until([&] {
      const bool logged = daemon->countLog(part) > 0;
      ready += manager.take("READY=1");
      return logged;
    }));
    return ready;
  }

  /// Is the daemon said to live from now on, again and again?
  void expectFed() {
    manager.take("");
    for (int i = 0; i < 5; ++i)
      EXPECT_EQ(manager.next(), "WATCHDOG=1");
  }

  const test::NotifySocket manager{folder / "notify"};
};

TEST_F(Watched, IsReadyOnceItHasTheNameAndIsFedWhileNothingHappens) {
  launchServing();
  EXPECT_TRUE(client->nameOwned());
  expectFed();
}

TEST_F(Watched, IsFedThroughThePauseButNotReadyWithoutTheName) {
  const test::ScratchFolder other;
  const test::PrivateBus refusing(other,
                                  "<policy context=\"default\"><allow send_destination=\"*\"/>"
                                  "<allow receive_sender=\"*\"/></policy>");
  launchWatched(refusing.address(), test::kEnabled);
  EXPECT_EQ(awaitLog("Sleeping for 20 seconds"), 0);
  EXPECT_EQ(daemon->countLog("main: Error in quillspeak connecting to DBus"), 1);
  expectFed();
  EXPECT_EQ(daemon->countLog("Sleeping for 20 seconds"), 1);
}

TEST_F(Watched, IsFedWhileTheOwnerOfTheNameIsAsked) {
  std::optional<test::Client> owner(bus.address());
  ASSERT_GE(sd_bus_request_name(owner->bus(), test::kService, 0), 0);
  launchWatched(bus.address(), test::kWithAutomation);
  // It asks and gets no answer.
  EXPECT_EQ(awaitLog("testDBusThread: Client succesfully created"), 0);
  expectFed();
  EXPECT_EQ(daemon->countLog("QS Active check"), 0);
}

TEST_F(Watched, IsNotFedWhileItsLoopHangs) {
  launchServing();
  expectFed();
  // The loop reads the changed settings, from a storage that does not answer.
  const std::string hold = folder / "files/hold-properties.conf";
  ASSERT_EQ(mkfifo(hold.c_str(), 0600), 0);
  setProperties(test::kEnabled);
  test::Background asking([this] { return client->property("State"); });
  ASSERT_TRUE(daemon->waitForLog("held: "));
  manager.take("");
  EXPECT_EQ(manager.next(8 * kPeriod), "");
  const platform::UniqueFd released(open(hold.c_str(), O_WRONLY | O_CLOEXEC));
  EXPECT_EQ(asking.get(), 0);
  expectFed();
}

}  // namespace
