#include <benchmark/benchmark.h>

#include <memory>
#include <thread>
#include <utility>

#include "playback/wqueue.h"

// The queue between synthesis and playback.

namespace {

using Queue = qs_ns::wqueue<std::unique_ptr<int>>;

void addAndRemove(benchmark::State& state) {
  Queue queue;
  auto item = std::make_unique<int>();
  for (auto _ : state) {
    queue.add(std::move(item), 160);
    item = queue.remove();
  }
}
BENCHMARK(addAndRemove);

/// There and back through another thread that waits for each item.
void handOver(benchmark::State& state) {
  Queue there;
  Queue back;
  std::thread other([&] {
    while (there.waitForItem())
      back.add(there.remove());
  });
  auto item = std::make_unique<int>();
  for (auto _ : state) {
    there.add(std::move(item));
    item = back.remove();
  }
  there.markExhausted();
  other.join();
}
BENCHMARK(handOver)->UseRealTime();

}  // namespace
