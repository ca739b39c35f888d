// SPDX-License-Identifier: Apache-2.0
// Logging and debug controls: the default sink, properties, findlog2 and the line-data dump.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>
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

TEST(Logging, FindLog2IsTheHighestSetBitAtBothWidths) {
  for (const auto& [x, log2] : {std::pair<std::int64_t, std::int32_t>{0, 0},
                                {1, 0},
                                {2, 1},
                                {1023, 9},
                                {1024, 10},
                                {0x7fffffff, 30}}) {
    EXPECT_EQ(findlog2(static_cast<std::int32_t>(x)), log2) << x;
    EXPECT_EQ(findlog2(x), log2) << x;
  }
  EXPECT_EQ(findlog2(std::int64_t{1} << 40), 40);
}

// Rows of ten prev/cur pairs; the closing row pads with -1 and comes even after full rows.
struct DumpCase {
  const char* name;
  std::int32_t n;
  bool closing;
  std::size_t rows;
  std::string last;  // start of the last row
};

class LineDump : public LibraryTest, public ::testing::WithParamInterface<DumpCase> {};

TEST_P(LineDump, RowsOfTenPairs) {
  std::int32_t prev[25];
  std::int32_t cur[25];
  for (std::int32_t i = 0; i < 25; ++i) {
    prev[i] = i;
    cur[i] = 100 + i;
  }
  LogCapture log;
  PrintLineDataFlk(prev, cur, GetParam().n, GetParam().closing);
  g_logLineData = 1;
  PrintLineDataFlk(prev, cur, GetParam().n, GetParam().closing);
  ASSERT_EQ(log.Lines().size(), GetParam().rows);  // nothing without the flag
  EXPECT_EQ(
      log.Lines()[0],
      "Line[    0]:     0,   100,     1,   101,     2,   102,     3,   103,     4,   104,     "
      "5,   105,     6,   106,     7,   107,     8,   108,     9,   109,\n");
  EXPECT_EQ(log.Lines().back().substr(0, GetParam().last.size()), GetParam().last);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, LineDump,
    ::testing::Values(
        DumpCase{
            "PartialRowClosed", 25, true, 3,
            "Line[   20]:    20,   120,    21,   121,    22,   122,    23,   123,    24,   124,  "
            "  -1,    -1,    -1,    -1,    -1,    -1,    -1,    -1,    -1,    -1,\n"},
        DumpCase{"FullRowsStillClosed", 20, true, 3, "Line[   20]:    -1,    -1"},
        DumpCase{"PartialRowNeverPrintedUnclosed", 25, false, 2, "Line[   10]:    10,   110"}),
    [](const ::testing::TestParamInfo<DumpCase>& info) { return info.param.name; });

}  // namespace
