// SPDX-License-Identifier: Apache-2.0
// The tuner: the library's score replayed exactly, the likelihood fit, its constraint and the
// threshold for a false-switch budget, and the search over comparison frequencies.
#include "host/tune.h"

#include <gtest/gtest.h>

#include <random>

namespace kestrel_host {
namespace {

TEST(TuneScore, ReplaysTheLibrarysScore) {
  const FlkExtPara d = FlkDefaultExtPara();
  bool saturated = true;
  const std::int32_t z =
      RelativeDeviationQ8({100, 100, 100, 100, 356, 100, 100, 100, 100}, 4, &saturated);
  EXPECT_EQ(z, 655);
  EXPECT_FALSE(saturated);
  EXPECT_EQ(ScoreQ8(z, d.ev50_l50, d.ev50_l60), 91);
  EXPECT_EQ(ScoreQ8(0, d.ev50_l50, d.ev50_l60), -1910);
  // A deviation at its clamp wraps negative in the 32-bit shift.
  EXPECT_EQ(
      RelativeDeviationQ8({100, 100, 100, 100, 0x7FFFFFFF, 100, 100, 100, 100}, 4, &saturated),
      -21474836);
  EXPECT_TRUE(saturated);
}

// Samples of the asymmetric Laplacian: exponential distances on each side, the side chosen with
// probability above / (below + above) for the lower one.
std::vector<double> Draw(double knot, double below, double above, int n, std::uint32_t seed) {
  std::mt19937 rng(seed);
  std::bernoulli_distribution lower(above / (below + above));
  std::exponential_distribution<double> el(below), eu(above);
  std::vector<double> z(n);
  for (double& v : z) v = lower(rng) ? knot - el(rng) : knot + eu(rng);
  return z;
}

TEST(TuneFit, RecoversTheParametersItWasDrawnFrom) {
  const LaplaceFit f = FitLaplace(Draw(300.0, 1.0 / 50, 1.0 / 400, 20000, 7));
  EXPECT_NEAR(f.knot, 300.0, 10.0);
  EXPECT_NEAR(f.below, 1.0 / 50, 0.1 / 50);
  EXPECT_NEAR(f.above, 1.0 / 400, 0.1 / 400);
  // In the library's units: slopes 1311 and 164 (Q8 of Q8 log-likelihood), offset 256 ln(450).
  const std::array<std::int32_t, 4> t = ToTable({300.0, 1.0 / 50, 1.0 / 400, 0.0});
  EXPECT_EQ(t, (std::array<std::int32_t, 4>{300, 1311, 164, 1564}));
}

TEST(TuneFit, AStrongerBandNeverScoresAgainstASwitch) {
  // Free fits would give the other hypothesis the steeper upper slope (1/20 against 1/100).
  const std::vector<double> own = Draw(0.0, 1.0 / 30, 1.0 / 100, 5000, 11);
  const std::vector<double> other = Draw(2000.0, 1.0 / 500, 1.0 / 20, 5000, 12);
  ASSERT_GT(FitLaplace(other).above, FitLaplace(own).above);
  LaplaceFit a, b;
  FitLaplacePair(own, other, &a, &b);
  EXPECT_LE(b.above, a.above);
  // The shared upper rate lies between the free ones, and the knots stay where the data are.
  EXPECT_GT(a.above, 1.0 / 100 * 0.9);
  EXPECT_LT(a.above, 1.0 / 20 * 1.1);
  EXPECT_NEAR(a.knot, 0.0, 10.0);
  EXPECT_NEAR(b.knot, 2000.0, 100.0);
  // Far above both knots the score only grows with the band.
  const std::array<std::int32_t, 4> ta = ToTable(a), tb = ToTable(b);
  EXPECT_LE(ScoreQ8(4000, ta.data(), tb.data()), ScoreQ8(8000, ta.data(), tb.data()));
}

TEST(TuneThreshold, MeetsTheFalseSwitchBudget) {
  // Own table |z|, other table flat: a frame with f[4] = 100 + 100 u scores u whole units.
  FlkExtPara p = FlkDefaultExtPara();
  const std::int32_t own[4] = {0, 256, 256, 0}, other[4] = {0, 0, 0, 0};
  std::copy(own, own + 4, p.ev50_l50);
  std::copy(other, other + 4, p.ev50_l60);
  p.min_past_frames = 1;
  p.max_past_frames = 1;
  std::vector<LabelledFrame> frames;
  for (std::int32_t u : {0, 0, 1, 2, 3, 0, 5, 0, 0, 0}) {
    LabelledFrame f;
    f.state_hz = 50;
    f.truth = Truth::kSteady;
    f.valid = true;
    f.freq_out = {100, 100, 100, 100, 100 + 100 * u, 100, 100, 100, 100};
    frames.push_back(f);
  }
  EXPECT_EQ(ChooseThreshold(frames, 0, p, 0.0), 5);  // above every score
  EXPECT_EQ(ChooseThreshold(frames, 0, p, 0.1), 3);  // one false switch in ten frames: the 5
  p.ev50_thresholds[1] = 2;
  EXPECT_EQ(ReplayTest(frames, 0, p).false_switches, 2);
}

TEST(TuneFrequencies, WiderComparisonFrequenciesRevealTheZhdrBand) {
  // zHDR under the other mains: with the compiled-in frequencies the 120 Hz band leaks into its
  // neighbours and hides in the mean it is measured against; the wider sets see it.
  const EvalMatrix m = ParseMatrix(R"({"defaults": {"frames": 12, "type": 0, "zhdr": true,
      "state": 50, "seeds": [1, 2, 3, 4]},
      "cells": [{"name": "other", "mains": 60}, {"name": "steady", "mains": 0}]})",
                                   "zhdr");
  TuneOptions options;
  options.holdout_every = 2;
  std::vector<FrequencyTrial> trials;
  TuneFrequencies(m, FlkDefaultExtPara(), options, &trials);
  ASSERT_EQ(trials.size(), 4u);
  std::vector<double> median_z;
  for (const FrequencyTrial& t : trials) {
    // The scored features stay the bands of the two mains.
    EXPECT_EQ(t.freq[3], 100);
    EXPECT_EQ(t.freq[4], 120);
    FlkExtPara p = FlkDefaultExtPara();
    std::copy(t.freq.begin(), t.freq.end(), p.flicker_freq);
    std::vector<LabelledFrame> frames;
    Evaluate(m, &p, {}, &frames);
    std::vector<std::int32_t> z;
    for (const LabelledFrame& f : frames)
      if (f.truth == Truth::kOtherMains && f.valid) z.push_back(RelativeDeviationQ8(f.freq_out, 4));
    std::nth_element(z.begin(), z.begin() + z.size() / 2, z.end());
    median_z.push_back(z[z.size() / 2]);
  }
  for (std::size_t i = 1; i < median_z.size(); ++i) EXPECT_GT(median_z[i], 2 * median_z[0]) << i;
}

}  // namespace
}  // namespace kestrel_host
