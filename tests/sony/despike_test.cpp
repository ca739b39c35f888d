// SPDX-License-Identifier: Apache-2.0
// SONY despike: constants pass through, the 41/40 spike threshold on the raw first difference,
// and the refused lengths.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "sony/sony.h"
#include "support.h"

namespace {

const std::int32_t* const h1 = flicker_despike_working_memory_h1_sony;
const std::int32_t* const h2 = flicker_despike_working_memory_h2_sony;

TEST(SonyDespike, ConstantComesBackUnchangedAlsoInPlace) {
  for (const std::int32_t value : {0, 1000, -54947, 65545}) {
    std::vector<std::int32_t> io(2000, value);
    flicker_despike_SONY(io.data(), io.data(), 2000);
    EXPECT_EQ(io, std::vector<std::int32_t>(2000, value)) << value;
  }
}

TEST(SonyDespike, FirstDifferenceOf41IsASpikeAnd40IsNot) {
  std::vector<std::int32_t> in(20, 0), out(20);
  std::fill(in.begin() + 10, in.end(), 40);
  flicker_despike_SONY(in.data(), out.data(), 20);
  EXPECT_EQ(h1[9], 40);
  EXPECT_EQ(h2[9], 400);  // l1[10] - l1[8] = 440 - 40
  EXPECT_EQ(out[0], 0);   // the fine detail is added back: the step keeps its ends
  EXPECT_EQ(out[19], 40);
  std::fill(in.begin() + 10, in.end(), 41);
  flicker_despike_SONY(in.data(), out.data(), 20);
  EXPECT_EQ((std::vector<std::int32_t>{h1[9], h2[9]}), std::vector<std::int32_t>(2, 0));
  EXPECT_EQ(h2[10], 410);  // the neighbour survives: l1[11] - l1[9] = 615 - 205
  // A single spike clears both its differences; the last position never counts through h1.
  std::fill(in.begin(), in.end(), 0);
  in[10] = 60;
  in[19] = 500;
  flicker_despike_SONY(in.data(), in.data(), 20);
  EXPECT_EQ((std::vector<std::int32_t>{h1[9], h1[10], h2[9], h2[10], h1[18]}),
            std::vector<std::int32_t>(5, 0));
  EXPECT_NE(h2[19], 0);  // h1[19] is 0 by the repeated edge: position 19 keeps its detail
}

TEST(SonyDespike, RefusesLengthsOutsideItsScratchAndMirrors) {
  std::vector<std::int32_t> in(2001, 5), out(2001, 9);
  kestrel_test::LogCapture log;
  flicker_despike_SONY(in.data(), out.data(), 2001);
  flicker_despike_SONY(in.data(), out.data(), 6);
  flicker_despike_SONY(in.data(), out.data(), 0);
  EXPECT_EQ(log.Lines(), (std::vector<std::string>{
                             "[flicker_despike_SONY] refused: 2001 samples outside 7..2000",
                             "[flicker_despike_SONY] refused: 6 samples outside 7..2000"}));
  EXPECT_EQ(out, std::vector<std::int32_t>(2001, 9));
}

}  // namespace
