// SPDX-License-Identifier: Apache-2.0
// The kestrel-flicker command line on CLI11: one subcommand per command, each added by one
// registration function. The commands only parse, check and print; the work is the host
// library's (simulator, recordings, host policy, reports).
#ifndef KESTREL_TOOLS_CLI_H
#define KESTREL_TOOLS_CLI_H

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "host/error.h"
#include "host/host.h"
#include "host/scene.h"

namespace kestrel_host {

// A command line the tool cannot take (exit status 2).
class UsageError : public HostError {
 public:
  using HostError::HostError;
};

// Where a command writes: its report, its messages, and whether a progress bar may be drawn on
// `err` (a terminal).
struct CliIo {
  std::ostream& out;
  std::ostream& err;
  bool progress = false;
};

// The application and its commands. A command's registration function declares its options on
// the subcommand AddCommand returns and hands over the action that runs once the whole line has
// parsed; the action returns the exit status, or throws UsageError (2) or HostError (1).
class Cli {
 public:
  Cli();
  CLI::App& app() { return app_; }
  CLI::App* AddCommand(const std::string& name, const std::string& description,
                       std::function<int(CliIo&)> run);
  // The subcommand of that name, for options several commands share.
  CLI::App* Command(const std::string& name) { return app_.get_subcommand(name); }
  // `args` without the program name. Without a command, "simulate" is meant.
  int Run(std::vector<std::string> args, CliIo& io);

 private:
  CLI::App app_;
  std::map<const CLI::App*, std::function<int(CliIo&)>> commands_;
  std::vector<const CLI::App*> order_;
};

// Number options: a value that is no number, or outside [low, high], is refused with the option
// and the range named.
std::int64_t ToInt(const std::string& option, const std::string& text, std::int64_t low,
                   std::int64_t high);
double ToDouble(const std::string& option, const std::string& text, double low, double high);
CLI::Option* AddInt(CLI::App* app, const std::string& name, std::int32_t& target, std::int32_t low,
                    std::int32_t high, const std::string& description);
CLI::Option* AddInt(CLI::App* app, const std::string& name, std::optional<std::int32_t>& target,
                    std::int32_t low, std::int32_t high, const std::string& description);
CLI::Option* AddNumber(CLI::App* app, const std::string& name, double& target, double low,
                       double high, const std::string& description);
CLI::Option* AddNumber(CLI::App* app, const std::string& name, std::optional<double>& target,
                       double low, double high, const std::string& description);

// What every command that runs the detector reports, and how.
struct ReportOptions {
  std::string csv_file;
  bool json = false;
  bool wide = false;
  HostOptions host;  // verbose, tuning
};
void AddReportOptions(CLI::App* app, ReportOptions& options);
// --ext-para FILE: the tuning file read into `tuning` (a bad file is a UsageError).
CLI::Option* AddExtParaOption(CLI::App* app, FlkExtPara& tuning);
// --matrix FILE: the scenario matrix of evaluate and tune (empty: the built-in one).
CLI::Option* AddMatrixOption(CLI::App* app, std::string& file);

// The simulate command's options: the sensor (the family's defaults, then every option given),
// the scene and the run.
struct SimulateOptions {
  std::int32_t type = 0;
  bool zhdr = false;
  std::optional<std::int32_t> line_length, column_length, window_width, block_height, green_only;
  std::optional<std::int32_t> n_win_h, n_win_w, win_ht;
  std::optional<double> pclk, fps;
  SceneSetup scene;
  std::int32_t frames = 20;
  std::optional<double> exposure_ms;
  std::int32_t state_hz = 50;
  std::string record_file;
  ReportOptions report;

  SensorSetup Sensor() const;
};

struct ReplayOptions {
  std::string file;  // "-": standard input
  std::optional<std::int32_t> state_hz;
  ReportOptions report;
};

void RegisterSimulate(Cli& cli);
void RegisterReplay(Cli& cli);
void RegisterEvaluate(Cli& cli);
void RegisterTune(Cli& cli);

// The whole tool: 0 on success, 1 when the run fails (unreadable recording, a file that cannot be
// written, standard output included), 2 for a bad command line, found before the first frame.
int RunCli(const std::vector<std::string>& args, std::ostream& out, std::ostream& err,
           bool progress = false);

}  // namespace kestrel_host

#endif  // KESTREL_TOOLS_CLI_H
