#include <algorithm>
#include <cstdint>

#include <gtest/gtest.h>

#include "dsp/pfir.h"
#include "support/pfir_literal.h"

namespace {

using test::DnFilter;
using test::Samples;
using test::UpFilter;

template <class Filter>
void expectStart(const pfir_filterConfig* table, int status) {
  Filter filter(table);
  EXPECT_EQ(filter.status, status);
  EXPECT_EQ(Filter::kRelease(&filter.state), status == 0 ? 0 : 1);
  EXPECT_EQ(Filter::kRelease(&filter.state), 1) << "released twice";
}

TEST(Filters, RefuseToStartWhatTheyCannotRun) {
  const struct {
    std::int16_t factor, taps;
    int up, dn;
  } rows[] = {{3, 46, 2, 2}, {5, 48, 0, 2}, {0, 48, 2, 2}, {3, 0, 2, 2}, {3, 48, 0, 0}};
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << "factor " << row.factor << ", taps " << row.taps);
    const pfir_filterTable<240> table{{row.factor, row.taps, {}}, {}};
    expectStart<UpFilter>(&table.header, row.up);
    expectStart<DnFilter>(&table.header, row.dn);
  }
  expectStart<UpFilter>(pfir_getUpFilterConfig(4), 1);
  expectStart<DnFilter>(pfir_getDnFilterConfig(0), 1);
  EXPECT_EQ(pfir_initUpFilter(nullptr, pfir_getUpFilterConfig(3)), 1);
  EXPECT_EQ(pfir_initDnFilter(nullptr, pfir_getDnFilterConfig(3)), 1);
}

/// Of a call that has to be refused: it writes nothing and leaves the signal's history alone.
template <class Filter, class State>
void expectRefusal(State& state, const std::int16_t* in, int nIn, int status) {
  SCOPED_TRACE(nIn);
  const int tail = state.history != nullptr ? state.taps - 1 : 0;
  const Samples history(state.history, state.history + tail);
  Samples out(480, 77);
  std::uint16_t count = 99;
  EXPECT_EQ(Filter::kRun(&state, in, out.data(), nIn, &count), status);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(out, Samples(480, 77));
  EXPECT_TRUE(std::equal(history.begin(), history.end(), state.history));
}

TEST(Filters, RefuseWithoutATrace) {
  const Samples in(32768, 20000);
  Samples out(480);
  UpFilter three(pfir_getUpFilterConfig(3));
  ASSERT_EQ(pfir_upFilter(&three.state, in.data(), out.data(), 160, nullptr), 0);
  expectRefusal<UpFilter>(three.state, in.data(), 47, 1);
  expectRefusal<UpFilter>(three.state, in.data(), 21846, 1);
  expectRefusal<UpFilter>(three.state, nullptr, 47, 2);
  UpFilter two(pfir_getUpFilterConfig(2));
  expectRefusal<UpFilter>(two.state, in.data(), 32768, 1);
  const pfir_filterTable<104> longTable{{2, 52, {}}, {}};
  UpFilter tooLong(&longTable.header);
  expectRefusal<UpFilter>(tooLong.state, in.data(), 160, 2);
  pfir_upFilterState released{};
  expectRefusal<UpFilter>(released, in.data(), 160, 2);

  DnFilter down(pfir_getDnFilterConfig(2));
  ASSERT_EQ(pfir_dnFilter(&down.state, in.data(), out.data(), 161, nullptr), 0);
  expectRefusal<DnFilter>(down.state, in.data(), 95, 1);
  expectRefusal<DnFilter>(down.state, nullptr, 160, 1);
  for (const int phase : {3, -1}) {
    down.state.phase = static_cast<std::int16_t>(phase);
    expectRefusal<DnFilter>(down.state, in.data(), 160, 2);
  }
}

}  // namespace
