// SPDX-License-Identifier: Apache-2.0
// Fitting a tuning record from labelled frames: the two likelihood tables of each flicker state by
// maximum likelihood, then each state's threshold for a false-switch budget, checked on frames the
// fit never saw.
#ifndef KESTREL_TOOLS_TUNE_H
#define KESTREL_TOOLS_TUNE_H

#include <kestrel/flicker.h>

#include <array>
#include <cstdint>
#include <ostream>
#include <vector>

#include "host/evaluate.h"
#include "host/scene.h"

namespace kestrel_host {

// The scored feature's relative deviation z (Q8) exactly as the library's frame score forms it:
// k = the state's feature index, m = max(mean of the other eight clamped features, 1), d = f[k] - m
// clamped to +-0x800000, z = (d << 8 in 32 bits) / m. `saturated` tells that d hit its clamp, where
// the 32-bit shift turns a huge band into a large negative z.
std::int32_t RelativeDeviationQ8(const std::array<std::int32_t, 9>& f, std::int32_t k,
                                 bool* saturated = nullptr);

// The frame score (Q8, positive for a switch) of z with own table A and other table B, with the
// library's 32-bit wrap-around.
std::int32_t ScoreQ8(std::int32_t z, const std::int32_t* own, const std::int32_t* other);

// An asymmetric Laplacian density of z (Q8 units): rate `below` under the knot, `above` over it,
// density below*above/(below+above) * exp(-rate * |z - knot|).
struct LaplaceFit {
  double knot = 0.0;
  double below = 1.0;
  double above = 1.0;
  double log_likelihood = 0.0;  // of the samples it was fitted to
};

// Maximum likelihood fit of one table's density.
LaplaceFit FitLaplace(std::vector<double> z);

// Both tables of one state: `own` fitted to frames of the state's own light (own mains and
// steady), `other` to frames lit by the other mains, jointly maximising the likelihood under the
// constraint other.above <= own.above, so that a stronger band never scores against a switch.
void FitLaplacePair(const std::vector<double>& own_z, const std::vector<double>& other_z,
                    LaplaceFit* own, LaplaceFit* other);

// The library's table {knot, slope below, slope at/above (Q8), offset}: log-likelihoods in Q8
// natural-log units, l(z) = -offset - |(z - knot) * slope >> 8|.
std::array<std::int32_t, 4> ToTable(const LaplaceFit& fit);

// The sequential test of one state replayed over labelled runs (consecutive frames of one cell,
// seed and state), as the library and a host that confirms every switch with SET_STATE and
// RESET_QUEUE run it.
struct TestOutcome {
  std::int64_t negative_frames = 0;  // counted frames under own mains or steady light
  std::int64_t false_switches = 0;
  std::int32_t positive_runs = 0;
  std::int32_t detected = 0;            // switched at all
  std::int32_t within5 = 0;             // switched within 5 frames after the first frame
  std::int32_t within10 = 0;            // ... within 10
  std::vector<std::int32_t> latencies;  // frames after the first frame, per detected run

  void Detected(std::int32_t latency) {
    ++detected;
    within5 += latency <= 5;
    within10 += latency <= 10;
    latencies.push_back(latency);
  }
};
TestOutcome ReplayTest(const std::vector<LabelledFrame>& frames, std::int32_t state,
                       const FlkExtPara& para);

// The lowest threshold of `state` whose false switches on `frames` stay within `budget` per
// counted negative frame (0 when there is none to count).
std::int32_t ChooseThreshold(const std::vector<LabelledFrame>& frames, std::int32_t state,
                             FlkExtPara para, double budget);

struct TuneOptions {
  // False switches per counted frame under steady light or the state's own mains: at most 1 in
  // 2,000 on the training frames (fewer than the compiled-in tuning makes on the same scenes).
  double false_switch_budget = 5e-4;
  std::int32_t holdout_every = 5;   // every 5th run is held out of the fit
  bool search_frame_counts = true;  // also choose min_past_frames and max_past_frames
  // Where each threshold sits between the lowest within the budget (0) and the highest that
  // detects as many training runs within 5 and within 10 frames (1).
  double threshold_margin = 0.0;
  // Score units added to each threshold after that: the lowest threshold within the budget sits
  // right at the training runs' worst calm frames, and unseen scenes have worse ones.
  std::int32_t threshold_headroom = 0;
};

struct TuneReport {
  std::int64_t fitted_frames = 0, saturated_frames = 0, held_out_frames = 0;
  TestOutcome train[2], held_out[2];  // per state, with the fitted tuning
  TestOutcome held_out_defaults[2];   // per state, with the compiled-in tuning
};

// Fits a tuning record to `frames` (all of one family); `base` supplies every field the fit does
// not choose (frequencies, alignment settings, zHDR switches).
FlkExtPara Tune(const std::vector<LabelledFrame>& frames, const FlkExtPara& base,
                const TuneOptions& options, TuneReport* report);

// The report as a few readable lines.
void PrintTuneReport(const TuneReport& report, std::ostream& out);

// The frequency sets a tuning search tries: the base's own first, then sets that keep 100 Hz and
// 120 Hz at indices 3 and 4 (the scored features) and move the seven comparison frequencies
// further from them. A band that leaks into its neighbouring candidates (zHDR's every-other-row
// sampling does so strongly: 130 Hz carries 70 % of a 120 Hz band) raises the mean it is measured
// against, and its z stays small however strong the band.
std::vector<std::array<std::int32_t, 9>> FrequencySets(const FlkExtPara& base);

struct FrequencyTrial {
  std::array<std::int32_t, 9> freq{};
  FlkExtPara tuning{};
  TuneReport report;
  std::int64_t frames = 0;
};

// Labels the matrix's runs with each frequency set in turn, fits a tuning to each and returns the
// index of the trial whose held-out runs switch within 10 frames most often (as a share), among
// those whose held-out false switches are no more than the compiled-in tuning's (the first trial's
// defaults, so the base should carry the compiled-in frequencies); the first trial on a tie.
std::size_t TuneFrequencies(const EvalMatrix& matrix, const FlkExtPara& base,
                            const TuneOptions& options, std::vector<FrequencyTrial>* trials,
                            const EvalProgress& progress = {});

// Labelled frames from the simulator. A training run: one scene, one state under test, a fixed
// exposure (the host's: it keeps that state's exposure while no switch is confirmed).
struct TrainingRun {
  SensorSetup sensor;
  SceneSetup scene;
  std::int32_t state = 0;
  double exposure_s = 0.0;
  std::int32_t frames = 30;
};

// Varied runs of one family: the three lights, both states, exposures of one and several periods
// of the state's own flicker and short ones, depth, noise, texture, motion, brightness steps.
// Seeds start at `seed` and do not repeat within the set.
std::vector<TrainingRun> TrainingRuns(std::int32_t family, bool zhdr, std::int32_t runs,
                                      std::uint32_t seed);

// Renders each run and passes it through the library with `para` (its thresholds lifted so that
// the state under test never changes), keeping the detector's energies; `cell` is the run's index.
std::vector<LabelledFrame> LabelFrames(const std::vector<TrainingRun>& runs,
                                       const FlkExtPara& para);

// The runs of `state` through the library itself with `para`, the host confirming each switch: the
// figures the tuning really gives, scores the tuner cannot replay included (the 2x5 quiet cap).
TestOutcome RunLibrary(const std::vector<TrainingRun>& runs, std::int32_t state,
                       const FlkExtPara& para);

}  // namespace kestrel_host

#endif  // KESTREL_TOOLS_TUNE_H
