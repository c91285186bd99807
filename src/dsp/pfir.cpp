#include "dsp/pfir.h"

#include <algorithm>
#include <cstdlib>

#include "dsp/filter_path.h"

using qs_ns::CoefficientBank;

namespace {

constexpr int kMaxUpTaps = 48;
constexpr int kMaxBlock = 32767;
constexpr int kMaxOutputs = 65535;

static_assert(sizeof(pfir_filterConfig) == 8);
static_assert(offsetof(pfir_filterTable<96>, coef) == 8 && alignof(pfir_filterTable<96>) == 8);
static_assert(sizeof(pfir_2xIntCoef) == 200 && sizeof(pfir_2xDecCoef) == 200);
static_assert(sizeof(pfir_3xIntCoef) == 296 && sizeof(pfir_3xDecCoef) == 296);
static_assert(sizeof(pfir_6xIntCoef) == 584 && sizeof(pfir_6xDecCoef) == 584);
static_assert(alignof(std::max_align_t) >= 8, "calloc aligns a history to 8 bytes");

CoefficientBank bankOf(const pfir_upFilterState& state) {
  return {state.coef, state.factor, state.taps, {state.halfSumPeak, state.lanePeak}};
}

CoefficientBank bankOf(const pfir_dnFilterState& state) {
  return {state.coef, 1, state.taps, {state.halfSumPeak, state.lanePeak}};
}

/// Gives a state its history, limits and path. 1: no memory.
template <class State>
int startSignal(State& state, int phases) {
  const auto samples = 2 * static_cast<std::size_t>(state.taps);
  state.history = static_cast<std::int16_t*>(std::calloc(samples, sizeof(std::int16_t)));
  if (state.history == nullptr) return 1;
  const qs_ns::PeakLimits limits = qs_ns::peakLimits(state.coef, phases, state.taps);
  state.halfSumPeak = limits.halfSum;
  state.lanePeak = limits.lane;
  state.path = qs_ns::runnablePaths().front();
  return 0;
}

template <class State>
int release(State* state) {
  if (state == nullptr || state->history == nullptr) return 1;
  std::free(state->history);
  *state = {};
  return 0;
}

/// One call's view of a state: `history` is continued by the block's first samples, so that the
/// windows which end in them lie in one piece, and keeps the block's last ones at the end.
template <class State>
class Block {
 public:
  Block(State& owner, const std::int16_t* samples, int count)
      : state(owner), in(samples), nIn(count), tail(owner.taps - 1) {
    std::copy_n(in, state.taps, state.history + tail);
  }

  /// The outputs of `count` windows of which the first ends in sample `end`, the others each `step`
  /// further on.
  void filter(int end, int step, int count, std::int16_t* out) const {
    // As many as lie in the history: of the factor-3 filter 48, in whole groups for every path.
    const int early = std::max(0, (state.taps - end + step - 1) / step);
    const CoefficientBank bank = bankOf(state);
    state.path->filter(bank, {state.history + end, early, step}, out);
    state.path->filter(bank, {in + (end + early * step - tail), count - early, step},
                       out + early * bank.phases);
  }

  void keepTail() const { std::copy_n(in + (nIn - tail), tail, state.history); }

 private:
  State& state;
  const std::int16_t* in;
  int nIn;
  int tail;
};

template <class State>
bool isUsable(const State* state, const std::int16_t* in, const std::int16_t* out) {
  return state != nullptr && state->history != nullptr && in != nullptr && out != nullptr;
}

bool isBlockLength(int nIn, int taps) {
  return nIn >= taps && nIn <= kMaxBlock;
}

int checkUp(const pfir_upFilterState* state, const std::int16_t* in, const std::int16_t* out,
            int nIn) {
  if (!isUsable(state, in, out)) return 2;
  if (!isBlockLength(nIn, state->taps) || nIn * state->factor > kMaxOutputs) return 1;
  return state->taps > kMaxUpTaps ? 2 : 0;
}

int checkDn(const pfir_dnFilterState* state, const std::int16_t* in, const std::int16_t* out,
            int nIn) {
  if (!isUsable(state, in, out) || !isBlockLength(nIn, state->taps)) return 1;
  return state->phase < 0 || state->phase > state->factor ? 2 : 0;
}

void report(std::uint16_t* outCount, int count) {
  if (outCount != nullptr) *outCount = static_cast<std::uint16_t>(count);
}

}  // namespace

int pfir_initUpFilter(pfir_upFilterState* state, const pfir_filterConfig* config) {
  if (state == nullptr || config == nullptr) return 1;
  *state = {config->factor, config->taps, config->coef(), nullptr, 0, 0, nullptr};
  if (state->factor < 1 || state->taps < 1 || state->taps % 4 != 0) return 2;
  return startSignal(*state, state->factor);
}

int pfir_initDnFilter(pfir_dnFilterState* state, const pfir_filterConfig* config) {
  if (state == nullptr || config == nullptr) return 1;
  *state = {config->factor, config->taps, 0, config->coef(), nullptr, 0, 0, nullptr};
  if (state->factor < 1 || state->taps < 1 || state->taps % state->factor != 0) return 2;
  return startSignal(*state, 1);
}

int pfir_resetUpFilter(pfir_upFilterState* state) {
  if (state == nullptr || state->history == nullptr) return 1;
  std::fill_n(state->history, 2 * state->taps, std::int16_t{0});
  return 0;
}

int pfir_releaseUpFilter(pfir_upFilterState* state) {
  return release(state);
}

int pfir_releaseDnFilter(pfir_dnFilterState* state) {
  return release(state);
}

int pfir_upFilter(pfir_upFilterState* state, const std::int16_t* in, std::int16_t* out, int nIn,
                  std::uint16_t* outCount) {
  report(outCount, 0);
  if (const int refusal = checkUp(state, in, out, nIn); refusal != 0) return refusal;
  const Block block(*state, in, nIn);
  block.filter(0, 1, nIn, out);
  block.keepTail();
  report(outCount, nIn * state->factor);
  return 0;
}

int pfir_dnFilter(pfir_dnFilterState* state, const std::int16_t* in, std::int16_t* out, int nIn,
                  std::uint16_t* outCount) {
  report(outCount, 0);
  if (const int refusal = checkDn(state, in, out, nIn); refusal != 0) return refusal;
  const int step = state->factor;
  const int count = (nIn - state->phase + step - 1) / step;
  const Block block(*state, in, nIn);
  block.filter(state->phase, step, count, out);
  block.keepTail();
  state->phase = static_cast<std::int16_t>(state->phase + step * count - nIn);
  report(outCount, count);
  return 0;
}
