// SPDX-License-Identifier: Apache-2.0
// The kestrel-flicker command line on CLI11: one subcommand per command, each added by one
// registration function. The commands only parse, check and print; the work is the host
// library's (simulator, recordings, host policy, reports).
#include "host/cli.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <memory>

#include "host/ext_para.h"
#include "host/output.h"
#include "host/recording.h"
#include "host/report.h"

namespace kestrel_host {

namespace {

constexpr const char* kVersion = "kestrel-flicker 1.1.0 (recording format 2)";
constexpr const char* kTryHelp = "Try 'kestrel-flicker --help'.\n";

// Frame periods the tool simulates: from a 1000 fps readout to one frame a second.
constexpr double kMinFrameS = 0.001, kMaxFrameS = 1.0;

// The options that set what a library refusal names.
std::string OptionsFor(const std::string& refusal) {
  std::string hint;
  const auto add = [&](const char* word, const char* options) {
    if (refusal.find(word) != std::string::npos && hint.find(options) == std::string::npos)
      hint += std::string(hint.empty() ? "" : ", ") + options;
  };
  add("column_length", "--frame-length or --fps");
  add("win_ht", "--win-ht");
  add("win_wd", "--win-wd");
  add("window_width", "--win-wd");
  add("pclk", "--pclk");
  add("line_length", "--line-length");
  add("windows", "--windows (bands)");
  add("columns", "--windows (columns)");
  add("rows", "--win-ht");
  add("samples", "--win-ht");
  add("segments", "--win-ht");
  add("band", "--windows or --win-ht");
  add("block", "--block-height");
  return hint.empty() ? "the sensor geometry options" : hint;
}

// A geometry the library refuses is a command-line error: the options to change come with it.
void CheckLibraryTakes(const SensorSetup& sensor, const HostOptions& host) {
  try {
    ProbeLibrary(sensor, host.tuning);
  } catch (const HostError& e) {
    throw UsageError(std::string(e.what()) + ": change " + OptionsFor(e.what()));
  }
}

// The report as the run goes: the header at once, each row as its frame is judged (flushed, so a
// pipe or terminal sees it), the CSV row beside it, and on a terminal a progress bar on standard
// error for long runs.
class LiveReport {
 public:
  LiveReport(CliIo& io, const ReportOptions& options, OutputSink* csv, std::int64_t frames)
      : io_(io), options_(options), csv_(csv), frames_(frames) {
    table_ = !options.json && !(csv != nullptr && csv->is_standard_output());
    bar_ = io.progress && frames >= 200;
  }

  void Start(const std::string& header) {
    if (table_) {
      Print(header + "\n" + TableHeader(options_.wide));
    }
    if (csv_ != nullptr) {
      csv_->Write(CsvHeader());
      csv_->Flush();
    }
  }

  void Row(const FrameResult& r) {
    ClearBar();
    if (table_) Print(TableRow(r, options_.wide));
    if (csv_ != nullptr) {
      csv_->Write(CsvRow(r));
      csv_->Flush();
    }
    DrawBar(r.frame + 1);
  }

  void Finish(const RunResult& run, const std::string& command) {
    ClearBar();
    if (options_.json) {
      Print(FormatJson(run, command));
    } else if (table_) {
      Print("\n" + FormatSummary(run));
    } else {
      io_.err << FormatSummary(run);
    }
  }

  ~LiveReport() { ClearBar(); }

 private:
  void Print(const std::string& text) {
    io_.out << text;
    CheckStandardOutput(io_.out);
  }
  void DrawBar(std::int64_t done) {
    if (!bar_) return;
    const int width = 40;
    const int filled = static_cast<int>(done * width / frames_);
    io_.err << "\r[" << std::string(static_cast<std::size_t>(filled), '#')
            << std::string(static_cast<std::size_t>(width - filled), '.') << "] " << done << "/"
            << frames_ << " frames" << std::flush;
    drawn_ = true;
  }
  void ClearBar() {
    if (drawn_) io_.err << "\r\033[K" << std::flush;
    drawn_ = false;
  }

  CliIo& io_;
  const ReportOptions& options_;
  OutputSink* csv_;
  std::int64_t frames_;
  bool table_ = true;
  bool bar_ = false;
  bool drawn_ = false;
};

// Only one output can be standard output, and a JSON report is one.
void CheckOutputs(const ReportOptions& report, const std::string& record_file) {
  if (!record_file.empty() && record_file == report.csv_file)
    throw UsageError("--record and --csv name the same file");
  const int to_stdout = (report.csv_file == "-") + (record_file == "-") + report.json;
  if (to_stdout > 1)
    throw UsageError("only one of --csv -, --record - and --json can use standard output");
}

int RunSimulate(const SimulateOptions& o, CliIo& io) {
  if (o.zhdr && o.type != 0) throw UsageError("--zhdr applies to sensor type 0 only");
  if (o.fps && o.column_length)
    throw UsageError("--fps and --frame-length both set the frame length: give one");
  if ((o.block_height || o.green_only) && o.type != 2)
    throw UsageError("--block-height and --green-only apply to sensor type 2 only");
  CheckOutputs(o.report, o.record_file);
  const SensorSetup sensor = o.Sensor();
  const double frame_s = sensor.FramePeriod();
  if (!(frame_s >= kMinFrameS && frame_s <= kMaxFrameS)) {
    throw UsageError("frames of " + Ms(frame_s) + " ms (--line-length " +
                     std::to_string(sensor.line_length) + " x --frame-length " +
                     std::to_string(sensor.column_length) + " / --pclk " +
                     Format("%g", sensor.pclk) + "): the simulator takes " + Ms(kMinFrameS) + ".." +
                     Ms(kMaxFrameS) + " ms; change --pclk, --line-length or --fps");
  }
  const double exposure = o.exposure_ms ? *o.exposure_ms / 1e3 : 1.0 / (2.0 * o.state_hz);
  try {
    CheckSensorSetup(sensor);
    CheckRun(sensor, o.scene, o.frames, exposure, false);
  } catch (const HostError& e) {
    std::string hint;
    const std::int64_t lines = static_cast<std::int64_t>(sensor.StatRows()) * sensor.LinesPerRow();
    // (No hint when even one row a band would be too many.)
    if (lines > sensor.column_length && sensor.type != 2 &&
        sensor.column_length >= sensor.n_win_h) {
      hint = ": use --win-ht " + std::to_string(sensor.column_length / sensor.n_win_h) +
             " or less" + (o.fps ? ", or a lower --fps" : ", or a longer --frame-length");
    }
    throw UsageError(e.what() + hint);
  }
  CheckLibraryTakes(sensor, o.report.host);

  // Outputs are opened before the first frame: a path that cannot be written fails at once.
  std::unique_ptr<OutputSink> record, csv;
  if (!o.record_file.empty())
    record = std::make_unique<OutputSink>(o.record_file, io.out, WantsGzip(o.record_file));
  if (!o.report.csv_file.empty())
    csv = std::make_unique<OutputSink>(o.report.csv_file, io.out, WantsGzip(o.report.csv_file));
  std::unique_ptr<RecordingWriter> writer;
  if (record) {
    Recording header;
    header.sensor = sensor;
    header.initial_state_hz = o.state_hz;
    header.light_hz = static_cast<std::int32_t>(o.scene.mains_hz);
    header.comments.push_back("written by kestrel-flicker simulate");
    writer = std::make_unique<RecordingWriter>(*record, header, o.frames);
  }

  std::string header = "kestrel-flicker simulate: " + FamilyName(sensor.type) + ", ";
  if (o.scene.mains_hz > 0) {
    header += Format("%.0f", o.scene.mains_hz) + " Hz mains light (modulation " +
              Format("%.0f", o.scene.depth * 100.0) + "%)";
  } else {
    header += "steady light";
  }
  if (o.scene.motion != 0.0) header += ", panning " + Format("%g", o.scene.motion) + " lines/frame";
  header += ", starting in the " + std::to_string(o.state_hz) + " Hz state at " + Ms(exposure) +
            " ms\n" + TimingText(sensor, o.scene.mains_hz, o.frames);

  LiveReport live(io, o.report, csv.get(), o.frames);
  live.Start(header);
  HostOptions host = o.report.host;
  host.on_frame = [&](const FrameResult& r) { live.Row(r); };
  if (writer) host.on_capture = [&](const Frame& f) { writer->Add(f); };
  const RunResult run = Simulate(sensor, o.scene, o.frames, exposure, o.state_hz, host);
  if (writer) writer->Finish();
  if (record) record->Commit();
  if (csv) csv->Commit();
  live.Finish(run, "simulate");
  return 0;
}

int RunReplay(const ReplayOptions& o, CliIo& io) {
  CheckOutputs(o.report, "");
  RecordingReader reader(o.file);
  const Recording& rec = reader.header();
  const std::int32_t state = o.state_hz.value_or(rec.initial_state_hz);
  std::unique_ptr<OutputSink> csv;
  if (!o.report.csv_file.empty())
    csv = std::make_unique<OutputSink>(o.report.csv_file, io.out, WantsGzip(o.report.csv_file));
  const std::string name = o.file == "-" ? "standard input" : o.file;
  std::string header = "kestrel-flicker replay " + name + ": " + FamilyName(rec.sensor.type) +
                       ", " + Count(reader.frame_count(), "frame");
  if (rec.light_hz) {
    header += *rec.light_hz == 0 ? ", steady light"
                                 : ", " + std::to_string(*rec.light_hz) + " Hz mains light";
  }
  header += ", starting in the " + std::to_string(state) + " Hz state\n" +
            TimingText(rec.sensor, rec.light_hz.value_or(0), reader.frame_count());
  LiveReport live(io, o.report, csv.get(), reader.frame_count());
  live.Start(header);
  HostOptions host = o.report.host;
  host.on_frame = [&](const FrameResult& r) { live.Row(r); };
  const RunResult run = Replay(reader, state, host);
  if (csv) csv->Commit();
  live.Finish(run, "replay");
  return 0;
}

template <typename T, typename Parse>
CLI::Option* AddParsed(CLI::App* app, const std::string& name, const std::string& description,
                       const char* type_name, Parse parse, T& target) {
  return app
      ->add_option_function<std::string>(
          name, [&target, name, parse](const std::string& v) { target = parse(name, v); },
          description)
      ->type_name(type_name);
}

}  // namespace

std::int64_t ToInt(const std::string& option, const std::string& text, std::int64_t low,
                   std::int64_t high) {
  std::int64_t v = 0;
  const char* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, v);
  const std::string range = std::to_string(low) + ".." + std::to_string(high);
  if (ec == std::errc::result_out_of_range && ptr == end)
    throw UsageError(option + ": " + text + " is out of range " + range);
  if (ec != std::errc() || ptr != end || text.empty())
    throw UsageError(option + ": '" + text + "' is not a whole number (" + range + ")");
  if (v < low || v > high) throw UsageError(option + ": " + text + " is out of range " + range);
  return v;
}

double ToDouble(const std::string& option, const std::string& text, double low, double high) {
  double v = 0.0;
  const char* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, v);
  const std::string range = Format("%g", low) + ".." + Format("%g", high);
  if (ec == std::errc::result_out_of_range && ptr == end)
    throw UsageError(option + ": " + text + " is out of range " + range);
  if (ec != std::errc() || ptr != end || text.empty() || !std::isfinite(v))
    throw UsageError(option + ": '" + text + "' is not a number (" + range + ")");
  if (v < low || v > high) throw UsageError(option + ": " + text + " is out of range " + range);
  return v;
}

CLI::Option* AddInt(CLI::App* app, const std::string& name, std::int32_t& target, std::int32_t low,
                    std::int32_t high, const std::string& description) {
  return AddParsed(
      app, name, description, "N",
      [low, high](const std::string& n, const std::string& v) {
        return static_cast<std::int32_t>(ToInt(n, v, low, high));
      },
      target);
}

CLI::Option* AddInt(CLI::App* app, const std::string& name, std::optional<std::int32_t>& target,
                    std::int32_t low, std::int32_t high, const std::string& description) {
  return AddParsed(
      app, name, description, "N",
      [low, high](const std::string& n, const std::string& v) {
        return std::optional<std::int32_t>(static_cast<std::int32_t>(ToInt(n, v, low, high)));
      },
      target);
}

CLI::Option* AddNumber(CLI::App* app, const std::string& name, double& target, double low,
                       double high, const std::string& description) {
  return AddParsed(
      app, name, description, "X",
      [low, high](const std::string& n, const std::string& v) { return ToDouble(n, v, low, high); },
      target);
}

CLI::Option* AddNumber(CLI::App* app, const std::string& name, std::optional<double>& target,
                       double low, double high, const std::string& description) {
  return AddParsed(
      app, name, description, "X",
      [low, high](const std::string& n, const std::string& v) {
        return std::optional<double>(ToDouble(n, v, low, high));
      },
      target);
}

void AddReportOptions(CLI::App* app, ReportOptions& o) {
  app->add_option("--csv", o.csv_file, "per-frame figures as CSV (- standard output, *.gz gzip)")
      ->type_name("FILE");
  app->add_flag("--json", o.json, "print a JSON report instead of the table");
  app->add_flag("--wide", o.wide, "show all nine energies in the table");
  app->add_flag("--verbose", o.host.verbose, "show the library's log on standard error");
  AddExtParaOption(app, o.host.tuning);
}

CLI::Option* AddMatrixOption(CLI::App* app, std::string& file) {
  return app
      ->add_option("--matrix", file,
                   "scenario matrix, a JSON file (docs/evaluation-matrix.md) [built-in]")
      ->type_name("FILE");
}

CLI::Option* AddExtParaOption(CLI::App* app, FlkExtPara& tuning) {
  return app
      ->add_option_function<std::string>(
          "--ext-para",
          [&tuning](const std::string& path) {
            // A tuning the detector cannot take is a command-line error, found before any frame.
            try {
              tuning = LoadExtPara(path);
            } catch (const HostError& e) {
              throw UsageError(std::string("--ext-para: ") + e.what());
            }
          },
          "tuning sent with SET_EXT_PARA before INIT: a JSON file of FlkExtPara fields "
          "(docs/tuning-format.md)")
      ->type_name("FILE");
}

SensorSetup SimulateOptions::Sensor() const {
  SensorSetup s = DefaultSensor(type, zhdr);
  s.zhdr = zhdr;
  if (line_length) s.line_length = *line_length;
  if (pclk) s.pclk = *pclk;
  if (column_length) s.column_length = *column_length;
  if (fps) {
    const double lines = std::round(s.pclk / (s.line_length * *fps));
    s.column_length = static_cast<std::int32_t>(std::min(lines, 2147483647.0));
  }
  if (window_width) s.window_width = *window_width;
  if (block_height) s.block_height = *block_height;
  if (green_only) s.green_only = *green_only;
  if (n_win_h) s.n_win_h = *n_win_h;
  if (n_win_w) s.n_win_w = *n_win_w;
  if (win_ht) s.win_ht = *win_ht;
  return s;
}

Cli::Cli()
    : app_("Simulate flicker scenes or replay recorded statistics through the detector.",
           "kestrel-flicker") {
  app_.require_subcommand(1);
  app_.footer(
      "Without a command, simulate is meant: with no arguments, a standard sensor under 60 Hz\n"
      "mains light, starting in the 50 Hz state. 'kestrel-flicker COMMAND --help' lists a\n"
      "command's options. Exit status: 0 run completed, 1 failed while running, 2 bad command "
      "line.");
}

CLI::App* Cli::AddCommand(const std::string& name, const std::string& description,
                          std::function<int(CliIo&)> run) {
  CLI::App* sub = app_.add_subcommand(name, description);
  commands_[sub] = std::move(run);
  order_.push_back(sub);
  return sub;
}

int Cli::Run(std::vector<std::string> args, CliIo& io) {
  const auto usage = [&](const std::string& what) {
    io.err << "kestrel-flicker: " << what << "\n" << kTryHelp;
    return 2;
  };
  if (args.size() == 1 && args[0] == "--version") {
    io.out << kVersion << "\n";
    return 0;
  }
  if (args.empty() || (args[0].starts_with("-") && args[0] != "-h" && args[0] != "--help"))
    args.insert(args.begin(), "simulate");
  if (!args[0].starts_with("-")) {
    std::string names;
    bool known = false;
    for (const CLI::App* sub : order_) {
      names += (names.empty() ? "" : ", ") + sub->get_name();
      known = known || sub->get_name() == args[0];
    }
    if (!known) return usage("unknown command '" + args[0] + "' (" + names + ")");
  }
  std::reverse(args.begin(), args.end());  // CLI11 takes the words last first
  try {
    try {
      app_.parse(args);
    } catch (const CLI::CallForHelp& e) {
      return app_.exit(e, io.out, io.err);
    } catch (const CLI::CallForAllHelp& e) {
      return app_.exit(e, io.out, io.err);
    } catch (const CLI::ParseError& e) {
      return usage(e.what());
    }
    for (const CLI::App* sub : app_.get_subcommands()) {
      const auto it = commands_.find(sub);
      if (it != commands_.end()) return it->second(io);
    }
    return usage("no command");
  } catch (const UsageError& e) {
    return usage(e.what());
  } catch (const HostError& e) {
    io.err << "kestrel-flicker: " << e.what() << "\n";
    return 1;
  } catch (const std::bad_alloc&) {
    io.err << "kestrel-flicker: out of memory\n";
    return 1;
  }
}

void RegisterSimulate(Cli& cli) {
  auto o = std::make_shared<SimulateOptions>();
  CLI::App* app = cli.AddCommand("simulate", "simulate a scene and run the detector on it",
                                 [o](CliIo& io) { return RunSimulate(*o, io); });
  SceneSetup& scene = o->scene;
  const std::string light = "The light and the scene", camera = "The camera";
  AddParsed(
      app, "--mains", "mains frequency of the light: 50, 60 or 0 for steady light [60]", "HZ",
      [](const std::string& n, const std::string& v) {
        std::int64_t hz = -1;
        const auto [p, ec] = std::from_chars(v.data(), v.data() + v.size(), hz);
        if (ec != std::errc() || p != v.data() + v.size() || (hz != 0 && hz != 50 && hz != 60))
          throw UsageError(n + ": '" + v +
                           "' is not a mains frequency: use 50, 60 or 0 (steady light)");
        return static_cast<double>(hz);
      },
      scene.mains_hz)
      ->group(light);
  AddNumber(app, "--depth", scene.depth, 0.0, 1.0,
            "modulation depth of the light at twice the mains, 0..1 [0.25]")
      ->group(light);
  AddNumber(app, "--brightness", scene.brightness, 0.001, 100.0,
            "mean scene level, fraction of full scale (clips above 1) [0.3]")
      ->group(light);
  AddNumber(app, "--texture", scene.texture, 0.0, 10.0, "fine scene texture, 0 smooth [1]")
      ->group(light);
  AddNumber(app, "--noise", scene.noise, 0.0, 1000.0, "sensor noise multiplier, 0 none [1]")
      ->group(light);
  AddNumber(app, "--motion", scene.motion, -1000.0, 1000.0,
            "vertical motion per frame in lines (panning) [0]")
      ->group(light);
  app->add_option_function<std::vector<std::string>>(
         "--step",
         [o](const std::vector<std::string>& steps) {
           for (const std::string& v : steps) {
             const std::size_t colon = v.find(':');
             if (colon == std::string::npos)
               throw UsageError("--step: expected FRAME:FACTOR, got '" + v + "'");
             o->scene.steps.push_back(
                 {static_cast<std::int32_t>(ToInt("--step", v.substr(0, colon), 0, 1000000)),
                  ToDouble("--step", v.substr(colon + 1), 0.001, 1000.0)});
           }
         },
         "scene brightness times FACTOR from FRAME on (repeatable)")
      ->type_name("FRAME:FACTOR")
      ->group(light);
  AddParsed(
      app, "--seed", "random seed of the scene and noise [1]", "N",
      [](const std::string& n, const std::string& v) {
        return static_cast<std::uint32_t>(ToInt(n, v, 0, 4294967295));
      },
      scene.seed)
      ->group(light);
  AddInt(app, "--type", o->type, 0, 2, "sensor family: 0 standard, 1 SONY, 2 2x5 [0]")
      ->group(camera);
  app->add_flag("--zhdr", o->zhdr, "type 0 with zHDR statistics")->group(camera);
  CLI::Option* zhdr = app->get_option("--zhdr");
  AddNumber(app, "--hdr-ratio", scene.hdr_ratio, 1.0, 256.0, "zHDR long / short exposure ratio [8]")
      ->needs(zhdr)
      ->group(camera);
  AddParsed(
      app, "--state", "flicker setting the camera starts in: 50 or 60 [50]", "HZ",
      [](const std::string& n, const std::string& v) {
        const std::int64_t hz = ToInt(n, v, 50, 60);
        if (hz != 50 && hz != 60) throw UsageError(n + ": use 50 or 60");
        return static_cast<std::int32_t>(hz);
      },
      o->state_hz)
      ->group(camera);
  AddNumber(app, "--exposure", o->exposure_ms, 0.001, 1000.0,
            "exposure time in ms [one flicker period of the starting state]")
      ->type_name("MS")
      ->group(camera);
  AddInt(app, "--frames", o->frames, 2, 1000000, "frames to simulate [20]")->group(camera);
  AddInt(app, "--line-length", o->line_length, 1, 1000000, "pixel clocks per line")->group(camera);
  AddNumber(app, "--pclk", o->pclk, 1e5, 1e10, "pixel clock in Hz")->type_name("HZ")->group(camera);
  AddInt(app, "--frame-length", o->column_length, 1, 10000000, "lines per frame (column_length)")
      ->group(camera);
  AddNumber(app, "--fps", o->fps, 1.0, 1000.0, "frames per second (sets the frame length)")
      ->group(camera);
  app->add_option_function<std::string>(
         "--windows",
         [o](const std::string& v) {
           const std::size_t x = v.find('x');
           if (x == std::string::npos)
             throw UsageError("--windows: expected HxW (bands x columns), got '" + v + "'");
           o->n_win_h = static_cast<std::int32_t>(ToInt("--windows", v.substr(0, x), 1, 100000));
           o->n_win_w = static_cast<std::int32_t>(ToInt("--windows", v.substr(x + 1), 1, 100000));
         },
         "bands x columns of statistics windows")
      ->type_name("HxW")
      ->group(camera);
  AddInt(app, "--win-ht", o->win_ht, 1, 10000000, "rows per band (type 2: rows per frame)")
      ->group(camera);
  AddInt(app, "--win-wd", o->window_width, 1, 100000,
         "window width in pixels (INIT window_width, DETECT win_wd)")
      ->group(camera);
  AddInt(app, "--block-height", o->block_height, 1, 100000, "lines per statistic (type 2)")
      ->group(camera);
  AddInt(app, "--green-only", o->green_only, 0, 1, "statistics of green pixels only (type 2)")
      ->type_name("0|1")
      ->group(camera);
  app->add_option("--record", o->record_file,
                  "write the frames as a recording (- standard output, *.gz gzip)")
      ->type_name("FILE");
  AddReportOptions(app, o->report);
}

void RegisterReplay(Cli& cli) {
  auto o = std::make_shared<ReplayOptions>();
  CLI::App* app = cli.AddCommand("replay", "run a recording through the detector",
                                 [o](CliIo& io) { return RunReplay(*o, io); });
  app->add_option("FILE", o->file, "the recording, plain or gzip (- standard input)")->required();
  AddParsed(
      app, "--state", "start in this state instead of the recording's: 50 or 60", "HZ",
      [](const std::string& n, const std::string& v) {
        const std::int64_t hz = ToInt(n, v, 50, 60);
        if (hz != 50 && hz != 60) throw UsageError(n + ": use 50 or 60");
        return std::optional<std::int32_t>(static_cast<std::int32_t>(hz));
      },
      o->state_hz);
  AddReportOptions(app, o->report);
}

int RunCli(const std::vector<std::string>& args, std::ostream& out, std::ostream& err,
           bool progress) {
  Cli cli;
  RegisterSimulate(cli);
  RegisterReplay(cli);
  RegisterEvaluate(cli);
  RegisterTune(cli);
  CliIo io{out, err, progress};
  const int status = cli.Run(args, io);
  if (status != 1) {
    try {
      CheckStandardOutput(out);
    } catch (const HostError& e) {
      err << "kestrel-flicker: " << e.what() << "\n";
      return 1;
    }
  }
  return status;
}

}  // namespace kestrel_host
