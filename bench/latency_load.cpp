#include "latency_load.h"

namespace bench {

namespace {

constexpr std::chrono::milliseconds kBetweenCalls{10};

test::Reply callThatPlaysNothing(test::Client& client, int number) {
  switch (number % 3) {
    case 0:
      return client.call(test::kProperties, "Get", "ss", test::kInterface, "State");
    case 1:
      return client.stop(1);  // no handle has this value
    default:
      return client.call("org.freedesktop.DBus.Introspectable", "Introspect");
  }
}

}  // namespace

Load::Load(const Stand& stand)
    : thread([this, address = stand.busAddress(), file = stand.file("converted.wav")] {
        run(address, file);
      }) {}

Load::~Load() {
  ends = true;
  thread.join();
}

double Load::callsPerSecond() const {
  return calls / std::chrono::duration<double>(Clock::now() - begun).count();
}

void Load::run(const std::string& busAddress, const std::string& file) {
  test::Client client(busAddress);
  const std::string text = heaviestConversion();
  bool converting = false;
  const auto answered = [&](const test::Reply& reply) {
    converting = false;
    ++converted;
    failed += reply.error.empty() ? 0 : 1;
  };
  Moment next = Clock::now();
  for (int i = 0; !ends; ++i) {
    if (!converting) {
      converting = true;
      client.callLater(answered, "DoTTSFetchInFile", "ss", text.c_str(), file.c_str());
    }
    failed += callThatPlaysNothing(client, i).error.empty() ? 0 : 1;
    ++calls;
    next += kBetweenCalls;
    client.until([] { return false; },
                 std::chrono::ceil<std::chrono::microseconds>(next - Clock::now()));
  }
}

}  // namespace bench
