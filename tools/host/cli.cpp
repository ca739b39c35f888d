// SPDX-License-Identifier: Apache-2.0
// The kestrel-flicker command line: argument parsing and the simulate / replay commands.
#include "host/cli.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <functional>
#include <map>
#include <set>

#include "host/host.h"
#include "host/recording.h"
#include "host/report.h"

namespace kestrel_host {

namespace {

constexpr const char* kVersion = "kestrel-flicker 1.0.0 (recording format 1)";

std::int32_t ToInt(const std::string& option, const std::string& text, std::int32_t low,
                   std::int32_t high) {
  std::int32_t v = 0;
  const char* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, v);
  if (ec != std::errc() || ptr != end || text.empty()) {
    throw UsageError(option + ": '" + text + "' is not a whole number");
  }
  if (v < low || v > high) {
    throw UsageError(option + ": " + text + " is out of range " + std::to_string(low) + ".." +
                     std::to_string(high));
  }
  return v;
}

double ToDouble(const std::string& option, const std::string& text, double low, double high) {
  double v = 0.0;
  const char* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, v);
  if (ec != std::errc() || ptr != end || text.empty() || !std::isfinite(v)) {
    throw UsageError(option + ": '" + text + "' is not a number");
  }
  if (v < low || v > high) {
    throw UsageError(option + ": " + text + " is out of range " + Format("%g", low) + ".." +
                     Format("%g", high));
  }
  return v;
}

std::string FamilyName(std::int32_t type) {
  return std::string(SensorName(type)) + " sensor (type " + std::to_string(type) + ")";
}

// Where the frame period stands against the flicker period: the bands move between frames only
// when it is not a whole number of flicker periods.
std::string TimingLine(const SensorSetup& s, double mains_hz) {
  const double period = s.FramePeriod();
  std::string text =
      "timing: " + Ms(period) + " ms frames (" + Format("%.2f", 1.0 / period) + " fps)";
  if (mains_hz > 0.0) {
    const double periods = period * 2.0 * mains_hz;
    text += " = " + Format("%.2f", periods) + " periods of " + Format("%.0f", 2.0 * mains_hz) +
            " Hz light";
    const double drift = periods - std::round(periods);
    if (std::fabs(drift) < 0.02)
      text += " (a whole number: the bands stand still from frame to frame)";
  }
  const std::int64_t lines = static_cast<std::int64_t>(s.StatRows()) * s.LinesPerRow();
  text += "\nstatistics: " + std::to_string(s.StatRows()) + " rows";
  if (s.LinesPerRow() > 1) text += " of " + std::to_string(s.LinesPerRow()) + " lines";
  text += " (" + std::to_string(lines) + " of the " + std::to_string(s.column_length) +
          " lines), " + std::to_string(s.n_win_h) + " bands x " + std::to_string(s.n_win_w) +
          " windows " + std::to_string(s.window_width) + " pixels wide";
  if (s.zhdr) text += ", zHDR";
  return text + "\n";
}

}  // namespace

SensorSetup CliOptions::Sensor() const {
  SensorSetup s = DefaultSensor(type, zhdr);
  s.zhdr = zhdr;
  if (line_length) s.line_length = *line_length;
  if (pclk) s.pclk = *pclk;
  if (column_length) s.column_length = *column_length;
  if (fps)
    s.column_length = static_cast<std::int32_t>(std::lround(s.pclk / (s.line_length * *fps)));
  if (window_width) s.window_width = *window_width;
  if (block_height) s.block_height = *block_height;
  if (green_only) s.green_only = *green_only;
  if (n_win_h) s.n_win_h = *n_win_h;
  if (n_win_w) s.n_win_w = *n_win_w;
  if (win_ht) s.win_ht = *win_ht;
  return s;
}

std::string UsageText() {
  return R"(usage: kestrel-flicker [simulate] [options]     simulate a scene and run the detector on it
       kestrel-flicker replay FILE [options]       run a recording through the detector
       kestrel-flicker --help | --version

With no arguments: a standard sensor under 60 Hz mains light, starting in the 50 Hz state.

simulate, the light and the scene:
  --mains HZ          mains frequency of the light: 50, 60 or 0 for steady light   [60]
  --depth X           modulation depth of the light at twice the mains, 0..1       [0.25]
  --brightness X      mean scene level, fraction of full scale (clips above 1)     [0.3]
  --texture X         fine scene texture, 0 = smooth bars only                     [1]
  --noise X           sensor noise multiplier, 0 = noise-free                      [1]
  --motion LINES      vertical motion per frame (camera panning)                   [0]
  --step FRAME:X      scene brightness times X from FRAME on (repeatable)
  --seed N            random seed of the scene and noise                           [1]
simulate, the camera:
  --type N            sensor family: 0 standard, 1 SONY, 2 2x5                     [0]
  --zhdr              type 0 with zHDR statistics (long/short rows and counts)
  --hdr-ratio X       zHDR long / short exposure ratio (with --zhdr)               [8]
  --state HZ          flicker setting the camera starts in: 50 or 60               [50]
  --exposure MS       exposure time [one flicker period of the starting state]
  --frames N          frames to simulate                                           [20]
  --line-length N     pixel clocks per line          --pclk HZ   pixel clock
  --frame-length N    lines per frame (column_length) --fps X    sets the frame length
  --windows HxW       bands x columns of statistics windows
  --win-ht N          rows per band (type 2: rows per frame)
  --win-wd N          window width in pixels (INIT window_width and DETECT win_wd)
  --block-height N    lines per statistic (type 2)   --green-only 0|1  (type 2)
  --record FILE       write the simulated statistics as a recording (docs/recording-format.md)
replay:
  --state HZ          start in this state instead of the recording's
both:
  --csv FILE          per-frame figures as CSV
  --json              print a JSON summary instead of the table
  --wide              show all nine energies in the table
  --verbose           show the library's log on standard error

Columns: energies of the frame at 100 Hz, 120 Hz and the mean of the other seven candidate
frequencies; rel = the scored band (120 Hz in the 50 Hz state, 100 Hz in the 60 Hz state) over
the mean of the other eight, minus 1; score = the frame's log-likelihood for the other mains;
seq = the sum the test compares with its threshold 8; result = the library's answer.
)";
}

CliOptions ParseArgs(const std::vector<std::string>& args) {
  CliOptions o;
  std::size_t i = 0;
  if (!args.empty()) {
    if (args[0] == "simulate") {
      i = 1;
    } else if (args[0] == "replay") {
      o.command = CliOptions::Command::kReplay;
      if (args.size() < 2 || args[1].starts_with("-"))
        throw UsageError("replay needs a recording file");
      o.replay_file = args[1];
      i = 2;
    } else if (args[0] == "help") {
      o.command = CliOptions::Command::kHelp;
      return o;
    } else if (!args[0].starts_with("-")) {
      throw UsageError("unknown command '" + args[0] + "' (simulate or replay)");
    }
  }

  using Handler = std::function<void(const std::string& name, const std::string& value)>;
  const std::set<std::string> replay_options = {"--state",   "--csv",  "--json",   "--wide",
                                                "--verbose", "--help", "--version"};
  const std::set<std::string> flags = {"--zhdr",    "--json", "--wide",
                                       "--verbose", "--help", "--version"};
  const std::map<std::string, Handler> options = {
      {"--mains",
       [&](auto& n, auto& v) {
         const std::int32_t hz = ToInt(n, v, 0, 60);
         if (hz != 0 && hz != 50 && hz != 60)
           throw UsageError(n + ": use 50, 60 or 0 (steady light)");
         o.scene.mains_hz = hz;
       }},
      {"--depth", [&](auto& n, auto& v) { o.scene.depth = ToDouble(n, v, 0.0, 1.0); }},
      {"--brightness", [&](auto& n, auto& v) { o.scene.brightness = ToDouble(n, v, 0.0, 100.0); }},
      {"--texture", [&](auto& n, auto& v) { o.scene.texture = ToDouble(n, v, 0.0, 10.0); }},
      {"--noise", [&](auto& n, auto& v) { o.scene.noise = ToDouble(n, v, 0.0, 1000.0); }},
      {"--motion", [&](auto& n, auto& v) { o.scene.motion = ToDouble(n, v, -1000.0, 1000.0); }},
      {"--hdr-ratio", [&](auto& n, auto& v) { o.scene.hdr_ratio = ToDouble(n, v, 1.0, 256.0); }},
      {"--seed",
       [&](auto& n, auto& v) {
         o.scene.seed = static_cast<std::uint32_t>(ToInt(n, v, 0, 2147483647));
       }},
      {"--step",
       [&](auto& n, auto& v) {
         const std::size_t colon = v.find(':');
         if (colon == std::string::npos)
           throw UsageError(n + ": expected FRAME:FACTOR, got '" + v + "'");
         o.scene.steps.push_back({ToInt(n, v.substr(0, colon), 0, 1000000),
                                  ToDouble(n, v.substr(colon + 1), 0.001, 1000.0)});
       }},
      {"--type", [&](auto& n, auto& v) { o.type = ToInt(n, v, 0, 2); }},
      {"--zhdr", [&](auto&, auto&) { o.zhdr = true; }},
      {"--state",
       [&](auto& n, auto& v) {
         const std::int32_t hz = ToInt(n, v, 50, 60);
         if (hz != 50 && hz != 60) throw UsageError(n + ": use 50 or 60");
         o.state_hz = hz;
       }},
      {"--exposure", [&](auto& n, auto& v) { o.exposure_ms = ToDouble(n, v, 0.001, 10000.0); }},
      {"--frames", [&](auto& n, auto& v) { o.frames = ToInt(n, v, 2, 100000); }},
      {"--line-length", [&](auto& n, auto& v) { o.line_length = ToInt(n, v, 1, 2147483647); }},
      {"--pclk", [&](auto& n, auto& v) { o.pclk = ToDouble(n, v, 1.0, 1e12); }},
      {"--frame-length", [&](auto& n, auto& v) { o.column_length = ToInt(n, v, 1, 2147483647); }},
      {"--fps", [&](auto& n, auto& v) { o.fps = ToDouble(n, v, 0.01, 10000.0); }},
      {"--windows",
       [&](auto& n, auto& v) {
         const std::size_t x = v.find('x');
         if (x == std::string::npos)
           throw UsageError(n + ": expected HxW (bands x columns), got '" + v + "'");
         o.n_win_h = ToInt(n, v.substr(0, x), 1, 1000000);
         o.n_win_w = ToInt(n, v.substr(x + 1), 1, 1000000);
       }},
      {"--win-ht", [&](auto& n, auto& v) { o.win_ht = ToInt(n, v, 1, 10000000); }},
      {"--win-wd", [&](auto& n, auto& v) { o.window_width = ToInt(n, v, 1, 2147483647); }},
      {"--block-height", [&](auto& n, auto& v) { o.block_height = ToInt(n, v, 1, 1000000); }},
      {"--green-only", [&](auto& n, auto& v) { o.green_only = ToInt(n, v, 0, 1); }},
      {"--record",
       [&](auto& n, auto& v) {
         if (v.empty()) throw UsageError(n + " needs a file name");
         o.record_file = v;
       }},
      {"--csv",
       [&](auto& n, auto& v) {
         if (v.empty()) throw UsageError(n + " needs a file name");
         o.csv_file = v;
       }},
      {"--json", [&](auto&, auto&) { o.json = true; }},
      {"--wide", [&](auto&, auto&) { o.wide = true; }},
      {"--verbose", [&](auto&, auto&) { o.verbose = true; }},
      {"--help", [&](auto&, auto&) { o.command = CliOptions::Command::kHelp; }},
      {"--version", [&](auto&, auto&) { o.command = CliOptions::Command::kVersion; }},
  };

  std::set<std::string> given;
  for (; i < args.size(); ++i) {
    std::string name = args[i];
    std::string value;
    bool inline_value = false;
    if (const std::size_t eq = name.find('='); name.starts_with("--") && eq != std::string::npos) {
      value = name.substr(eq + 1);
      name = name.substr(0, eq);
      inline_value = true;
    }
    if (name == "-h") name = "--help";
    const auto it = options.find(name);
    if (it == options.end()) {
      if (!name.starts_with("-")) throw UsageError("unexpected argument '" + name + "'");
      throw UsageError("unknown option '" + name + "'");
    }
    if (o.command == CliOptions::Command::kReplay && replay_options.count(name) == 0) {
      throw UsageError(name + " is a simulate option; a replay takes the recording as it is");
    }
    if (flags.count(name) != 0) {
      if (inline_value) throw UsageError(name + " takes no value");
    } else if (!inline_value) {
      if (i + 1 >= args.size()) throw UsageError(name + " needs a value");
      value = args[++i];
    }
    it->second(name, value);
    given.insert(name);
  }
  // Options that would change nothing on the sensor chosen are refused rather than ignored.
  if (o.zhdr && o.type != 0) throw UsageError("--zhdr applies to sensor type 0 only");
  if (given.count("--hdr-ratio") != 0 && !o.zhdr)
    throw UsageError("--hdr-ratio applies with --zhdr only");
  if ((o.block_height || o.green_only) && o.type != 2) {
    throw UsageError("--block-height and --green-only apply to sensor type 2 only");
  }
  if (o.fps && o.column_length)
    throw UsageError("--fps and --frame-length both set the frame length: give one");
  if (!o.record_file.empty() && o.record_file == o.csv_file) {
    throw UsageError("--record and --csv name the same file");
  }
  return o;
}

int RunCli(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
  CliOptions o;
  try {
    o = ParseArgs(args);
  } catch (const UsageError& e) {
    err << "kestrel-flicker: " << e.what() << "\nTry 'kestrel-flicker --help'.\n";
    return 2;
  }
  if (o.command == CliOptions::Command::kHelp) {
    out << UsageText();
    return 0;
  }
  if (o.command == CliOptions::Command::kVersion) {
    out << kVersion << "\n";
    return 0;
  }
  try {
    RunResult run;
    std::string header;
    std::string record_text;
    std::string command;
    if (o.command == CliOptions::Command::kSimulate) {
      command = "simulate";
      const SensorSetup sensor = o.Sensor();
      const std::int32_t state = o.state_hz.value_or(50);
      const double exposure = o.exposure_ms ? *o.exposure_ms / 1e3 : 1.0 / (2.0 * state);
      try {
        CheckSensorSetup(sensor);
        CheckRun(sensor, o.scene, o.frames, exposure, !o.record_file.empty());
      } catch (const HostError& e) {
        throw UsageError(e.what());
      }
      Recording recording;
      run = Simulate(sensor, o.scene, o.frames, exposure, state, o.verbose,
                     o.record_file.empty() ? nullptr : &recording);
      if (!o.record_file.empty()) {
        recording.comments.push_back("written by kestrel-flicker simulate");
        record_text = FormatRecording(recording);
      }
      header = "kestrel-flicker simulate: " + FamilyName(sensor.type) + ", ";
      if (o.scene.mains_hz > 0) {
        header += Format("%.0f", o.scene.mains_hz) + " Hz mains light (modulation " +
                  Format("%.0f", o.scene.depth * 100.0) + "%)";
      } else {
        header += "steady light";
      }
      if (o.scene.motion != 0.0)
        header += ", panning " + Format("%g", o.scene.motion) + " lines/frame";
      header += ", starting in the " + std::to_string(state) + " Hz state at " + Ms(exposure) +
                " ms\n" + TimingLine(sensor, o.scene.mains_hz);
    } else {
      command = "replay";
      const Recording recording = LoadRecording(o.replay_file);
      const std::int32_t state = o.state_hz.value_or(recording.initial_state_hz);
      run = Replay(recording, state, o.verbose);
      header = "kestrel-flicker replay " + o.replay_file + ": " +
               FamilyName(recording.sensor.type) + ", " + std::to_string(recording.frames.size()) +
               " frames, starting in the " + std::to_string(state) + " Hz state\n" +
               TimingLine(recording.sensor, 0.0);
    }
    std::vector<OutputFile> files;
    if (!o.record_file.empty()) files.push_back({o.record_file, std::move(record_text)});
    if (!o.csv_file.empty()) files.push_back({o.csv_file, FormatCsv(run)});
    WriteFiles(files);
    if (o.json) {
      out << FormatJson(run, command);
    } else {
      out << header << "\n" << FormatTable(run, o.wide) << "\n" << FormatSummary(run);
    }
    return 0;
  } catch (const UsageError& e) {
    err << "kestrel-flicker: " << e.what() << "\nTry 'kestrel-flicker --help'.\n";
    return 2;
  } catch (const HostError& e) {
    err << "kestrel-flicker: " << e.what() << "\n";
    return 1;
  } catch (const std::bad_alloc&) {
    err << "kestrel-flicker: out of memory\n";
    return 1;
  }
}

}  // namespace kestrel_host
