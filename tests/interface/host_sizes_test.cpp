// SPDX-License-Identifier: Apache-2.0
// Sizes and settings the host hands over unchecked, at the edges where a 32-bit product or
// difference once overflowed (undefined behaviour the sanitizer build stops on). Each case keeps
// the answer the library always gave. Found by the fuzz targets in fuzz/.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <functional>
#include <memory>
#include <ostream>

#include "fixed_point.h"
#include "standard/standard.h"
#include "support.h"
#include "twobyfive/twobyfive.h"

namespace {

using kestrel_test::LibraryTest;
using kestrel_test::LogCapture;

struct HostSizeCase {
  const char* name;
  std::function<std::int32_t()> run;
  std::int32_t expected;
};

void PrintTo(const HostSizeCase& c, std::ostream* os) {
  *os << c.name;
}

// INIT type 1, SET_STATE 50 Hz, then a type-1 DETECT with no bands and a huge window height on
// empty grids: nothing to select, the exposure check rejects the frame, result 2.
std::int32_t SonyFrameWithoutBands() {
  FlkInitPara init{1, 2000, 1000, 64, 24e6, 0, 0};
  SendCmdFlk(CMD_INIT, &init, nullptr);
  std::int32_t state = EV_TABLE_50HZ;
  SendCmdFlk(CMD_SET_STATE, &state, nullptr);
  const std::unique_ptr<std::int32_t[]> prev(new std::int32_t[0]);
  const std::unique_ptr<std::int32_t[]> cur(new std::int32_t[0]);
  FlkDetectPara detect{};
  detect.type = FLK_SENSOR_SONY;
  detect.prev_stats = prev.get();
  detect.cur_stats = cur.get();
  detect.n_win_h = 0;
  detect.n_win_w = 4;
  detect.win_wd = 64;
  detect.win_ht = 1195852288;
  std::int32_t result = -1;
  SendCmdFlk(CMD_DETECT, &detect, &result);
  SendCmdFlk(CMD_UNINIT, nullptr, nullptr);
  return result;
}

std::int32_t cur_samples[64];
std::int32_t prev_samples[64];
std::int64_t cur_mask[64];
std::int64_t prev_mask[64];

// Returns shift * 10 + unreliable.
std::int32_t CoarseSearch(std::int32_t len, std::int32_t range, std::int32_t full_len,
                          std::int32_t dec_shift = 2) {
  std::int32_t unreliable = -1;
  const std::int32_t shift =
      exhaust_search(cur_samples, prev_samples, cur_mask, prev_mask, len, range,
                     dec_shift == 2 ? 1 : 0, dec_shift, full_len, unreliable);
  return shift * 10 + unreliable;
}

// Returns the best index, preset to 7 by the caller.
std::int32_t FineSearch(std::int32_t half_span, std::int32_t full_len, std::int32_t coarse) {
  FlkInitPara init{0, 2000, 1000, 64, 24e6, 0, 0};  // the log ratios read the compand table
  SendCmdFlk(CMD_INIT, &init, nullptr);
  std::int32_t best = 7;
  exhaust_search_fine(cur_samples, prev_samples, cur_mask, prev_mask, 64, 0, 1, 1, half_span,
                      full_len, coarse, best, cvector_out_test_ptr_array,
                      cvector_out_test_length_working_memory);
  SendCmdFlk(CMD_UNINIT, nullptr, nullptr);
  return best;
}

class HostSizes : public LibraryTest, public ::testing::WithParamInterface<HostSizeCase> {};

TEST_P(HostSizes, KeepTheAnswer) {
  LogCapture log;
  EXPECT_EQ(GetParam().run(), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Edges, HostSizes,
    ::testing::Values(
        HostSizeCase{"SonyDetectWithoutBandsAndHugeWindows", SonyFrameWithoutBands, 2},
        // A negative range leaves no shift to try: 0, unreliable.
        HostSizeCase{"CoarseSearchLowestRangeUndecimated",
                     [] { return CoarseSearch(64, INT_MIN, 128, 0); }, 1},
        HostSizeCase{"CoarseSearchLowestFullLength", [] { return CoarseSearch(64, 32, INT_MIN); },
                     1},
        // An empty window has nothing to mirror: no pair, shift 0, unreliable.
        HostSizeCase{"CoarseSearchEmptyWindow", [] { return CoarseSearch(0, 32, 0); }, 1},
        HostSizeCase{"FineSearchHugeHalfSpan", [] { return FineSearch(INT_MAX, 128, 0); }, 7},
        HostSizeCase{"FineSearchLowestFullLength", [] { return FineSearch(1, INT_MIN, 0); }, 7},
        // No samples and no arrays: the candidates shifted by 1..3 form no pointer into them.
        HostSizeCase{"FineSearchEmptyWindowWithoutArrays",
                     [] {
                       std::int32_t best = 7;
                       exhaust_search_fine(nullptr, nullptr, nullptr, nullptr, 0, 0, 1, 1, 1, 128,
                                           2, best, cvector_out_test_ptr_array,
                                           cvector_out_test_length_working_memory);
                       return best;
                     },
                     7},
        // The lowest threshold clips every first difference to -2^31 (its negation wraps); the
        // eight odd synthesis taps of a constant -2^31 sum to 0 in 32 bits: the middle stays 77.
        HostSizeCase{"TwoByFiveDespikeLowestThreshold",
                     [] {
                       std::int32_t in[40], out[40];
                       std::fill(in, in + 40, 77);
                       flickerDespikeAdaptive_2x5(in, out, 40, 1, INT_MIN);
                       return out[20];
                     },
                     77},
        // The rounding term of a 64-bit energy within 2^(k-1) of the top wraps, as the energies
        // themselves do: (2^63 - 6 + 8) wraps to -2^63 + 2, and >> 4 is -2^59.
        HostSizeCase{"RoundingShiftNearTheTopWraps",
                     [] { return fx::rshift_round64(INT64_MAX - 5, 4) == -(INT64_C(1) << 59); },
                     1}),
    [](const ::testing::TestParamInfo<HostSizeCase>& info) { return info.param.name; });

}  // namespace
