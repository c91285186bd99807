#include <algorithm>
#include <cstddef>
#include <cstdint>

#include <gtest/gtest.h>

#include "dsp/pfir.h"
#include "unit/dsp/pfir_literal.h"

namespace {
bool outOfMemory = false;
}

// The linker sends the program's calls of calloc here, by these names.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {
void* __real_calloc(std::size_t count, std::size_t size);
void* __wrap_calloc(std::size_t count, std::size_t size);
void* __wrap_calloc(std::size_t count, std::size_t size) {
  return outOfMemory ? nullptr : __real_calloc(count, size);
}
}
// NOLINTEND(bugprone-reserved-identifier)

namespace {

using test::Samples;

bool allZero(const std::int16_t* samples, int count) {
  return std::all_of(samples, samples + count, [](auto sample) { return sample == 0; });
}

Samples ramp(int length) {
  Samples samples;
  for (int i = 0; i < length; ++i)
    samples.push_back(static_cast<std::int16_t>(i * 37 - 9000));
  return samples;
}

TEST(UpFilterState, StartsFromSilenceWithItsTable) {
  test::UpFilter filter(pfir_getUpFilterConfig(6));
  ASSERT_EQ(filter.status, 0);
  EXPECT_EQ(filter.state.factor, 6);
  EXPECT_EQ(filter.state.taps, 48);
  EXPECT_EQ(filter.state.coef, pfir_6xIntCoef.coef);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(filter.state.history) % 8, 0u);
  EXPECT_TRUE(allZero(filter.state.history, 96));
}

TEST(DnFilterState, StartsFromSilenceWithItsTable) {
  test::DnFilter filter(pfir_getDnFilterConfig(3));
  ASSERT_EQ(filter.status, 0);
  EXPECT_EQ(filter.state.factor, 3);
  EXPECT_EQ(filter.state.taps, 144);
  EXPECT_EQ(filter.state.phase, 0);
  EXPECT_EQ(filter.state.coef, pfir_3xDecCoef.coef);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(filter.state.history) % 8, 0u);
  EXPECT_TRUE(allZero(filter.state.history, 288));
}

TEST(InitFilter, RefusesWhatItCannotRun) {
  const struct {
    std::int16_t factor, taps;
    int up, dn;
  } rows[] = {{3, 46, 2, 2},  {3, 45, 2, 0}, {3, 48, 0, 0},  {5, 48, 0, 2}, {0, 48, 2, 2},
              {-3, 48, 2, 2}, {3, 0, 2, 2},  {3, -48, 2, 2}, {1, 4, 0, 0}};
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << "factor " << row.factor << ", taps " << row.taps);
    const pfir_filterTable<240> table{{row.factor, row.taps, {}}, {}};
    pfir_upFilterState up;
    EXPECT_EQ(pfir_initUpFilter(&up, &table.header), row.up);
    EXPECT_EQ(pfir_releaseUpFilter(&up), row.up == 0 ? 0 : 1);
    pfir_dnFilterState dn;
    EXPECT_EQ(pfir_initDnFilter(&dn, &table.header), row.dn);
    EXPECT_EQ(pfir_releaseDnFilter(&dn), row.dn == 0 ? 0 : 1);
  }
}

TEST(InitFilter, RefusesNullArguments) {
  pfir_upFilterState up;
  pfir_dnFilterState dn;
  EXPECT_EQ(pfir_initUpFilter(nullptr, pfir_getUpFilterConfig(3)), 1);
  EXPECT_EQ(pfir_initUpFilter(&up, pfir_getUpFilterConfig(4)), 1);
  EXPECT_EQ(pfir_initDnFilter(nullptr, pfir_getDnFilterConfig(3)), 1);
  EXPECT_EQ(pfir_initDnFilter(&dn, pfir_getDnFilterConfig(0)), 1);
}

TEST(InitFilter, TellsThatThereIsNoMemory) {
  pfir_upFilterState up;
  pfir_dnFilterState dn;
  outOfMemory = true;
  const int upStatus = pfir_initUpFilter(&up, pfir_getUpFilterConfig(3));
  const int dnStatus = pfir_initDnFilter(&dn, pfir_getDnFilterConfig(3));
  outOfMemory = false;
  EXPECT_EQ(upStatus, 1);
  EXPECT_EQ(dnStatus, 1);
  EXPECT_EQ(pfir_releaseUpFilter(&up), 1);
  EXPECT_EQ(pfir_releaseDnFilter(&dn), 1);
}

TEST(UpFilter, RefusesWithoutATrace) {
  test::UpFilter three(pfir_getUpFilterConfig(3));
  test::UpFilter two(pfir_getUpFilterConfig(2));
  const pfir_filterTable<104> longTable{{2, 52, {}}, {}};
  test::UpFilter tooLong(&longTable.header);
  pfir_upFilterState released{};
  const Samples in = ramp(32768);
  Samples out(480, 77);
  const struct {
    pfir_upFilterState* state;
    const std::int16_t* in;
    std::int16_t* out;
    int nIn;
    int status;
  } rows[] = {
      {&three.state, in.data(), out.data(), 47, 1},
      {&three.state, in.data(), out.data(), 0, 1},
      {&three.state, in.data(), out.data(), -160, 1},
      {&three.state, in.data(), out.data(), 21846, 1},
      {&two.state, in.data(), out.data(), 32768, 1},
      {&tooLong.state, in.data(), out.data(), 160, 2},
      {&tooLong.state, in.data(), out.data(), 51, 1},
      {nullptr, in.data(), out.data(), 160, 2},
      {&three.state, nullptr, out.data(), 160, 2},
      {&three.state, in.data(), nullptr, 160, 2},
      {&three.state, nullptr, out.data(), 47, 2},
      {&released, in.data(), out.data(), 160, 2},
  };
  Samples settled(480);
  ASSERT_EQ(pfir_upFilter(&three.state, in.data(), settled.data(), 160, nullptr), 0);
  const Samples history(three.state.history, three.state.history + 96);
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    std::uint16_t count = 99;
    EXPECT_EQ(pfir_upFilter(row.state, row.in, row.out, row.nIn, &count), row.status);
    EXPECT_EQ(pfir_upFilter(row.state, row.in, row.out, row.nIn, nullptr), row.status);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(out, Samples(480, 77));
    EXPECT_TRUE(std::equal(history.begin(), history.end(), three.state.history));
  }
}

TEST(DnFilter, RefusesWithoutATrace) {
  test::DnFilter filter(pfir_getDnFilterConfig(2));
  pfir_dnFilterState released{};
  const Samples in = ramp(32768);
  Samples settled(81);
  ASSERT_EQ(pfir_dnFilter(&filter.state, in.data(), settled.data(), 161, nullptr), 0);
  const Samples history(filter.state.history, filter.state.history + 192);
  Samples out(80, 77);
  const struct {
    pfir_dnFilterState* state;
    const std::int16_t* in;
    std::int16_t* out;
    int nIn;
    std::int16_t phase;
    int status;
  } rows[] = {
      {&filter.state, in.data(), out.data(), 95, 1, 1},
      {&filter.state, in.data(), out.data(), 32768, 1, 1},
      {nullptr, in.data(), out.data(), 160, 1, 1},
      {&filter.state, nullptr, out.data(), 160, 1, 1},
      {&filter.state, in.data(), nullptr, 160, 1, 1},
      {&released, in.data(), out.data(), 160, 1, 1},
      {&filter.state, in.data(), out.data(), 160, 3, 2},
      {&filter.state, in.data(), out.data(), 160, -1, 2},
      {&filter.state, in.data(), out.data(), 95, 3, 1},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    filter.state.phase = row.phase;
    std::uint16_t count = 99;
    EXPECT_EQ(pfir_dnFilter(row.state, row.in, row.out, row.nIn, &count), row.status);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(filter.state.phase, row.phase);
    EXPECT_EQ(out, Samples(80, 77));
    EXPECT_TRUE(std::equal(history.begin(), history.end(), filter.state.history));
  }
  filter.state.phase = 2;
  EXPECT_EQ(pfir_dnFilter(&filter.state, in.data(), out.data(), 160, nullptr), 0)
      << "a phase of `factor` is allowed";
}

TEST(ResetUpFilter, ForgetsTheSignalAndNothingElse) {
  test::UpFilter filter(pfir_getUpFilterConfig(3));
  const auto before = filter.state;
  const Samples loud(160, 30000);
  Samples out(480);
  ASSERT_EQ(pfir_upFilter(&filter.state, loud.data(), out.data(), 160, nullptr), 0);
  ASSERT_EQ(pfir_resetUpFilter(&filter.state), 0);
  EXPECT_TRUE(allZero(filter.state.history, 96));
  EXPECT_EQ(filter.state.history, before.history);
  EXPECT_EQ(filter.state.coef, before.coef);
  const Samples next = ramp(160);
  ASSERT_EQ(pfir_upFilter(&filter.state, next.data(), out.data(), 160, nullptr), 0);
  EXPECT_EQ(out, test::literalUp(pfir_getUpFilterConfig(3), next));

  pfir_upFilterState released{};
  EXPECT_EQ(pfir_resetUpFilter(&released), 1);
  EXPECT_EQ(pfir_resetUpFilter(nullptr), 1);
}

TEST(ReleaseFilter, ZeroesTheRecordOnce) {
  pfir_upFilterState up;
  ASSERT_EQ(pfir_initUpFilter(&up, pfir_getUpFilterConfig(3)), 0);
  EXPECT_EQ(pfir_releaseUpFilter(&up), 0);
  EXPECT_TRUE(up.factor == 0 && up.taps == 0 && up.coef == nullptr && up.history == nullptr);
  EXPECT_EQ(pfir_releaseUpFilter(&up), 1);
  EXPECT_EQ(pfir_releaseUpFilter(nullptr), 1);
  EXPECT_EQ(pfir_initUpFilter(&up, pfir_getUpFilterConfig(2)), 0) << "ready for another signal";
  EXPECT_EQ(pfir_releaseUpFilter(&up), 0);

  pfir_dnFilterState dn;
  ASSERT_EQ(pfir_initDnFilter(&dn, pfir_getDnFilterConfig(3)), 0);
  dn.phase = 1;
  EXPECT_EQ(pfir_releaseDnFilter(&dn), 0);
  EXPECT_TRUE(dn.factor == 0 && dn.taps == 0 && dn.phase == 0 && dn.coef == nullptr &&
              dn.history == nullptr);
  EXPECT_EQ(pfir_releaseDnFilter(&dn), 1);
  EXPECT_EQ(pfir_releaseDnFilter(nullptr), 1);
}

}  // namespace
