// SPDX-License-Identifier: Apache-2.0
// The evaluate command: a scenario matrix through the closed-loop simulation, reported per
// condition (or cell) and in total.
#include <memory>

#include "host/cli.h"
#include "host/evaluate.h"
#include "host/ext_para.h"
#include "host/output.h"

namespace kestrel_host {

namespace {

struct EvaluateOptions {
  std::string matrix_file;
  std::string write_matrix;
  std::string csv_file;
  bool json = false;
  bool cells = false;
  std::optional<std::int32_t> seeds;
  FlkExtPara tuning = FlkDefaultExtPara();
  bool tuned = false;
};

int RunEvaluate(const EvaluateOptions& o, CliIo& io) {
  if (o.csv_file == "-" && o.json)
    throw UsageError("only one of --csv - and --json can use standard output");
  EvalMatrix matrix;
  try {
    matrix = o.matrix_file.empty() ? DefaultMatrix() : LoadMatrix(o.matrix_file);
  } catch (const HostError& e) {
    throw UsageError(std::string("--matrix: ") + e.what());
  }
  if (o.seeds) {
    // The first N seeds of each cell, continued one by one where a cell has fewer.
    for (EvalCell& c : matrix.cells) {
      const auto n = static_cast<std::size_t>(*o.seeds);
      while (c.seeds.size() < n) c.seeds.push_back(c.seeds.back() + 1);
      c.seeds.resize(n);
    }
  }
  if (!o.write_matrix.empty()) {
    OutputSink sink(o.write_matrix, io.out, WantsGzip(o.write_matrix));
    sink.Write(FormatMatrix(matrix));
    sink.Commit();
    return 0;
  }
  std::unique_ptr<OutputSink> csv;
  if (!o.csv_file.empty())
    csv = std::make_unique<OutputSink>(o.csv_file, io.out, WantsGzip(o.csv_file));

  bool drawn = false;
  const auto bar = [&](std::size_t done, std::size_t total) {
    if (!io.progress) return;
    const std::size_t width = 40, filled = done * width / total;
    io.err << "\r[" << std::string(filled, '#') << std::string(width - filled, '.') << "] " << done
           << "/" << total << " runs" << std::flush;
    drawn = true;
  };
  const EvalReport report = Evaluate(matrix, o.tuned ? &o.tuning : nullptr, bar);
  if (drawn) io.err << "\r\033[K" << std::flush;

  if (csv) {
    csv->Write(FormatEvalCsv(report));
    csv->Commit();
  }
  if (o.json) {
    io.out << FormatEvalJson(report);
  } else if (!(csv && csv->is_standard_output())) {
    std::size_t runs = 0;
    for (const EvalCell& c : matrix.cells) runs += c.seeds.size();
    io.out << "kestrel-flicker evaluate: " << matrix.cells.size() << " cells, " << runs << " runs, "
           << (o.matrix_file.empty() ? "the built-in matrix" : "matrix " + o.matrix_file) << ", "
           << (o.tuned ? "tuning from --ext-para" : "compiled-in tuning") << "\n\n"
           << FormatEvalTable(report, o.cells);
  }
  CheckStandardOutput(io.out);
  return 0;
}

}  // namespace

void RegisterEvaluate(Cli& cli) {
  auto o = std::make_shared<EvaluateOptions>();
  CLI::App* app = cli.AddCommand("evaluate", "detection quality over a matrix of simulated scenes",
                                 [o](CliIo& io) { return RunEvaluate(*o, io); });
  AddMatrixOption(app, o->matrix_file);
  app->add_option("--write-matrix", o->write_matrix,
                  "write the matrix (after --seeds) as JSON and run nothing (- standard output)")
      ->type_name("FILE");
  AddInt(app, "--seeds", o->seeds, 1, 1000, "seeds per cell instead of the matrix's");
  app->add_option("--csv", o->csv_file, "per-cell figures as CSV (- standard output, *.gz gzip)")
      ->type_name("FILE");
  app->add_flag("--json", o->json, "print a JSON report instead of the table");
  app->add_flag("--cells", o->cells, "one table row per cell instead of per condition");
  AddExtParaOption(app, o->tuning)->each([o](const std::string&) { o->tuned = true; });
}

}  // namespace kestrel_host
