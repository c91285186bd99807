// The voice draws its noise from rand(). Where QS_TEST_RAND is set, each utterance draws the same
// numbers, the same ones in every process, so that speech can be compared sample for sample.

#include <dlfcn.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>

extern "C" {
struct cst_utterance_struct;
struct cst_voice_struct;
cst_utterance_struct* flite_synth_text(const char* text, cst_voice_struct* voice);
}

namespace {

std::atomic<std::uint64_t> drawn{0};

bool pinned() {
  static const bool wanted = std::getenv("QS_TEST_RAND") != nullptr;
  return wanted;
}

template <typename Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// A bit mixer over the count of numbers drawn (splitmix64): no state but the count.
int mixed(std::uint64_t count) {
  std::uint64_t bits = (count + 1) * 0x9E3779B97F4A7C15U;
  bits = (bits ^ (bits >> 30)) * 0xBF58476D1CE4E5B9U;
  bits = (bits ^ (bits >> 27)) * 0x94D049BB133111EBU;
  return static_cast<int>((bits ^ (bits >> 31)) >> 33);
}

}  // namespace

extern "C" {

int rand() noexcept {
  static const auto original = next<int()>("rand");
  return pinned() ? mixed(drawn.fetch_add(1)) : original();
}

void srand(unsigned int seed) noexcept {
  static const auto original = next<void(unsigned int)>("srand");
  if (!pinned()) original(seed);
}

// Every synthesis passes through here, one at a time.
cst_utterance_struct* flite_synth_text(const char* text, cst_voice_struct* voice) {
  static const auto original = next<decltype(flite_synth_text)>("flite_synth_text");
  drawn = 0;
  return original(text, voice);
}
}
