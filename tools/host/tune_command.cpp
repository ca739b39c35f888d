// SPDX-License-Identifier: Apache-2.0
// The tune command: labelled frames from the evaluation matrix, a tuning fitted to them, its
// quality on held-out runs, and the tuning file.
#include <memory>
#include <sstream>

#include "host/cli.h"
#include "host/evaluate.h"
#include "host/ext_para.h"
#include "host/output.h"
#include "host/tune.h"

namespace kestrel_host {

namespace {

struct TuneCommandOptions {
  std::string matrix_file;
  std::string output = "-";
  std::optional<std::int32_t> seeds;
  std::int32_t seed_offset = 0;
  std::optional<std::int32_t> type;
  double budget = TuneOptions{}.false_switch_budget;
  double margin = TuneOptions{}.threshold_margin;
  std::int32_t headroom = TuneOptions{}.threshold_headroom;
  bool search_frequencies = false;
  bool zhdr_only = false;
  FlkExtPara base = FlkDefaultExtPara();
};

int RunTune(const TuneCommandOptions& o, CliIo& io) {
  EvalMatrix matrix;
  try {
    matrix = o.matrix_file.empty() ? DefaultMatrix() : LoadMatrix(o.matrix_file);
  } catch (const HostError& e) {
    throw UsageError(std::string("--matrix: ") + e.what());
  }
  // A tuning is fitted per family: keep that family's cells, with seeds the evaluation's runs
  // do not use when --seed-offset moves them.
  std::vector<EvalCell> cells;
  for (EvalCell& c : matrix.cells) {
    if (o.type && c.sensor.type != *o.type) continue;
    if (o.zhdr_only && !c.sensor.zhdr) continue;
    if (o.seeds) {
      const auto n = static_cast<std::size_t>(*o.seeds);
      for (std::uint32_t s = 1; c.seeds.size() < n; ++s) c.seeds.push_back(c.seeds.back() + s);
      c.seeds.resize(n);
    }
    for (std::uint32_t& s : c.seeds) s += static_cast<std::uint32_t>(o.seed_offset);
    cells.push_back(std::move(c));
  }
  if (cells.empty()) throw UsageError("--type, --zhdr: no cell of the matrix is of that family");
  // A zHDR fit is a tuning for zHDR statistics.
  FlkExtPara base = o.base;
  if (o.zhdr_only) base.is_zhdr = 1;
  matrix.cells = std::move(cells);

  bool drawn = false;
  const auto bar = [&](std::size_t done, std::size_t total) {
    if (!io.progress) return;
    const std::size_t width = 40, filled = done * width / total;
    io.err << "\r[" << std::string(filled, '#') << std::string(width - filled, '.') << "] " << done
           << "/" << total << " runs" << std::flush;
    drawn = true;
  };
  TuneOptions options;
  options.false_switch_budget = o.budget;
  options.threshold_margin = o.margin;
  options.threshold_headroom = o.headroom;
  std::vector<FrequencyTrial> trials;
  std::size_t chosen = 0;
  if (o.search_frequencies) {
    chosen = TuneFrequencies(matrix, base, options, &trials, bar);
  } else {
    std::vector<LabelledFrame> frames;
    Evaluate(matrix, &base, bar, &frames);
    FrequencyTrial& trial = trials.emplace_back();
    trial.frames = static_cast<std::int64_t>(frames.size());
    trial.tuning = Tune(frames, base, options, &trial.report);
  }
  if (drawn) io.err << "\r\033[K" << std::flush;
  const FrequencyTrial& best = trials[chosen];
  OutputSink sink(o.output, io.out);
  sink.Write(FormatExtPara(best.tuning));
  sink.Commit();
  // The report goes where the tuning does not.
  std::ostream& text = sink.is_standard_output() ? io.err : io.out;
  text << "kestrel-flicker tune: " << matrix.cells.size() << " cells, " << best.frames
       << " labelled frames, budget " << o.budget << " false switches a frame\n";
  if (o.search_frequencies) {
    for (std::size_t i = 0; i < trials.size(); ++i) {
      const TuneReport& r = trials[i].report;
      text << (i == chosen ? "* " : "  ") << "frequencies";
      for (std::int32_t f : trials[i].freq) text << " " << f;
      text << ": held out " << r.held_out[0].within10 + r.held_out[1].within10 << "/"
           << r.held_out[0].positive_runs + r.held_out[1].positive_runs
           << " runs within 10 frames, "
           << r.held_out[0].false_switches + r.held_out[1].false_switches << " false switches\n";
    }
  }
  // The compiled-in tuning's figures come from the frames of its own frequencies.
  TuneReport report = best.report;
  for (std::int32_t state = 0; state < 2; ++state)
    report.held_out_defaults[state] = trials[0].report.held_out_defaults[state];
  PrintTuneReport(report, text);
  return 0;
}

}  // namespace

void RegisterTune(Cli& cli) {
  auto o = std::make_shared<TuneCommandOptions>();
  CLI::App* app = cli.AddCommand("tune", "fit a tuning file to labelled frames of a matrix",
                                 [o](CliIo& io) { return RunTune(*o, io); });
  AddMatrixOption(app, o->matrix_file);
  app->add_option("-o,--output", o->output, "the fitted tuning, JSON (- standard output) [-]")
      ->type_name("FILE");
  AddInt(app, "--type", o->type, 0, 2, "fit the cells of this sensor family only");
  AddInt(app, "--seeds", o->seeds, 1, 1000, "seeds per cell instead of the matrix's");
  AddInt(app, "--seed-offset", o->seed_offset, 0, 1000000000,
         "added to every seed, so the fit uses runs the evaluation does not");
  AddNumber(app, "--budget", o->budget, 0.0, 1.0,
            "false switches allowed per training frame under steady light or the own mains");
  AddNumber(app, "--margin", o->margin, 0.0, 1.0,
            "threshold from the lowest within budget (0) toward the highest as fast (1)");
  AddInt(app, "--headroom", o->headroom, 0, 1000,
         "score units added to each threshold, a margin for scenes unlike the training runs");
  app->add_flag("--zhdr", o->zhdr_only, "fit the zHDR cells only, a tuning for zHDR statistics");
  app->add_flag("--search-frequencies", o->search_frequencies,
                "also try wider sets of comparison frequencies; keep the one whose held-out runs "
                "switch soonest without more false switches than the compiled-in tuning");
  AddExtParaOption(app, o->base);
}

}  // namespace kestrel_host
