// SPDX-License-Identifier: Apache-2.0
// The camera server must survive any geometry: random DETECTs of every type on grids sized exactly
// as the record says (so the sanitizers see any read past them) answer with a result code, and a
// refused frame leaves the score queue as it was.
#include <gtest/gtest.h>

#include <cstdint>
#include <ostream>
#include <random>
#include <vector>

#include "support.h"

namespace {

using kestrel_test::LibraryTest;
using kestrel_test::LogCapture;

struct Family {
  const char* name;
  FlkInitPara init;
  std::int64_t max_value;  // statistics range of the family
};

void PrintTo(const Family& family, std::ostream* os) {
  *os << family.name;
}

class RandomGeometry : public LibraryTest, public ::testing::WithParamInterface<Family> {
 protected:
  void TearDown() override {
    SendCmdFlk(CMD_UNINIT, nullptr, nullptr);
    LibraryTest::TearDown();
  }
};

TEST_P(RandomGeometry, EveryFrameGetsAResultCode) {
  const Family& family = GetParam();
  LogCapture log;  // keeps the run quiet
  FlkInitPara init = family.init;
  SendCmdFlk(CMD_INIT, &init, nullptr);
  EvTable state = EV_TABLE_50HZ;
  SendCmdFlk(CMD_SET_STATE, &state, nullptr);

  std::mt19937 rng(20261121);
  auto pick = [&](std::int32_t lo, std::int32_t hi) {
    return std::uniform_int_distribution<std::int32_t>(lo, hi)(rng);
  };
  std::uniform_int_distribution<std::int64_t> value(-16, family.max_value);
  int accepted = 0;
  for (int trial = 0; trial < 150; ++trial) {
    FlkDetectPara detect{};
    detect.type = family.init.type;
    // Mostly plausible geometry, with every third frame anywhere in and around the limits.
    const bool wild = trial % 3 == 0;
    detect.n_win_h = wild ? pick(-1, 12) : pick(1, 6);
    detect.n_win_w = wild ? pick(-1, 12) : pick(1, 8);
    detect.win_wd = wild ? pick(-2, 5000) : family.init.window_width;
    detect.win_ht = wild ? pick(-3, 2200) : pick(4, detect.type == FLK_SENSOR_2X5 ? 1200 : 400);
    // Grid values as the record describes them; the 2x5 family reads win_ht as the frame's rows.
    std::int64_t rows = detect.type == FLK_SENSOR_2X5
                            ? detect.win_ht
                            : std::int64_t{detect.n_win_h} * detect.win_ht;
    std::int64_t count = rows > 0 && detect.n_win_w > 0 ? rows * detect.n_win_w : 0;
    std::vector<std::int64_t> prev64(static_cast<std::size_t>(count) + (count == 0 ? 1 : 0));
    std::vector<std::int64_t> cur64(prev64.size());
    std::vector<std::int32_t> prev32(prev64.size());
    std::vector<std::int32_t> cur32(prev64.size());
    for (std::size_t i = 0; i < prev64.size(); ++i) {
      prev64[i] = value(rng);
      cur64[i] = prev64[i] + pick(-8, 8);
      prev32[i] = static_cast<std::int32_t>(prev64[i]);
      cur32[i] = static_cast<std::int32_t>(cur64[i]);
    }
    const bool wide = detect.type == FLK_SENSOR_STANDARD;
    detect.prev_stats = wide ? static_cast<void*>(prev64.data()) : prev32.data();
    detect.cur_stats = wide ? static_cast<void*>(cur64.data()) : cur32.data();

    const std::int32_t queued = g_queueCount;
    log.Clear();
    std::int32_t result = -1;
    SendCmdFlk(CMD_DETECT, &detect, &result);
    ASSERT_TRUE(result == 2 || result == 3) << "trial " << trial << ": result " << result;
    bool refused = false;
    for (const std::string& line : log.Lines())
      refused |= line.find("refused:") != std::string::npos;
    if (refused) {
      EXPECT_EQ(g_queueCount, queued) << "trial " << trial;
    } else {
      ++accepted;
    }
  }
  // Enough frames get through to exercise the pipelines, not only the refusals.
  EXPECT_GE(accepted, 20);
}

INSTANTIATE_TEST_SUITE_P(
    Families, RandomGeometry,
    ::testing::Values(Family{"Standard", {0, 2000, 6000, 64, 96e6, 0, 0}, 16711425},
                      Family{"Sony", {1, 2200, 2000, 300, 74.25e6, 0, 0}, 1023},
                      Family{"TwoByFive", {2, 1389, 2160, 100, 100e6, 4, 0}, 1637999}),
    [](const ::testing::TestParamInfo<Family>& info) { return info.param.name; });

}  // namespace
