// SPDX-License-Identifier: Apache-2.0
// Detection quality over a matrix of simulated scenes: how often, how fast and how wrongly the
// detector switches, per cell and in total; and the labelled frames a tuning fit consumes.
#ifndef KESTREL_TOOLS_EVALUATE_H
#define KESTREL_TOOLS_EVALUATE_H

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <kestrel/flicker.h>

#include "host/host.h"
#include "host/scene.h"

namespace kestrel_host {

// One scene and camera, run once per seed from the same starting state.
struct EvalCell {
  std::string name;       // unique, readable: "type0 60Hz light, 50Hz state, fps 30"
  std::string condition;  // the variation it belongs to ("baseline", "fps 30", ...)
  SensorSetup sensor;
  SceneSetup scene;  // its seed is replaced by each of `seeds`
  std::int32_t state_hz = 50;
  double exposure_s = 0.01;
  std::int32_t frames = 30;
  std::vector<std::uint32_t> seeds;
};

struct EvalMatrix {
  std::vector<EvalCell> cells;
};

// What the light is to the state a frame was judged in.
enum class Truth { kOtherMains, kOwnMains, kSteady };

// The light's relation to a state.
Truth TruthFor(double mains_hz, std::int32_t state_hz);

// Whether a switch can be expected at all: the other mains lights the scene, its bands move
// between frames over the run, and the exposure does not cancel them. `why` says why not.
bool Detectable(const EvalCell& cell, std::string* why);

// The matrix `evaluate` runs when given none: every family (and zHDR) under 50 Hz, 60 Hz and
// steady light from each state, across frame rates, exposures, depth, noise, texture, motion,
// brightness steps, readout length and zHDR ratio, three seeds per cell, 30 frames a run.
EvalMatrix DefaultMatrix();

// The matrix file format (docs/evaluation-matrix.md): HostError naming the cell and member.
EvalMatrix ParseMatrix(const std::string& text, const std::string& source);
EvalMatrix LoadMatrix(const std::string& path);
std::string FormatMatrix(const EvalMatrix& matrix);

// Figures of one cell, of one condition, or of the whole matrix.
struct EvalStats {
  std::string name;
  std::int32_t runs = 0;
  std::int32_t frames = 0;      // frames judged (each DETECT)
  std::int32_t other_runs = 0;  // runs lit by the other mains of their starting state
  std::int32_t detectable_runs = 0;
  std::int32_t detected = 0;  // detectable runs that switched at all, within 5 and 10 frames
  std::int32_t within5 = 0;
  std::int32_t within10 = 0;
  std::vector<std::int32_t> latencies;  // frame of the first switch, detectable runs
  std::int32_t calm_frames = 0;         // judged under steady light or the state's own mains
  std::int32_t false_switches = 0;      // switches decided on such frames
  std::map<std::string, std::int32_t> not_counted;  // frames the test did not count, by reason

  double DetectionRate() const;  // detected / detectable_runs (NaN when none)
  double Within5Rate() const;
  double Within10Rate() const;
  double LatencyMedian() const;  // frames after the first frame; NaN when nothing switched
  double LatencyP95() const;
  double FalsePer1000() const;  // false switches per 1000 calm frames
  std::int32_t NotCounted() const;
  void Add(const EvalStats& other);
};

struct EvalReport {
  std::vector<EvalStats> cells;       // in the matrix's order
  std::vector<EvalStats> conditions;  // per condition, in order of first appearance
  EvalStats total;
};

// One frame as a fit sees it: the state it was judged in, what the light was to that state,
// the nine energies and whether the sequential test counted the frame.
struct LabelledFrame {
  std::int32_t state_hz = 50;
  Truth truth = Truth::kSteady;
  std::array<std::int32_t, 9> freq_out{};
  bool valid = false;
  std::int32_t type = 0;  // sensor family of the run
  std::size_t cell = 0;   // index into the matrix
  std::uint32_t seed = 0;
  std::int32_t frame = 0;
};

// Called after each run with the runs done and the runs in all.
using EvalProgress = std::function<void(std::size_t done, std::size_t total)>;

// Runs every cell and seed through Simulate (with `tuning` when given). `frames`, when not null,
// receives every judged frame, labelled.
EvalReport Evaluate(const EvalMatrix& matrix, const FlkExtPara* tuning,
                    const EvalProgress& progress = {},
                    std::vector<LabelledFrame>* frames = nullptr);

// The figures one run adds to its cell.
EvalStats RunStats(const EvalCell& cell, const RunResult& run);

// A compact table (one row per condition, or per cell) and the total.
std::string FormatEvalTable(const EvalReport& report, bool per_cell);
// One CSV row per cell, then the total.
std::string FormatEvalCsv(const EvalReport& report);
std::string FormatEvalJson(const EvalReport& report);

}  // namespace kestrel_host

#endif  // KESTREL_TOOLS_EVALUATE_H
