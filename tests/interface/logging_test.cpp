// SPDX-License-Identifier: Apache-2.0
// Logging and debug controls: the default sink, properties, findlog2 and the line-data dump.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "interface/interface.h"
#include "support.h"

namespace {

using kestrel_test::LibraryTest;
using kestrel_test::LogCapture;
using Lines = std::vector<std::string>;

TEST(Logging, DefaultSinkWritesOneTaggedLinePerMessage) {
  ::testing::internal::CaptureStderr();
  PrintLogFlk("[%s] +", "DoCmdInit");
  PrintLogFlk("Freq_out = %d\n", 5);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "D [FLICKER Alg] [DoCmdInit] +\nD [FLICKER Alg] Freq_out = 5\n");
}

TEST(Logging, LongMessagesAreNotCut) {
  LogCapture log;
  const std::string long_text(3000, 'x');
  PrintLogFlk("%s", long_text.c_str());
  ASSERT_EQ(log.Lines().size(), 1u);
  EXPECT_EQ(log.Lines()[0], long_text);
}

TEST(Logging, PropertiesComeFromTheEnvironmentOffAndroid) {
  ::unsetenv("persist_kestrel_flicker_test");
  EXPECT_EQ(GetPropIntFlk("persist.kestrel.flicker.test", 42), 42);
  ::setenv("persist_kestrel_flicker_test", "", 1);
  EXPECT_EQ(GetPropIntFlk("persist.kestrel.flicker.test", 42), 42);
  ::setenv("persist_kestrel_flicker_test", "12abc", 1);
  EXPECT_EQ(GetPropIntFlk("persist.kestrel.flicker.test", 42), 12);
  ::setenv("persist_kestrel_flicker_test", "abc", 1);
  EXPECT_EQ(GetPropIntFlk("persist.kestrel.flicker.test", 42), 0);
  ::unsetenv("persist_kestrel_flicker_test");
}

struct Log2Case {
  std::int64_t x;
  std::int32_t log2;
};
class FindLog2 : public ::testing::TestWithParam<Log2Case> {};

TEST_P(FindLog2, IsTheHighestSetBit) {
  EXPECT_EQ(findlog2(static_cast<std::int32_t>(GetParam().x)), GetParam().log2);
  EXPECT_EQ(findlog2(GetParam().x), GetParam().log2);
}

INSTANTIATE_TEST_SUITE_P(Values, FindLog2,
                         ::testing::Values(Log2Case{0, 0}, Log2Case{1, 0}, Log2Case{2, 1},
                                           Log2Case{1023, 9}, Log2Case{1024, 10},
                                           Log2Case{0x7fffffff, 30}),
                         [](const auto& info) { return "Of" + std::to_string(info.param.x); });

TEST(Logging, SixtyFourBitLog2ReachesPastThirtyTwoBits) {
  EXPECT_EQ(findlog2(std::int64_t{1} << 40), 40);
}

TEST(Logging, PauseIsStoredAndReturned) {
  setFlkPause(7);
  EXPECT_EQ(getFlkPause(), 7);
  setFlkPause(0);
  setLMVcnt(5);  // accepted and ignored
}

class LineDump : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    g_logLineData = 1;
    for (std::int32_t i = 0; i < 25; ++i) {
      prev_[i] = i;
      cur_[i] = 100 + i;
    }
  }
  std::int32_t prev_[25];
  std::int32_t cur_[25];
};

TEST_F(LineDump, ClosingRowIsPaddedWithMinusOne) {
  LogCapture log;
  PrintLineDataFlk(prev_, cur_, 25, true);
  ASSERT_EQ(log.Lines().size(), 3u);
  EXPECT_EQ(
      log.Lines()[0],
      "Line[    0]:     0,   100,     1,   101,     2,   102,     3,   103,     4,   104,     "
      "5,   105,     6,   106,     7,   107,     8,   108,     9,   109,\n");
  EXPECT_EQ(log.Lines()[2],
            "Line[   20]:    20,   120,    21,   121,    22,   122,    23,   123,    24,   124,    "
            "-1,    -1,    -1,    -1,    -1,    -1,    -1,    -1,    -1,    -1,\n");
}

TEST_F(LineDump, FullRowsStillGetAClosingRow) {
  LogCapture log;
  PrintLineDataFlk(prev_, cur_, 20, true);
  ASSERT_EQ(log.Lines().size(), 3u);
  EXPECT_EQ(log.Lines()[2].substr(0, 25), "Line[   20]:    -1,    -1");
}

TEST_F(LineDump, WithoutClosingRowAPartialRowIsNeverPrinted) {
  LogCapture log;
  PrintLineDataFlk(prev_, cur_, 25, false);
  ASSERT_EQ(log.Lines().size(), 2u);
  EXPECT_EQ(log.Lines()[1].substr(0, 12), "Line[   10]:");
}

TEST_F(LineDump, NothingWithoutTheFlag) {
  g_logLineData = 0;
  LogCapture log;
  PrintLineDataFlk(prev_, cur_, 25, true);
  EXPECT_TRUE(log.Lines().empty());
}

}  // namespace
