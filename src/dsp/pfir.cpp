#include "dsp/pfir.h"

#include <algorithm>
#include <cstdlib>

#include "dsp/inner_product.h"

using qs_ns::CoefficientBank;
using qs_ns::filterWindows;

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
  return {state.coef, state.factor, state.taps};
}

CoefficientBank bankOf(const pfir_dnFilterState& state) {
  return {state.coef, 1, state.taps};
}

/// Gives a state its history and limits. 1: no memory.
template <class State>
int startSignal(State& state) {
  const auto samples = 2 * static_cast<std::size_t>(state.taps);
  state.history = static_cast<std::int16_t*>(std::calloc(samples, sizeof(std::int16_t)));
  if (state.history == nullptr) return 1;
  const qs_ns::PeakLimits limits = qs_ns::peakLimits(bankOf(state));
  state.halfSumPeak = limits.halfSum;
  state.lanePeak = limits.lane;
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
    peak = std::max(qs_ns::peakOf(state.history, tail), qs_ns::peakOf(in, nIn));
    std::copy_n(in, state.taps, state.history + tail);
  }

  /// The outputs of `count` windows of which the first ends in sample `end`, the others each `step`
  /// further on.
  void filter(int end, int step, int count, std::int16_t* out) const {
    const int early = std::max(0, (tail - end + step - 1) / step);
    const CoefficientBank bank = bankOf(state);
    const qs_ns::PeakLimits limits{state.halfSumPeak, state.lanePeak};
    filterWindows(bank, {state.history + end, early, step}, peak, limits, out);
    filterWindows(bank, {in + (end + early * step - tail), count - early, step}, peak, limits,
                  out + early * bank.phases);
  }

  void keepTail() const { std::copy_n(in + (nIn - tail), tail, state.history); }

 private:
  State& state;
  const std::int16_t* in;
  int nIn;
  int tail;
  std::int32_t peak;
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
  *state = {config->factor, config->taps, config->coef(), nullptr, 0, 0};
  if (state->factor < 1 || state->taps < 1 || state->taps % 4 != 0) return 2;
  return startSignal(*state);
}

int pfir_initDnFilter(pfir_dnFilterState* state, const pfir_filterConfig* config) {
  if (state == nullptr || config == nullptr) return 1;
  *state = {config->factor, config->taps, 0, config->coef(), nullptr, 0, 0};
  if (state->factor < 1 || state->taps < 1 || state->taps % state->factor != 0) return 2;
  return startSignal(*state);
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
