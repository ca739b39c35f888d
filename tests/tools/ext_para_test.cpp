// SPDX-License-Identifier: Apache-2.0
// Tuning files: every field survives a write and a read; a file the detector cannot use is
// refused with the field named.
#include "host/ext_para.h"

#include <gtest/gtest.h>

#include <cstring>

#include "host/error.h"

namespace kestrel_host {
namespace {

TEST(ExtPara, RoundTripsEveryField) {
  FlkExtPara p = FlkDefaultExtPara();
  const std::int32_t freq[9] = {60, 75, 95, 100, 120, 125, 150, 165, 175};
  std::memcpy(p.flicker_freq, freq, sizeof freq);
  p.flicker_grad_threshold = 40;
  p.flicker_search_range = 24;
  p.min_past_frames = 2;
  p.max_past_frames = 10;
  p.ev50_l60[2] = 300;  // no steeper than ev50_l50's 381
  p.ev60_l50[0] = -2147483647 - 1;
  p.ev60_thresholds[1] = 12;
  p.freq_feature_index[0] = 8;
  p.zhdr_gle_first = 0;
  p.is_zhdr = 1;
  const FlkExtPara back = ParseExtPara(FormatExtPara(p), "tuning.json");
  EXPECT_EQ(std::memcmp(&back, &p, sizeof p), 0) << FormatExtPara(back);
}

TEST(ExtPara, MissingFieldsKeepTheCompiledInValues) {
  const FlkExtPara p = ParseExtPara(R"({"ev50_thresholds": [-30, 4]})", "t");
  FlkExtPara expected = FlkDefaultExtPara();
  expected.ev50_thresholds[1] = 4;
  EXPECT_EQ(std::memcmp(&p, &expected, sizeof p), 0);
}

struct Refusal {
  const char* name;
  const char* json;
  const char* message;
};

class ExtParaRefusal : public ::testing::TestWithParam<Refusal> {};

TEST_P(ExtParaRefusal, NamesTheField) {
  try {
    ParseExtPara(GetParam().json, "t.json");
    FAIL() << "accepted";
  } catch (const HostError& e) {
    EXPECT_STREQ(e.what(), GetParam().message);
  }
}

INSTANTIATE_TEST_SUITE_P(
    ExtPara, ExtParaRefusal,
    ::testing::Values(
        Refusal{"UnknownField", R"({"ev50_l55": [1, 2, 3, 4]})",
                "t.json: unknown field 'ev50_l55' (FlkExtPara has no such field)"},
        Refusal{"WrongCount", R"({"ev60_l60": [1, 2, 3]})",
                "t.json: ev60_l60: expected an array of 4 whole numbers"},
        Refusal{"ArrayForOne", R"({"min_past_frames": [3]})",
                "t.json: min_past_frames: expected one whole number"},
        Refusal{"FeatureIndex", R"({"freq_feature_index": [4, 9]})",
                "t.json: freq_feature_index[1]: 9 is out of range 0..8 (an index into the nine "
                "energies)"},
        Refusal{"ZeroFrames", R"({"max_past_frames": 0})",
                "t.json: max_past_frames: 0 is out of range 1..150 (a frame count of the score "
                "queue)"},
        Refusal{"NotWhole", R"({"ev50_thresholds": [-30, 8.5]})",
                "t.json: ev50_thresholds[1]: 8.5 is not a whole number"},
        Refusal{"Beyond32Bits", R"({"ev50_l50": [1, 2, 3, 2147483648]})",
                "t.json: ev50_l50[3]: 2147483648 is out of range -2147483648..2147483647"},
        Refusal{"Flag", R"({"is_zhdr": 2})", "t.json: is_zhdr: 2 is not true or false"},
        Refusal{"NotAnObject", R"([1, 2])",
                "t.json: a tuning is a JSON object of FlkExtPara fields"}),
    [](const ::testing::TestParamInfo<Refusal>& info) { return info.param.name; });

}  // namespace
}  // namespace kestrel_host
