// SPDX-License-Identifier: Apache-2.0
// The auto-exposure host: drives the library through SendCmdFlk only, frame by frame, and applies
// its decisions the way a camera's auto-exposure does.
#include "host/host.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include <kestrel/flicker.h>

#include "host/error.h"

namespace kestrel_host {

namespace {

LibrarySession* g_session = nullptr;

// Keeps the library's standard-output lines (table timings, a zHDR trace) out of the tool's own
// output for the duration of one command: to standard error when verbose, else nowhere.
class StdoutDiversion {
 public:
  explicit StdoutDiversion(bool to_stderr) {
    std::fflush(stdout);
    saved_ = ::dup(STDOUT_FILENO);
    const int target = to_stderr ? ::dup(STDERR_FILENO) : ::open("/dev/null", O_WRONLY);
    if (saved_ >= 0 && target >= 0) ::dup2(target, STDOUT_FILENO);
    if (target >= 0) ::close(target);
  }
  ~StdoutDiversion() {
    std::fflush(stdout);
    if (saved_ >= 0) {
      ::dup2(saved_, STDOUT_FILENO);
      ::close(saved_);
    }
  }
  StdoutDiversion(const StdoutDiversion&) = delete;
  StdoutDiversion& operator=(const StdoutDiversion&) = delete;

 private:
  int saved_ = -1;
};

std::int32_t StateCode(std::int32_t hz) {
  return hz == 60 ? FLK_RESULT_60HZ : FLK_RESULT_50HZ;
}

// The integer that follows `key` in `line`, if any.
bool FieldAfter(std::string_view line, std::string_view key, std::int32_t& value) {
  const std::size_t at = line.find(key);
  if (at == std::string_view::npos) return false;
  const std::string rest(line.substr(at + key.size(), 16));
  char* end = nullptr;
  const long v = std::strtol(rest.c_str(), &end, 10);
  if (end == rest.c_str()) return false;
  value = static_cast<std::int32_t>(v);
  return true;
}

// Why a frame gave the test nothing to score, read from its statistics: most of them at full
// scale, or the mean below 2% of it. Empty when neither.
std::string Condition(const SensorSetup& sensor, const Frame& frame) {
  const std::int64_t full = sensor.FullScale();
  std::int64_t clipped = 0;
  double sum = 0.0;
  for (const std::int64_t word : frame.grid) {
    const std::int64_t v = sensor.type == 0 ? (word & 0xFFFFFF) : word;
    if (v * 50 >= full * 49) ++clipped;
    sum += static_cast<double>(v);
  }
  const auto n = static_cast<std::int64_t>(frame.grid.size());
  if (n == 0) return "";
  if (clipped * 2 >= n) return "clipped: the statistics are at full scale";
  if (sum / static_cast<double>(n) < 0.02 * static_cast<double>(full)) return "too dark";
  return "";
}

}  // namespace

double ExposureForMains(double exposure_s, std::int32_t mains_hz, double frame_s) {
  if (mains_hz <= 0) return exposure_s;
  const double period = 1.0 / (2.0 * mains_hz);
  // The exposure cannot outlast the frame (the margin absorbs the rounding of an exact fit).
  const double fit = std::floor(frame_s / period + 1e-9);
  const double periods = std::max(1.0, std::min(std::round(exposure_s / period), fit));
  return periods * period;
}

void CheckRun(const SensorSetup& sensor, const SceneSetup& scene, std::int32_t frames,
              double exposure_s, bool recording) {
  if (frames < 2) throw HostError("at least 2 frames are needed (each DETECT compares two)");
  if (!(exposure_s > 0.0)) throw HostError("the exposure time must be positive");
  if (exposure_s > sensor.FramePeriod()) {
    throw HostError("an exposure of " + Ms(exposure_s) + " ms does not fit a frame of " +
                    Ms(sensor.FramePeriod()) + " ms (column_length x line_length / pclk)");
  }
  // Far above any real run (the default scene holds 78 thousand values, its recording 384
  // thousand), far below memory trouble.
  constexpr std::int64_t kMaxValues = std::int64_t{1} << 25;
  const std::int64_t scene_values = SceneSize(sensor, scene, frames);
  if (scene_values > kMaxValues) {
    throw HostError(
        "the scene would hold " + std::to_string(scene_values) + " values (columns x 4 x the " +
        "lines seen over the run, panning included), more than the " + std::to_string(kMaxValues) +
        " the simulator takes: use fewer frames, less motion or fewer columns");
  }
  if (recording && sensor.GridSize() * frames > kMaxValues) {
    throw HostError("a recording of " + std::to_string(frames) + " frames of " +
                    std::to_string(sensor.GridSize()) + " values is more than the " +
                    std::to_string(kMaxValues) + " values the tool records at once");
  }
}

std::string Refusal(const std::vector<std::string>& lines) {
  for (const std::string& line : lines) {
    // "[func] refused: <limit>": keep the function and the limit it names.
    const std::size_t at = line.find(" refused: ");
    if (at != std::string::npos) return line.substr(0, at) + " " + line.substr(at + 10);
  }
  return {};
}

DetectFlags ReadDetectFigures(const std::vector<std::string>& lines, std::int32_t result,
                              std::int32_t state_hz, const FlkExtPara& tuning, FrameResult& r) {
  DetectFlags flags;
  bool counted = true;
  for (const std::string& line : lines) {
    std::string_view l(line);
    if (l.starts_with("Freq_out = ")) {
      auto& e = r.energies;
      r.has_energies =
          std::sscanf(line.c_str(), "Freq_out = %d, %d, %d, %d, %d, %d, %d, %d, %d", &e[0], &e[1],
                      &e[2], &e[3], &e[4], &e[5], &e[6], &e[7], &e[8]) == 9;
    } else if (l.starts_with("Seq_test: stats") && l.find("%D") == std::string_view::npos) {
      // (The 2x5 test's line carries a conversion printf does not know, which shifts its
      // figures; its score and sum are read from the queue below instead.)
      r.has_relative = FieldAfter(l, "cur_feat:", r.relative_q8);
      r.has_score = FieldAfter(l, "cur_score:", r.score);
      r.has_seq = FieldAfter(l, "seq_score:", r.seq);
    } else if (l.starts_with("Seq_test: insufficient_data")) {
      std::int32_t count = 0;
      FieldAfter(l, "count:", count);
      r.note = "warming up (" + std::to_string(count) + " scored)";
    } else if (l.starts_with("Seq_test: invalid")) {
      counted = false;
    } else if (l.starts_with("frame AE unstable")) {
      flags.unstable = true;
    } else if (l.starts_with("frame can't be registered")) {
      flags.unregistered = true;
    } else if (l.find(" is flat") != std::string_view::npos) {
      flags.flat = true;
    }
  }
  if (result == -1) {
    r.note = "no result from the library";
    counted = false;
  }
  // Not every test reports the frame's score (nor does one still warming up): the newest queue
  // entry is that score. The queue reads in whole units rounded down where the test's own line
  // rounds to nearest, so a score or sum read here can be one below the test's.
  if (counted && !r.has_score) {
    r.score = get_slrt_score(1);
    r.has_score = true;
  }
  if (counted && !r.has_seq && !r.note.starts_with("warming")) {
    r.seq = get_slrt_score(static_cast<std::uint32_t>(tuning.max_past_frames));
    r.has_seq = true;
  }
  // The scored band relative to the mean of the other eight, as the test measures it (120 Hz in
  // the 50 Hz state, 100 Hz in the 60 Hz state with the default feature indices).
  if (counted && !r.has_relative && r.has_energies) {
    const std::size_t k =
        static_cast<std::size_t>(tuning.freq_feature_index[state_hz == 50 ? 0 : 1]);
    std::int64_t others = 0;
    for (std::size_t i = 0; i < 9; ++i) {
      if (i != k) others += r.energies[i];
    }
    const std::int64_t mean = std::max<std::int64_t>(others / 8, 1);
    r.relative_q8 = static_cast<std::int32_t>((r.energies[k] - mean) * 256 / mean);
    r.has_relative = true;
  }
  // The standard and SONY tests skip a frame whose brightness changed; the 2x5 test has no such
  // gate and queues a score for it all the same.
  if (counted && flags.unstable) r.note = "brightness changed, scored all the same";
  r.counted = counted;
  return flags;
}

std::string NotCountedWhy(const DetectFlags& flags, const std::string& condition,
                          const std::string& init_caveat) {
  // In the order the detector meets the reasons.
  if (flags.unstable) return "brightness changed between the frames";
  if (flags.unregistered) return "not aligned: the frames could not be registered";
  if (!condition.empty()) return condition;
  if (flags.flat) return "flat: no detail to align the frames by";
  return "no energy measured" + (init_caveat.empty() ? "" : " (INIT: " + init_caveat + ")");
}

LibrarySession::LibrarySession(const SensorSetup& sensor, std::int32_t initial_state_hz,
                               double exposure_s, bool verbose, const FlkExtPara& tuning)
    : sensor_(sensor),
      tuning_(tuning),
      state_hz_(initial_state_hz),
      exposure_s_(exposure_s),
      verbose_(verbose) {
  if (g_session != nullptr) throw HostError("one library session at a time");
  CheckSensorSetup(sensor_);
  g_session = this;
  SetLogSinkFlk(&LibrarySession::Sink);

  try {
    // Flow logging makes the detector report its nine energies and the sequential test its
    // score: the per-frame figures the host shows.
    FlkLogPara log = FLK_LOG_FLOW;
    Send(CMD_SET_LOG_LEVEL, &log, nullptr, "SET_LOG_LEVEL");
    FlkExtPara para = tuning;
    para.is_zhdr = sensor_.zhdr ? 1 : 0;
    para.zhdr_gle_first = sensor_.zhdr_gle_first ? 1 : 0;
    para.zhdr_se_small = sensor_.zhdr_se_small ? 1 : 0;
    Send(CMD_SET_EXT_PARA, &para, nullptr, "SET_EXT_PARA");
    FlkInitPara init = InitParaOf(sensor_);
    Send(CMD_INIT, &init, nullptr, "INIT");
    // A caveat the INIT logs (a range the tables cannot follow) explains frames later.
    for (const std::string& line : lines_) {
      const std::size_t close = line.find("] ");
      if (line.starts_with("[flicker_init") && close != std::string::npos)
        init_caveat_ = line.substr(close + 2);
    }
    EvTable state = state_hz_ == 60 ? EV_TABLE_60HZ : EV_TABLE_50HZ;
    Send(CMD_SET_STATE, &state, nullptr, "SET_STATE");
    Send(CMD_RESET_QUEUE, nullptr, nullptr, "RESET_QUEUE");
  } catch (...) {
    // The destructor does not run for a half-built session.
    FlkLogPara quiet = 0;
    SendCmdFlk(CMD_SET_LOG_LEVEL, &quiet, nullptr);
    SendCmdFlk(CMD_UNINIT, nullptr, nullptr);
    SetLogSinkFlk(nullptr);
    g_session = nullptr;
    throw;
  }
}

LibrarySession::~LibrarySession() {
  try {
    FlkLogPara log = 0;
    Send(CMD_SET_LOG_LEVEL, &log, nullptr, "SET_LOG_LEVEL");
    Send(CMD_UNINIT, nullptr, nullptr, "UNINIT");
  } catch (const HostError&) {
    // Nothing to report on the way out.
  }
  SetLogSinkFlk(nullptr);
  g_session = nullptr;
}

void LibrarySession::Sink(int, const char*, const char* text) {
  if (g_session == nullptr) return;
  std::string line(text);
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
  if (g_session->verbose_) std::fprintf(stderr, "library: %s\n", line.c_str());
  g_session->lines_.push_back(std::move(line));
}

void LibrarySession::Send(std::uint32_t cmd, void* in, void* out, const char* what) {
  lines_.clear();
  {
    StdoutDiversion diversion(verbose_);
    SendCmdFlk(static_cast<FlkCmd>(cmd), in, out);
  }
  const std::string refusal = Refusal(lines_);
  if (!refusal.empty())
    throw HostError(std::string("the library refused ") + what + ": " + refusal);
}

FrameResult LibrarySession::Detect(std::int32_t frame, const Frame& prev, const Frame& cur) {
  FrameResult r;
  r.frame = frame;
  r.exposure_s = cur.exposure_s;
  r.state_hz = state_hz_;
  const std::size_t n = static_cast<std::size_t>(sensor_.GridSize());
  if (prev.grid.size() != n || cur.grid.size() != n) {
    throw HostError("frame " + std::to_string(frame) + " holds " + std::to_string(cur.grid.size()) +
                    " values, the geometry needs " + std::to_string(n));
  }

  // The library takes the caller's grids (and the SONY pipeline rewrites them): hand it copies in
  // the family's element type so the frames stay as captured.
  FlkDetectPara para{};
  para.type = sensor_.type;
  if (sensor_.type == 0) {
    prev64_.assign(prev.grid.begin(), prev.grid.end());
    cur64_.assign(cur.grid.begin(), cur.grid.end());
    para.prev_stats = prev64_.data();
    para.cur_stats = cur64_.data();
  } else {
    prev32_.resize(n);
    cur32_.resize(n);
    for (std::size_t i = 0; i < n; ++i) {
      prev32_[i] = static_cast<std::int32_t>(prev.grid[i]);
      cur32_[i] = static_cast<std::int32_t>(cur.grid[i]);
    }
    para.prev_stats = prev32_.data();
    para.cur_stats = cur32_.data();
  }
  para.n_win_h = sensor_.n_win_h;
  para.n_win_w = sensor_.n_win_w;
  para.win_wd = sensor_.window_width;
  para.win_ht = sensor_.win_ht;
  para.cur_freq = state_hz_;
  para.out_ptr = nullptr;
  std::int32_t result = -1;
  try {
    Send(CMD_DETECT, &para, &result, "DETECT");
  } catch (const HostError& e) {
    throw HostError("frame " + std::to_string(frame) + ": " + e.what());
  }
  r.result = result;

  const DetectFlags flags = ReadDetectFigures(lines_, result, state_hz_, tuning_, r);
  if (!r.counted && result != -1) {
    std::string condition = Condition(sensor_, cur);
    if (condition.empty()) condition = Condition(sensor_, prev);
    r.note = "not counted: " + NotCountedWhy(flags, condition, init_caveat_);
  }

  r.next_exposure_s = exposure_s_;
  if ((result == FLK_RESULT_50HZ || result == FLK_RESULT_60HZ) && result != StateCode(state_hz_)) {
    const std::int32_t to = result == FLK_RESULT_60HZ ? 60 : 50;
    EvTable state = to == 60 ? EV_TABLE_60HZ : EV_TABLE_50HZ;
    Send(CMD_SET_STATE, &state, nullptr, "SET_STATE");
    Send(CMD_RESET_QUEUE, nullptr, nullptr, "RESET_QUEUE");
    const double next = ExposureForMains(exposure_s_, to, sensor_.FramePeriod());
    r.switched = true;
    r.action = "switch to " + std::to_string(to) + " Hz: SET_STATE " +
               std::to_string(to == 60 ? 1 : 0) + ", RESET_QUEUE, exposure " + Ms(exposure_s_) +
               " ms -> " + Ms(next) + " ms";
    state_hz_ = to;
    exposure_s_ = next;
    r.next_exposure_s = next;
  }
  return r;
}

FlkInitPara InitParaOf(const SensorSetup& sensor) {
  FlkInitPara init{};
  init.type = sensor.type;
  init.line_length = sensor.line_length;
  init.column_length = sensor.column_length;
  init.window_width = sensor.window_width;
  init.pclk = sensor.pclk;
  init.block_height = sensor.block_height;
  init.green_only = sensor.green_only;
  return init;
}

void ProbeLibrary(const SensorSetup& sensor, const FlkExtPara& tuning) {
  LibrarySession probe(sensor, 50, sensor.FramePeriod() / 2, false, tuning);
  Frame flat;
  flat.grid.assign(static_cast<std::size_t>(sensor.GridSize()), 0);
  try {
    probe.Detect(1, flat, flat);
  } catch (const HostError& e) {
    // Not about a frame of the run: drop the frame number.
    const std::string what = e.what();
    throw HostError(what.starts_with("frame 1: ") ? what.substr(9) : what);
  }
}

namespace {

void Tally(RunResult& run, const FrameResult& r, const HostOptions& options) {
  if (r.switched) {
    if (run.first_switch_frame < 0) run.first_switch_frame = r.frame;
    ++run.switches;
  }
  if (!r.counted) ++run.skipped;
  run.results.push_back(r);
  if (options.on_frame) options.on_frame(r);
}

}  // namespace

RunResult Simulate(const SensorSetup& sensor, const SceneSetup& scene, std::int32_t frames,
                   double exposure_s, std::int32_t initial_state_hz, const HostOptions& options) {
  CheckRun(sensor, scene, frames, exposure_s, false);
  RunResult run;
  run.sensor = sensor;
  run.initial_state_hz = initial_state_hz;
  run.frames = frames;
  run.switch_threshold = {options.tuning.ev50_thresholds[1], options.tuning.ev60_thresholds[1]};
  SceneSimulator simulator(sensor, scene, frames);
  LibrarySession session(sensor, initial_state_hz, exposure_s, options.verbose, options.tuning);
  Frame prev = simulator.Generate(0, session.exposure_s());
  if (options.on_capture) options.on_capture(prev);
  for (std::int32_t k = 1; k < frames; ++k) {
    Frame cur = simulator.Generate(k, session.exposure_s());
    if (options.on_capture) options.on_capture(cur);
    Tally(run, session.Detect(k, prev, cur), options);
    prev = std::move(cur);
  }
  run.final_state_hz = session.state_hz();
  return run;
}

RunResult Simulate(const SensorSetup& sensor, const SceneSetup& scene, std::int32_t frames,
                   double exposure_s, std::int32_t initial_state_hz, bool verbose,
                   Recording* recording) {
  HostOptions options;
  options.verbose = verbose;
  if (recording != nullptr) {
    CheckRun(sensor, scene, frames, exposure_s, true);
    recording->sensor = sensor;
    recording->initial_state_hz = initial_state_hz;
    recording->light_hz = static_cast<std::int32_t>(scene.mains_hz);
    recording->frames.clear();
    options.on_capture = [recording](const Frame& f) { recording->frames.push_back(f); };
  }
  return Simulate(sensor, scene, frames, exposure_s, initial_state_hz, options);
}

RunResult Replay(RecordingReader& reader, std::int32_t initial_state_hz,
                 const HostOptions& options) {
  const Recording& header = reader.header();
  if (reader.frame_count() < 2) {
    throw HostError("the recording holds " + std::to_string(reader.frame_count()) +
                    (reader.frame_count() == 1 ? " frame" : " frames") + "; a DETECT compares two");
  }
  RunResult run;
  run.sensor = header.sensor;
  run.initial_state_hz = initial_state_hz;
  run.frames = static_cast<std::int32_t>(reader.frame_count());
  run.switch_threshold = {options.tuning.ev50_thresholds[1], options.tuning.ev60_thresholds[1]};
  Frame prev, cur;
  reader.Next(prev);
  if (options.on_capture) options.on_capture(prev);
  LibrarySession session(header.sensor, initial_state_hz, prev.exposure_s, options.verbose,
                         options.tuning);
  for (std::int32_t k = 1; reader.Next(cur); ++k) {
    if (options.on_capture) options.on_capture(cur);
    Tally(run, session.Detect(k, prev, cur), options);
    std::swap(prev, cur);
  }
  run.final_state_hz = session.state_hz();
  return run;
}

RunResult Replay(const Recording& recording, std::int32_t initial_state_hz, bool verbose) {
  if (recording.frames.size() < 2) {
    throw HostError("the recording holds " + std::to_string(recording.frames.size()) +
                    (recording.frames.size() == 1 ? " frame" : " frames") +
                    "; a DETECT compares two");
  }
  RunResult run;
  run.sensor = recording.sensor;
  run.initial_state_hz = initial_state_hz;
  run.frames = static_cast<std::int32_t>(recording.frames.size());
  HostOptions options;
  LibrarySession session(recording.sensor, initial_state_hz, recording.frames[0].exposure_s,
                         verbose);
  for (std::size_t k = 1; k < recording.frames.size(); ++k) {
    Tally(
        run,
        session.Detect(static_cast<std::int32_t>(k), recording.frames[k - 1], recording.frames[k]),
        options);
  }
  run.final_state_hz = session.state_hz();
  return run;
}

}  // namespace kestrel_host
