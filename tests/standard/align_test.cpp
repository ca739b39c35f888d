// SPDX-License-Identifier: Apache-2.0
// Frame alignment: exposure bounds, flat windows, block lengths, the coarse-range rejection, the
// strict spread tolerance and the zHDR working vectors.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "standard/standard.h"
#include "support.h"

namespace {

using kestrel_test::LogCapture;

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
    ::testing::internal::CaptureStdout();
    flicker_init(2000, 1500, 4000, 96e6);  // 500-column tables
    ::testing::internal::GetCapturedStdout();
    g_logFlow = 1;
  }
  void TearDown() override {
    flicker_uninit();
    std::fill(ZHDR_LE_SE_SELECT, ZHDR_LE_SE_SELECT + 10, 0);
    LibraryTest::TearDown();
  }

  void Align(std::vector<std::int32_t>& cur, std::vector<std::int32_t>& prev, std::int32_t windows,
             std::int32_t window_length) {
    ae_stable_ = align_flag_ = -1;
    std::fill(std::begin(freq_out_), std::end(freq_out_), -1);
    align_flicker(cur.data(), prev.data(), windows, window_length,
                  static_cast<std::int32_t>(cur.size()), freq_out_, ae_stable_, align_flag_);
  }

  // Windows of 400 rows, window w showing the previous frame's content shifted[w] working
  // samples (2 rows each) further down.
  void AlignShifted(const std::vector<std::int32_t>& shifts) {
    std::vector<std::int32_t> cur;
    std::vector<std::int32_t> prev;
    for (std::size_t w = 0; w < shifts.size(); ++w) {
      for (std::int32_t r = 0; r < 400; ++r) {
        const std::int32_t x = static_cast<std::int32_t>(w) * 400 + r;
        prev.push_back(Content(x, 0));
        cur.push_back(Content(x - 2 * shifts[w], 1));
      }
    }
    Align(cur, prev, static_cast<std::int32_t>(shifts.size()), 400);
  }

  std::int32_t freq_out_[9];
  std::int32_t ae_stable_ = -1;
  std::int32_t align_flag_ = -1;
  LogCapture log_;
};

struct ExposureCase {
  const char* name;
  std::int32_t cur_value;  // every current sample; previous samples are 1000000
  std::int32_t first_sample_delta;
  bool stable;
};

class ExposureTest : public AlignTest, public ::testing::WithParamInterface<ExposureCase> {};

TEST_P(ExposureTest, BoundsAreInclusive) {
  const ExposureCase& c = GetParam();
  std::vector<std::int32_t> prev(100, 1000000);
  std::vector<std::int32_t> cur(100, c.cur_value);
  cur[0] += c.first_sample_delta;
  Align(cur, prev, 1, 100);
  EXPECT_EQ(ae_stable_, c.stable ? 1 : 0);
  EXPECT_EQ(align_flag_, 1);
  EXPECT_EQ(log_.Contains("frame AE unstable\n"), !c.stable);
  if (!c.stable) {
    for (std::int32_t f : freq_out_) EXPECT_EQ(f, 0);
  }
}

INSTANTIATE_TEST_SUITE_P(Cases, ExposureTest,
                         ::testing::Values(ExposureCase{"upper_bound_stable", 1400000, 0, true},
                                           ExposureCase{"one_above_upper_bound", 1400000, 1, false},
                                           ExposureCase{"lower_bound_stable", 700000, 0, true},
                                           ExposureCase{"one_below_lower_bound", 700000, -1, false},
                                           ExposureCase{"current_zero", 0, 0, false}),
                         [](const ::testing::TestParamInfo<ExposureCase>& info) {
                           return info.param.name;
                         });

TEST_F(AlignTest, PreviousSumZeroIsUnstable) {
  std::vector<std::int32_t> prev(100, 0);
  std::vector<std::int32_t> cur(100, 5);
  Align(cur, prev, 1, 100);
  EXPECT_EQ(ae_stable_, 0);
}

// A uniform scene has no gradient peak: every window is flat and taken unaligned, the offsets'
// spread is 0 and the registered path runs on the unregistered ratio.
TEST_F(AlignTest, UniformSceneIsFlatEverywhereAndStillRegistered) {
  std::vector<std::int32_t> prev(300, 1000000);
  std::vector<std::int32_t> cur(300, 1300000);
  Align(cur, prev, 3, 100);
  EXPECT_EQ(log_.Lines(), (std::vector<std::string>{"window 1 is flat\n", "window 2 is flat\n",
                                                    "window 3 is flat\n"}));
  EXPECT_EQ(ae_stable_, 1);
  EXPECT_EQ(align_flag_, 1);
  // Three windows of 25 log-ratio samples, the same in all three vectors.
  const std::int32_t ratio = avector_out_working_memory[0];
  EXPECT_GT(ratio, 0);
  for (int j = 0; j < 75; ++j) {
    ASSERT_EQ(avector_out_working_memory[j], ratio) << j;
    ASSERT_EQ(cvector_out_working_memory[j], ratio) << j;
    ASSERT_EQ(ovector_out_working_memory[j], ratio) << j;
  }
  EXPECT_EQ(avector_out_working_memory[75], 0);
}

// An odd window of 101 rows: m = 51 working samples and ceil(51 / 2) = 26 log-ratio samples.
TEST_F(AlignTest, OddWindowLengthRoundsUp) {
  std::vector<std::int32_t> prev(101, 1000000);
  std::vector<std::int32_t> cur(101, 1300000);
  Align(cur, prev, 1, 101);
  EXPECT_NE(avector_out_working_memory[25], 0);
  EXPECT_EQ(avector_out_working_memory[26], 0);
}

// The scene moved up by 36 working samples: the coarse search's extra negative candidate -36
// wins, lies beyond the range of 32 and sends the frame to the unregistered estimate.
TEST_F(AlignTest, CoarseMinus36ForcesTheFallback) {
  AlignShifted({-36});
  EXPECT_EQ(log_.Lines(), (std::vector<std::string>{"window 1 is aligned with offset -36\n",
                                                    "window 1 cannot be aligned reliably\n",
                                                    "frame can't be registered reliably\n"}));
  EXPECT_EQ(align_flag_, 1);
  EXPECT_EQ(ae_stable_, 1);
}

TEST_F(AlignTest, AlignedWindowsWriteNoLine) {
  AlignShifted({5, 8});
  EXPECT_TRUE(log_.Lines().empty());
  EXPECT_EQ(align_flag_, 1);
}

// Unchanged content matches perfectly (zero cost): taken for flat data, not for success.
TEST_F(AlignTest, PerfectMatchIsFlat) {
  std::vector<std::int32_t> prev;
  for (std::int32_t r = 0; r < 400; ++r) prev.push_back(Content(r, 0));
  std::vector<std::int32_t> cur = prev;
  Align(cur, prev, 1, 400);
  EXPECT_EQ(log_.Lines(), (std::vector<std::string>{"window 1 is flat\n"}));
}

// Offsets 0 and 12 spread by exactly the tolerance of 12: not registered (strict test).
TEST_F(AlignTest, SpreadAtToleranceFallsBack) {
  AlignShifted({0, 12});
  EXPECT_EQ(log_.Lines(), (std::vector<std::string>{"frame can't be registered reliably\n"}));
  EXPECT_EQ(align_flag_, 1);
}

TEST_F(AlignTest, SpreadBelowToleranceIsRegistered) {
  AlignShifted({0, 11});
  EXPECT_TRUE(log_.Lines().empty());
}

// With zHDR statistics the working vector is every second row from the chosen exposure, without
// smoothing: odd rows here equal a uniform frame of 1300000, even rows one of 1100000.
TEST_F(AlignTest, ZhdrTakesEverySecondRowOfTheChosenExposure) {
  std::vector<std::int32_t> prev(100, 1000000);
  std::vector<std::int32_t> uniform(100, 1300000);
  Align(uniform, prev, 1, 100);
  const std::int32_t odd_ratio = avector_out_working_memory[0];
  std::fill(uniform.begin(), uniform.end(), 1100000);
  Align(uniform, prev, 1, 100);
  const std::int32_t even_ratio = avector_out_working_memory[0];
  ASSERT_NE(odd_ratio, even_ratio);

  std::vector<std::int32_t> cur(100);
  for (int r = 0; r < 100; ++r) cur[r] = r % 2 == 1 ? 1300000 : 1100000;
  is_zhdr = 1;
  ZHDR_LE_SE_SELECT[0] = 1;
  Align(cur, prev, 1, 100);
  EXPECT_EQ(avector_out_working_memory[0], odd_ratio);
  EXPECT_EQ(avector_out_working_memory[24], odd_ratio);
  ZHDR_LE_SE_SELECT[0] = 0;
  Align(cur, prev, 1, 100);
  EXPECT_EQ(avector_out_working_memory[24], even_ratio);
}

TEST_F(AlignTest, RefusesMoreWindowsThanItRecords) {
  std::vector<std::int32_t> prev(1100, 1000000);
  std::vector<std::int32_t> cur(1100, 1000000);
  Align(cur, prev, 11, 100);
  EXPECT_EQ(log_.Lines(),
            (std::vector<std::string>{"[align_flicker] refused: 11 windows of 100 samples (at most "
                                      "10 of 2000, 2000 log-ratio samples, table row 500)"}));
  EXPECT_EQ(ae_stable_, 0);
  for (std::int32_t f : freq_out_) EXPECT_EQ(f, 0);
}

}  // namespace
