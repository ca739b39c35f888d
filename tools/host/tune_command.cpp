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
    if (o.seeds) {
      const auto n = static_cast<std::size_t>(*o.seeds);
      for (std::uint32_t s = 1; c.seeds.size() < n; ++s) c.seeds.push_back(c.seeds.back() + s);
      c.seeds.resize(n);
    }
    for (std::uint32_t& s : c.seeds) s += static_cast<std::uint32_t>(o.seed_offset);
    cells.push_back(std::move(c));
  }
  if (cells.empty()) throw UsageError("--type: no cell of the matrix is of that family");
  matrix.cells = std::move(cells);

  bool drawn = false;
  const auto bar = [&](std::size_t done, std::size_t total) {
    if (!io.progress) return;
    const std::size_t width = 40, filled = done * width / total;
    io.err << "\r[" << std::string(filled, '#') << std::string(width - filled, '.') << "] " << done
           << "/" << total << " runs" << std::flush;
    drawn = true;
  };
  std::vector<LabelledFrame> frames;
  Evaluate(matrix, &o.base, bar, &frames);
  if (drawn) io.err << "\r\033[K" << std::flush;

  TuneOptions options;
  options.false_switch_budget = o.budget;
  options.threshold_margin = o.margin;
  TuneReport report;
  const FlkExtPara tuning = Tune(frames, o.base, options, &report);

  OutputSink sink(o.output, io.out);
  sink.Write(FormatExtPara(tuning));
  sink.Commit();
  // The report goes where the tuning does not.
  std::ostream& text = sink.is_standard_output() ? io.err : io.out;
  text << "kestrel-flicker tune: " << matrix.cells.size() << " cells, " << frames.size()
       << " labelled frames, budget " << o.budget << " false switches a frame\n";
  PrintTuneReport(report, text);
  return 0;
}

}  // namespace

void RegisterTune(Cli& cli) {
  auto o = std::make_shared<TuneCommandOptions>();
  CLI::App* app = cli.AddCommand("tune", "fit a tuning file to labelled frames of a matrix",
                                 [o](CliIo& io) { return RunTune(*o, io); });
  app->add_option("--matrix", o->matrix_file,
                  "scenario matrix, a JSON file (docs/evaluation-matrix.md) [built-in]")
      ->type_name("FILE");
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
  AddExtParaOption(app, o->base);
}

}  // namespace kestrel_host
