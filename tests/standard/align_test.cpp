// SPDX-License-Identifier: Apache-2.0
// Frame alignment: exposure bounds, flat windows, block lengths, the coarse-range rejection and
// the strict spread tolerance.
#include <gtest/gtest.h>

#include <climits>
#include <tuple>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "standard/standard.h"
#include "support.h"

namespace {

using V = std::vector<std::int32_t>;
using Lines = std::vector<std::string>;

// Scene content of row x: segments of 23 rows at pseudo-random levels, so every shift but the
// true one mismatches; `frame` adds a small ripple that differs between frames.
std::int32_t Content(std::int32_t x, std::int32_t frame) {
  const std::int32_t segment = (x + 1000) / 23;
  const std::int32_t level = (segment * segment * 7 + segment * 13) % 11;
  return 1000000 + 150000 * level + ((x * x * 13 + x * 101 + frame * 7919) % 97) * 20;
}

class AlignTest : public kestrel_test::LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    testing::internal::CaptureStdout();
    flicker_init(2000, 1500, 4000, 96e6);  // 500-column tables
    testing::internal::GetCapturedStdout();
    g_logFlow = 1;
  }
  void TearDown() override {
    flicker_uninit();
    LibraryTest::TearDown();
  }

  // Returns the log lines of the call.
  Lines Align(V cur, V prev, std::int32_t windows, std::int32_t window_length) {
    ae_stable_ = align_flag_ = -1;
    freq_out_.assign(9, -1);
    log_.Clear();
    align_flicker(cur.data(), prev.data(), windows, window_length,
                  static_cast<std::int32_t>(cur.size()), freq_out_.data(), ae_stable_, align_flag_);
    return log_.Lines();
  }

  // Windows of 400 rows, window w showing the previous frame's content shifts[w] working samples
  // (2 rows each) further down.
  Lines AlignShifted(const V& shifts) {
    V cur;
    V prev;
    for (std::int32_t x = 0; x < 400 * static_cast<std::int32_t>(shifts.size()); ++x) {
      prev.push_back(Content(x, 0));
      cur.push_back(Content(x - 2 * shifts[x / 400], 1));
    }
    return Align(cur, prev, static_cast<std::int32_t>(shifts.size()), 400);
  }

  // aeStable and alignFlag.
  std::pair<std::int32_t, std::int32_t> Flags() const { return {ae_stable_, align_flag_}; }

  V freq_out_;
  std::int32_t ae_stable_ = -1;
  std::int32_t align_flag_ = -1;
  kestrel_test::LogCapture log_;
};

TEST_F(AlignTest, ExposureBoundsAreInclusive) {
  struct Case {
    std::int32_t cur, first_delta, prev;
    bool stable;
  };
  for (const Case c : {Case{1400000, 0, 1000000, true}, Case{1400000, 1, 1000000, false},
                       Case{700000, 0, 1000000, true}, Case{700000, -1, 1000000, false},
                       Case{0, 0, 1000000, false}, Case{5, 0, 0, false}}) {
    V cur(100, c.cur);
    cur[0] += c.first_delta;
    EXPECT_EQ(Align(cur, V(100, c.prev), 1, 100),
              Lines{c.stable ? "window 1 is flat\n" : "frame AE unstable\n"});
    EXPECT_EQ(Flags(), std::pair(c.stable ? 1 : 0, 1)) << c.cur << " " << c.first_delta;
    if (!c.stable) {
      EXPECT_EQ(freq_out_, V(9, 0));
    }
  }
}

// The sums split into 16-bit halves up to 2^15 samples (negative samples included) and run in
// 64 bits beyond; the bounds are the same.
TEST(ExposureStable, BoundsHoldForSplitAndLongSums) {
  struct Case {
    std::int32_t n, cur, cur_delta, prev;
    bool stable;
  };
  for (const Case c : {Case{2, 1400000, 0, 1000000, true}, Case{2, 1400000, 1, 1000000, false},
                       Case{40000, 1400, 0, 1000, true}, Case{40000, 1400, 1, 1000, false},
                       Case{40000, 700, -1, 1000, false}}) {
    V cur(c.n, c.cur);
    V prev(c.n, c.prev);
    // A pair of samples +-123456 (high halves 1 and -2) that cancel in the sum.
    cur[0] += 123456 + c.cur_delta;
    cur[1] -= 123456;
    EXPECT_EQ(flicker_exposure_stable(cur.data(), prev.data(), c.n), c.stable) << c.n << c.cur;
  }
}

// A uniform scene has no gradient peak: every window is flat and taken unaligned, the offsets'
// spread is 0 and the registered path runs on the unregistered ratio.
TEST_F(AlignTest, UniformSceneIsFlatEverywhereAndStillRegistered) {
  cvector_out_working_memory[75] = ovector_out_working_memory[75] = -77;
  EXPECT_EQ(Align(V(300, 1300000), V(300, 1000000), 3, 100),
            (Lines{"window 1 is flat\n", "window 2 is flat\n", "window 3 is flat\n"}));
  EXPECT_EQ(Flags(), std::pair(1, 1));
  // Three windows of 25 log-ratio samples, the same in all three vectors.
  const std::int32_t ratio = avector_out_working_memory[0];
  EXPECT_GT(ratio, 0);
  for (const std::int32_t* v :
       {avector_out_working_memory, cvector_out_working_memory, ovector_out_working_memory}) {
    EXPECT_EQ(V(v, v + 75), V(75, ratio));
  }
  // Nothing past the three windows.
  EXPECT_EQ((V{avector_out_working_memory[75], cvector_out_working_memory[75],
               ovector_out_working_memory[75]}),
            (V{0, -77, -77}));
  // An odd window of 101 rows: m = 51 working samples and ceil(51 / 2) = 26 log-ratio samples.
  // A last window of a single row still gives one: 25 + 1 as well.
  for (const std::int32_t windows : {1, 2}) {
    Align(V(101, 1300000), V(101, 1000000), windows, windows == 1 ? 101 : 100);
    EXPECT_EQ(avector_out_working_memory[25], ratio) << windows;
    EXPECT_EQ(avector_out_working_memory[26], 0) << windows;
  }
}

// The scene moved up by 36 working samples: the coarse search's extra negative candidate -36
// wins, lies beyond the range of 32 and sends the frame to the unregistered estimate.
TEST_F(AlignTest, CoarseMinus36ForcesTheFallback) {
  EXPECT_EQ(AlignShifted({-36}),
            (Lines{"window 1 is aligned with offset -36\n", "window 1 cannot be aligned reliably\n",
                   "frame can't be registered reliably\n"}));
  EXPECT_EQ(Flags(), std::pair(1, 1));
  // Exactly the range, 32, is not beyond it: the window is aligned and logs nothing.
  EXPECT_EQ(AlignShifted({32}), Lines{});
}

// Offsets 0 and 12 spread by exactly the tolerance of 12: not registered (strict test); 0 and
// 11 are, and an aligned window writes no line.
TEST_F(AlignTest, SpreadToleranceIsStrict) {
  EXPECT_EQ(AlignShifted({0, 12}), Lines{"frame can't be registered reliably\n"});
  EXPECT_EQ(Flags(), std::pair(1, 1));
  EXPECT_EQ(AlignShifted({0, 11}), Lines{});
  EXPECT_EQ(Flags(), std::pair(1, 1));
}

// Unchanged content matches perfectly (zero cost): taken for flat data, not for success.
TEST_F(AlignTest, PerfectMatchIsFlat) {
  V same;
  for (std::int32_t r = 0; r < 400; ++r) same.push_back(Content(r, 0));
  EXPECT_EQ(Align(same, same, 1, 400), Lines{"window 1 is flat\n"});
}

// A direct caller's statistics past 2^27 are smoothed in 64 bits (16 x 2^29 would wrap in 32):
// the smoothing of a constant is the constant.
TEST_F(AlignTest, LargeStatisticsSmoothIn64Bits) {
  Align(V(400, 1 << 29), V(400, 1 << 29), 1, 400);
  EXPECT_EQ(V(cvector_current_working_memory, cvector_current_working_memory + 200),
            V(200, 1 << 29));
}

// More windows than recorded, a window so long that its samples' sum passes 32 bits, a frame
// longer than every window at its longest.
TEST_F(AlignTest, RefusesGeometryPastItsRecords) {
  const std::tuple<std::int32_t, std::int32_t, std::size_t, const char*> cases[] = {
      {11, 100, 1100, "11 windows of 100 samples in 1100"},
      {3, INT32_MAX, 1100, "3 windows of 2147483647 samples in 1100"},
      {1, 100, 20001, "1 windows of 100 samples in 20001"}};
  for (const auto& [windows, length, total, what] : cases) {
    EXPECT_EQ(Align(V(total, 1000000), V(total, 1000000), windows, length),
              Lines{std::string("[align_flicker] refused: ") + what +
                    " (at most 10 of 2000, 2000 log-ratio samples, table row 500, 20000 samples a "
                    "frame)"});
    EXPECT_EQ(Flags(), std::pair(0, 1));
    EXPECT_EQ(freq_out_, V(9, 0));
  }
}

}  // namespace
