// The object on the bus, where its workers are faster than it could wish.

#include <cstdlib>

#include "app/bus_dispatcher.h"
#include "core/controller.h"
#include "daemon/harness.h"
#include "dbus/quillspeak_dbus_impl.h"
#include "support/background.h"
#include "support/fakes.h"
#include "support/gate.h"
#include "support/link_seams.h"
#include "support/syslog_capture.h"

namespace {

/// Serves with a queue of the test's own on a thread of its own, until it is told to leave.
class Service : public testing::Test {
 public:
  Service() {
    test::clearLog();
    setenv("QUILLSPEAK_PROPERTIES", (folder / "properties.conf").c_str(), 1);
    // The builder has nothing to do with it.
    test::writeFile(folder / "properties.conf", "qs_cache = disable\n");
    ready.awaitArrival();
    client.emplace(bus.address());
    ready.open();
    EXPECT_TRUE(client->awaitName());
    // The name comes before the controller, which starts threads of its own.
    EXPECT_EQ(client->stop(0).error, "");
  }
  ~Service() override {
    qs_ns::withDispatcher([](qs_ns::CheckingBusDispatcher& loop) { loop.postLeave(); });
  }

  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

 protected:
  void serve() {
    DBus::_init_threading();
    qs_ns::CheckingBusDispatcher loop;
    DBus::default_dispatcher = &loop;
    ready.pass();
    DBus::Connection connection(bus.address().c_str(), true);
    connection.register_bus();
    connection.request_name(test::kService, 0);
    {
      qs_ns::QuillspeakDBusImpl object(connection, loop.work());
      qs_ns::QS_Controller controller(&object, &queue, &media);
      object.setController(&controller);
      reportOf = [&object](const qs_ns::QS_PlayRequest& request, unsigned result) {
        object.reportPlayRequestResult({"text"}, 0, 0, 0, result, &request);
      };
      qs_ns::set_dispatcher(&loop);
      loop.enter();
      qs_ns::set_dispatcher(nullptr);
      controller.cleanupController();
    }
    connection.disconnect();
  }

  test::ScratchFolder folder;
  test::PrivateBus bus{folder};
  test::FakeQueue queue;
  test::FakeMedia media;
  std::function<void(const qs_ns::QS_PlayRequest&, unsigned)> reportOf;
  test::Gate ready;
  std::optional<test::Client> client;
  test::Background<std::function<void()>> service{[this] { serve(); }};
};

TEST_F(Service, ReportsAfterTheReplyAndBeforeAStopsReplyThoughItsWorkersAreFaster) {
  test::FakeQueue::Request playing;
  // Both times the bus thread waits for a worker that reports.
  const auto reportPlayed = [&] { const test::Background worker([&] { reportOf(*playing, 0); }); };
  queue.onAdd = [&](test::FakeQueue::Request request) {
    playing = std::move(request);
    if (queue.added == 0) reportPlayed();
  };
  queue.onStopPlaying = [&](std::uint64_t) { reportPlayed(); };
  bool answered = false;
  const auto onPlayed = [&](const test::Reply& reply) {
    answered = true;
    EXPECT_FALSE(client->result(reply.value).has_value());
  };
  client->callLater(onPlayed, "DoTTSAndPlay", "asiii", 1, "text", 0, 0, 0);
  EXPECT_TRUE(client->until([&] { return answered && !client->results().empty(); }));

  const std::uint64_t handle = client->play({"text"}).value;
  answered = false;
  const auto onStopped = [&](const test::Reply&) {
    answered = true;
    EXPECT_TRUE(client->result(handle).has_value());
  };
  client->callLater(onStopped, "StopTTSPlay", "tii", handle, 0, 0);
  EXPECT_TRUE(client->until([&] { return answered; }));
}

TEST_F(Service, AnswersAConversionThatEndsBeforeItsCallIsRegistered) {
  test::awaitEndOfThreads(true);
  EXPECT_EQ(client->fetch("on", folder / "on.wav").error, "");
  test::awaitEndOfThreads(false);
  EXPECT_EQ(test::countLog("Could not find transaction tag"), 0);
}

}  // namespace
