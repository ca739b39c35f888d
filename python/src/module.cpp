// SPDX-License-Identifier: Apache-2.0
// _kestrel_flicker: the library and the host tool's simulator, recordings and reports for Python.
// Everything that computes stays in C++ (the library, tools/host); this file only converts between
// numpy arrays / dicts and the host's records.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include <kestrel/flicker.h>

#include "host/error.h"
#include "host/evaluate.h"
#include "host/ext_para.h"
#include "host/host.h"
#include "host/output.h"
#include "host/recording.h"
#include "host/report.h"
#include "host/scene.h"

// The line vectors of the newest DETECT: exported working memories of the library, 6000 entries
// each (one per statistics row, the selected column of each band).
extern std::int32_t line_prev_working_memory[6000];
extern std::int32_t line_curr_working_memory[6000];

namespace py = pybind11;
namespace kh = kestrel_host;

namespace {

constexpr std::size_t kLineVectorSize = 6000;

class Detector;
// The library keeps its state in globals: one Detector (or one simulate/replay) at a time.
Detector* g_live = nullptr;

void RequireNoDetector(const char* what) {
  if (g_live != nullptr) {
    throw std::runtime_error(std::string(what) +
                             " needs the library, and a Detector holds it: close() it first");
  }
}

// ---- dict <-> host records ------------------------------------------------------------------

// A shallow copy of a dict argument: the readers below consume its keys to find unknown ones.
py::dict Copy(const py::object& obj) {
  if (!py::isinstance<py::dict>(obj)) {
    throw py::value_error("expected a dict, got " +
                          py::str(obj.get_type().attr("__name__")).cast<std::string>());
  }
  return py::reinterpret_steal<py::dict>(PyDict_Copy(obj.cast<py::dict>().ptr()));
}

template <typename T>
void Take(py::dict& d, const char* key, T& field) {
  if (d.contains(key)) {
    field = d[key].cast<T>();
    PyDict_DelItemString(d.ptr(), key);
  }
}

void RejectLeftovers(const py::dict& d, const char* what) {
  if (py::len(d) == 0) return;
  std::string keys;
  for (auto item : d) keys += (keys.empty() ? "" : ", ") + py::str(item.first).cast<std::string>();
  throw py::value_error(std::string("unknown ") + what + " key(s): " + keys);
}

py::dict SensorDict(const kh::SensorSetup& s) {
  py::dict d;
  d["type"] = s.type;
  d["line_length"] = s.line_length;
  d["column_length"] = s.column_length;
  d["pclk"] = s.pclk;
  d["window_width"] = s.window_width;
  d["block_height"] = s.block_height;
  d["green_only"] = s.green_only;
  d["n_win_h"] = s.n_win_h;
  d["n_win_w"] = s.n_win_w;
  d["win_ht"] = s.win_ht;
  d["zhdr"] = s.zhdr;
  d["zhdr_gle_first"] = s.zhdr_gle_first;
  d["zhdr_se_small"] = s.zhdr_se_small;
  return d;
}

// A sensor from a dict: the family's defaults (by its "type" and "zhdr"), then every key given.
kh::SensorSetup SensorFrom(const py::object& obj) {
  if (obj.is_none()) return kh::DefaultSensor(0);
  py::dict d = Copy(obj);
  std::int32_t type = 0;
  bool zhdr = false;
  Take(d, "type", type);
  Take(d, "zhdr", zhdr);
  kh::SensorSetup s = kh::DefaultSensor(type, zhdr);
  s.type = type;
  Take(d, "line_length", s.line_length);
  Take(d, "column_length", s.column_length);
  Take(d, "pclk", s.pclk);
  Take(d, "window_width", s.window_width);
  Take(d, "block_height", s.block_height);
  Take(d, "green_only", s.green_only);
  Take(d, "n_win_h", s.n_win_h);
  Take(d, "n_win_w", s.n_win_w);
  Take(d, "win_ht", s.win_ht);
  Take(d, "zhdr_gle_first", s.zhdr_gle_first);
  Take(d, "zhdr_se_small", s.zhdr_se_small);
  RejectLeftovers(d, "sensor");
  return s;
}

kh::SceneSetup SceneFrom(const py::object& obj) {
  kh::SceneSetup s;
  if (obj.is_none()) return s;
  py::dict d = Copy(obj);
  Take(d, "mains_hz", s.mains_hz);
  Take(d, "depth", s.depth);
  Take(d, "brightness", s.brightness);
  Take(d, "texture", s.texture);
  Take(d, "noise", s.noise);
  Take(d, "motion", s.motion);
  Take(d, "hdr_ratio", s.hdr_ratio);
  Take(d, "seed", s.seed);
  if (d.contains("steps")) {
    for (auto step : d["steps"]) {
      auto pair = step.cast<std::pair<std::int32_t, double>>();
      s.steps.push_back({pair.first, pair.second});
    }
    PyDict_DelItemString(d.ptr(), "steps");
  }
  RejectLeftovers(d, "scene");
  return s;
}

py::dict ExtParaDict(const FlkExtPara& p) {
  py::dict d;
  d["flicker_freq"] = std::vector<std::int32_t>(p.flicker_freq, p.flicker_freq + 9);
  d["flicker_grad_threshold"] = p.flicker_grad_threshold;
  d["flicker_search_range"] = p.flicker_search_range;
  d["min_past_frames"] = p.min_past_frames;
  d["max_past_frames"] = p.max_past_frames;
  d["ev50_l50"] = std::vector<std::int32_t>(p.ev50_l50, p.ev50_l50 + 4);
  d["ev50_l60"] = std::vector<std::int32_t>(p.ev50_l60, p.ev50_l60 + 4);
  d["ev60_l50"] = std::vector<std::int32_t>(p.ev60_l50, p.ev60_l50 + 4);
  d["ev60_l60"] = std::vector<std::int32_t>(p.ev60_l60, p.ev60_l60 + 4);
  d["ev50_thresholds"] = std::vector<std::int32_t>(p.ev50_thresholds, p.ev50_thresholds + 2);
  d["ev60_thresholds"] = std::vector<std::int32_t>(p.ev60_thresholds, p.ev60_thresholds + 2);
  d["freq_feature_index"] =
      std::vector<std::int32_t>(p.freq_feature_index, p.freq_feature_index + 2);
  d["is_zhdr"] = p.is_zhdr != 0;
  d["zhdr_se_small"] = p.zhdr_se_small != 0;
  d["zhdr_gle_first"] = p.zhdr_gle_first != 0;
  return d;
}

template <std::size_t N>
void TakeArray(py::dict& d, const char* key, std::int32_t (&field)[N]) {
  if (!d.contains(key)) return;
  const auto v = d[key].cast<std::vector<std::int32_t>>();
  if (v.size() != N) {
    throw py::value_error(std::string(key) + " takes " + std::to_string(N) + " values, not " +
                          std::to_string(v.size()));
  }
  std::copy(v.begin(), v.end(), field);
  PyDict_DelItemString(d.ptr(), key);
}

void TakeByte(py::dict& d, const char* key, std::uint8_t& field) {
  bool on = field != 0;
  Take(d, key, on);
  field = on ? 1 : 0;
}

// The tuning record from a dict: `base`, then every key given.
FlkExtPara ExtParaFrom(FlkExtPara p, const py::object& given) {
  py::dict d = Copy(given);
  TakeArray(d, "flicker_freq", p.flicker_freq);
  Take(d, "flicker_grad_threshold", p.flicker_grad_threshold);
  Take(d, "flicker_search_range", p.flicker_search_range);
  Take(d, "min_past_frames", p.min_past_frames);
  Take(d, "max_past_frames", p.max_past_frames);
  TakeArray(d, "ev50_l50", p.ev50_l50);
  TakeArray(d, "ev50_l60", p.ev50_l60);
  TakeArray(d, "ev60_l50", p.ev60_l50);
  TakeArray(d, "ev60_l60", p.ev60_l60);
  TakeArray(d, "ev50_thresholds", p.ev50_thresholds);
  TakeArray(d, "ev60_thresholds", p.ev60_thresholds);
  TakeArray(d, "freq_feature_index", p.freq_feature_index);
  TakeByte(d, "is_zhdr", p.is_zhdr);
  TakeByte(d, "zhdr_se_small", p.zhdr_se_small);
  TakeByte(d, "zhdr_gle_first", p.zhdr_gle_first);
  RejectLeftovers(d, "tuning");
  return p;
}

// Grid shape (bands, rows per band, columns) of a sensor; the "2x5" family's win_ht counts the rows
// of all bands.
std::vector<py::ssize_t> GridShape(const kh::SensorSetup& s) {
  std::int32_t rows = s.win_ht;
  if (s.type == 2) {
    if (s.n_win_h <= 0 || s.win_ht % s.n_win_h != 0) {
      throw py::value_error("a 2x5 grid needs win_ht (" + std::to_string(s.win_ht) +
                            ") to be a multiple of n_win_h (" + std::to_string(s.n_win_h) + ")");
    }
    rows = s.win_ht / s.n_win_h;
  }
  return {s.n_win_h, rows, s.n_win_w};
}

py::array GridArray(const kh::SensorSetup& s, const std::vector<std::int64_t>& grid) {
  const auto shape = GridShape(s);
  if (static_cast<std::int64_t>(grid.size()) != shape[0] * shape[1] * shape[2]) {
    throw py::value_error("a frame holds " + std::to_string(grid.size()) +
                          " values, the geometry needs " +
                          std::to_string(shape[0] * shape[1] * shape[2]));
  }
  if (s.type == 0) return py::array_t<std::int64_t>(shape, grid.data());
  py::array_t<std::int32_t> a(shape);
  std::int32_t* out = a.mutable_data();
  for (std::size_t i = 0; i < grid.size(); ++i) out[i] = static_cast<std::int32_t>(grid[i]);
  return a;
}

py::object Optional(bool has, std::int32_t v) {
  return has ? py::object(py::int_(v)) : py::object(py::none());
}

py::dict FrameDict(const kh::FrameResult& r) {
  py::dict d;
  d["frame"] = r.frame;
  d["exposure_ms"] = r.exposure_s * 1e3;
  d["state_hz"] = r.state_hz;
  d["result"] = r.result;
  d["energies"] = r.has_energies ? py::object(py::array_t<std::int32_t>(9, r.energies.data()))
                                 : py::object(py::none());
  d["relative"] =
      r.has_relative ? py::object(py::float_(r.relative_q8 / 256.0)) : py::object(py::none());
  d["score"] = Optional(r.has_score, r.score);
  d["seq"] = Optional(r.has_seq, r.seq);
  d["counted"] = r.counted;
  d["note"] = r.note;
  return d;
}

// A run as columns: numpy arrays of one entry per DETECT (NaN where a figure is missing), and the
// tool's own table, summary, CSV and JSON of it.
py::dict RunDict(const kh::RunResult& run, const std::string& command) {
  const std::size_t n = run.results.size();
  py::array_t<std::int32_t> frame(n), state(n), result(n);
  py::array_t<double> exposure(n), next_exposure(n), relative(n), score(n), seq(n);
  py::array_t<double> energies(std::vector<py::ssize_t>{static_cast<py::ssize_t>(n), 9});
  py::array_t<bool> switched(n), counted(n);
  py::list notes, actions;
  const double nan = std::nan("");
  for (std::size_t i = 0; i < n; ++i) {
    const kh::FrameResult& r = run.results[i];
    frame.mutable_at(i) = r.frame;
    state.mutable_at(i) = r.state_hz;
    result.mutable_at(i) = r.result;
    exposure.mutable_at(i) = r.exposure_s * 1e3;
    next_exposure.mutable_at(i) = r.next_exposure_s * 1e3;
    relative.mutable_at(i) = r.has_relative ? r.relative_q8 / 256.0 : nan;
    score.mutable_at(i) = r.has_score ? r.score : nan;
    seq.mutable_at(i) = r.has_seq ? r.seq : nan;
    for (py::ssize_t k = 0; k < 9; ++k) {
      energies.mutable_at(i, k) = r.has_energies ? r.energies[static_cast<std::size_t>(k)] : nan;
    }
    switched.mutable_at(i) = r.switched;
    counted.mutable_at(i) = r.counted;
    notes.append(r.note);
    actions.append(r.action);
  }
  py::dict d;
  d["sensor"] = SensorDict(run.sensor);
  d["frames"] = run.frames;
  d["initial_state_hz"] = run.initial_state_hz;
  d["final_state_hz"] = run.final_state_hz;
  d["first_switch_frame"] =
      run.first_switch_frame >= 0 ? py::object(py::int_(run.first_switch_frame)) : py::none();
  d["switches"] = run.switches;
  d["frames_not_counted"] = run.skipped;
  d["frame"] = frame;
  d["exposure_ms"] = exposure;
  d["state_hz"] = state;
  d["energies"] = energies;
  d["relative"] = relative;
  d["score"] = score;
  d["seq"] = seq;
  d["result"] = result;
  d["switched"] = switched;
  d["counted"] = counted;
  d["next_exposure_ms"] = next_exposure;
  d["note"] = notes;
  d["action"] = actions;
  d["table"] = kh::FormatTable(run, false);
  d["summary"] = kh::FormatSummary(run);
  d["csv"] = kh::FormatCsv(run);
  d["json"] = kh::FormatJson(run, command);
  return d;
}

py::dict RecordingDict(const kh::Recording& rec) {
  py::dict d;
  d["sensor"] = SensorDict(rec.sensor);
  d["initial_state_hz"] = rec.initial_state_hz;
  d["light_hz"] = rec.light_hz ? py::object(py::int_(*rec.light_hz)) : py::object(py::none());
  py::list frames;
  for (const kh::Frame& f : rec.frames) {
    py::dict fd;
    fd["exposure_ms"] = f.exposure_s * 1e3;
    fd["grid"] = GridArray(rec.sensor, f.grid);
    frames.append(fd);
  }
  d["frames"] = frames;
  d["comments"] = rec.comments;
  return d;
}

kh::Recording RecordingFrom(const py::dict& d) {
  kh::Recording rec;
  rec.sensor = SensorFrom(d["sensor"]);
  if (d.contains("initial_state_hz")) rec.initial_state_hz = d["initial_state_hz"].cast<int>();
  if (d.contains("light_hz") && !d["light_hz"].is_none()) rec.light_hz = d["light_hz"].cast<int>();
  if (d.contains("comments")) rec.comments = d["comments"].cast<std::vector<std::string>>();
  for (auto item : d["frames"]) {
    const py::dict fd = item.cast<py::dict>();
    kh::Frame f;
    f.exposure_s = fd["exposure_ms"].cast<double>() * 1e-3;
    const auto grid = py::array_t<std::int64_t, py::array::c_style | py::array::forcecast>(
        fd["grid"].cast<py::object>());
    f.grid.assign(grid.data(), grid.data() + grid.size());
    rec.frames.push_back(std::move(f));
  }
  return rec;
}

bool IsPath(const py::object& obj) {
  return py::isinstance<py::str>(obj) || py::hasattr(obj, "__fspath__");
}

std::string PathOf(const py::object& obj) {
  return py::module_::import("os").attr("fspath")(obj).cast<std::string>();
}

// The tuning of a run: the defaults, a dict over them, or a tuning file.
FlkExtPara TuningFrom(const py::object& obj) {
  if (obj.is_none()) return FlkDefaultExtPara();
  if (IsPath(obj)) return kh::LoadExtPara(PathOf(obj));
  return ExtParaFrom(FlkDefaultExtPara(), obj);
}

py::dict StatsDict(const kh::EvalStats& s) {
  py::dict d;
  d["name"] = s.name;
  d["runs"] = s.runs;
  d["frames"] = s.frames;
  d["other_runs"] = s.other_runs;
  d["detectable_runs"] = s.detectable_runs;
  d["switched"] = s.detected;
  d["within5"] = s.within5;
  d["within10"] = s.within10;
  // Rates as fractions (NaN when no run could switch), latencies in frames.
  d["detection_rate"] = s.DetectionRate() / 100.0;
  d["within5_rate"] = s.Within5Rate() / 100.0;
  d["within10_rate"] = s.Within10Rate() / 100.0;
  d["latency_median"] = s.LatencyMedian();
  d["latency_p95"] = s.LatencyP95();
  d["latencies"] =
      py::array_t<std::int32_t>(static_cast<py::ssize_t>(s.latencies.size()), s.latencies.data());
  d["calm_frames"] = s.calm_frames;
  d["false_switches"] = s.false_switches;
  d["false_per_1000"] = s.FalsePer1000();
  d["not_counted"] = s.not_counted;
  return d;
}

// ---- Detector -------------------------------------------------------------------------------

// Standard output of the library (its table timing lines) during one command, as lines: the
// library writes them with printf, so fd 1 goes to a temporary file for the call.
class StdoutCapture {
 public:
  StdoutCapture() {
    std::fflush(stdout);
    file_ = std::tmpfile();
    saved_ = ::dup(STDOUT_FILENO);
    if (file_ != nullptr && saved_ >= 0) ::dup2(::fileno(file_), STDOUT_FILENO);
  }
  ~StdoutCapture() {
    Restore();
    if (file_ != nullptr) std::fclose(file_);
  }
  StdoutCapture(const StdoutCapture&) = delete;
  StdoutCapture& operator=(const StdoutCapture&) = delete;

  std::vector<std::string> Lines() {
    Restore();
    std::vector<std::string> lines;
    if (file_ == nullptr) return lines;
    std::rewind(file_);
    std::string text;
    char buffer[4096];
    std::size_t got;
    while ((got = std::fread(buffer, 1, sizeof buffer, file_)) > 0) text.append(buffer, got);
    std::size_t at = 0;
    while (at < text.size()) {
      std::size_t end = text.find('\n', at);
      if (end == std::string::npos) end = text.size();
      lines.push_back(text.substr(at, end - at));
      at = end + 1;
    }
    return lines;
  }

 private:
  void Restore() {
    std::fflush(stdout);
    if (saved_ >= 0) {
      ::dup2(saved_, STDOUT_FILENO);
      ::close(saved_);
      saved_ = -1;
    }
  }
  std::FILE* file_ = nullptr;
  int saved_ = -1;
};

constexpr const char* kDetectorDoc = R"doc(The flicker detector, driven command by command.

Detector(sensor=None, state_hz=50, ext_para=None, log=None, log_line_data=False)

On construction: SET_LOG_LEVEL, SET_EXT_PARA (``ext_para``: a dict of FlkExtPara fields over the
compiled-in defaults, or the path of a JSON file with those keys; default: the defaults, with the
sensor's zHDR switches), INIT with the sensor's timing (``sensor``: a dict as ``default_sensor``
returns; missing keys take the family's defaults), SET_STATE ``state_hz`` (50 or 60) and
RESET_QUEUE. ``close()`` (or leaving a ``with`` block) sends UNINIT.

The library keeps its state in process globals: only ONE Detector may be live in a process at a
time (a second raises RuntimeError until the first is closed), and ``simulate``/``replay`` refuse to
run while one is. Every call holds the GIL for its whole duration; do not share a Detector
between threads.

Every log line of the library (and its standard-output lines) goes to ``log(line)``, by default
``logging.getLogger("kestrel_flicker").debug``; nothing is printed to stderr. Flow logging is
always on: the detector's per-frame figures are read from it.)doc";

constexpr const char* kDetectDoc = R"doc(DETECT on two frames; returns a dict.

``prev``, ``cur``: statistics grids, shape (bands, rows, columns), C-contiguous, dtype int64 for
a type 0 sensor and int32 for types 1 and 2 (the "2x5" family's win_ht is bands x rows). A wrong
shape or dtype raises ValueError naming what was expected. The library is handed copies (the SONY
and zHDR stages rewrite grids in place), so the arrays stay untouched. ``win_wd``: window width
(default: the sensor's window_width).

Result: ``result`` (2 = 50 Hz, 3 = 60 Hz), ``energies`` (the nine energies at 70..170 Hz, int32,
or None), ``relative`` (scored band over the mean of the others, minus 1), ``score`` (frame score,
whole units), ``seq`` (sequential score, None while warming up), ``counted``, ``note``, ``frame``
(DETECTs so far) and ``state_hz``. The library does not switch by itself: on the other state's
code, call ``set_state`` and ``reset_queue`` as an auto-exposure does.)doc";

class Detector {
 public:
  Detector(const py::object& sensor, std::int32_t state_hz, const py::object& ext_para,
           py::object log, bool log_line_data)
      : sensor_(SensorFrom(sensor)), log_(std::move(log)), log_line_data_(log_line_data) {
    if (g_live != nullptr) {
      throw std::runtime_error(
          "another Detector is live: the library holds one session per process; close() it "
          "first (or leave its `with` block)");
    }
    kh::CheckSensorSetup(sensor_);
    if (log_.is_none())
      log_ = py::module_::import("logging").attr("getLogger")("kestrel_flicker").attr("debug");
    g_live = this;
    SetLogSinkFlk(&Detector::Sink);
    try {
      // Flow logging on: the detector logs its nine energies and the test its score, the figures
      // detect() returns.
      FlkLogPara level = FLK_LOG_FLOW | (log_line_data_ ? FLK_LOG_LINE_DATA : 0u);
      Send(CMD_SET_LOG_LEVEL, &level, nullptr, "SET_LOG_LEVEL");
      SetExtPara(ext_para);
      FlkInitPara init = kh::InitParaOf(sensor_);
      Send(CMD_INIT, &init, nullptr, "INIT");
      SetState(state_hz);
      ResetQueue();
    } catch (...) {
      Close();
      throw;
    }
  }
  ~Detector() {
    if (open_) {
      try {
        Close();
      } catch (...) {
        // Nothing to report from a destructor.
      }
    }
  }
  Detector(const Detector&) = delete;
  Detector& operator=(const Detector&) = delete;

  void Close() {
    if (!open_) return;
    open_ = false;
    FlkLogPara quiet = 0;
    SendCmdFlk(CMD_SET_LOG_LEVEL, &quiet, nullptr);
    SendCmdFlk(CMD_UNINIT, nullptr, nullptr);
    SetLogSinkFlk(nullptr);
    lines_.clear();
    if (g_live == this) g_live = nullptr;
  }

  void SetExtPara(const py::object& ext_para) {
    // The defaults with the sensor's zHDR packing, then whatever the caller gives.
    FlkExtPara p = FlkDefaultExtPara();
    p.is_zhdr = sensor_.zhdr ? 1 : 0;
    p.zhdr_gle_first = sensor_.zhdr_gle_first ? 1 : 0;
    p.zhdr_se_small = sensor_.zhdr_se_small ? 1 : 0;
    if (py::isinstance<py::dict>(ext_para)) {
      p = ExtParaFrom(p, ext_para);
    } else if (IsPath(ext_para)) {
      // A tuning file, read as the tool reads it; its zHDR switches are the file's.
      p = kh::LoadExtPara(PathOf(ext_para));
    } else if (!ext_para.is_none()) {
      throw py::value_error("ext_para: expected a dict or the path of a JSON file");
    }
    Send(CMD_SET_EXT_PARA, &p, nullptr, "SET_EXT_PARA");
    tuning_ = p;
  }

  void SetState(std::int32_t hz) {
    if (hz != 50 && hz != 60) {
      throw py::value_error("state_hz must be 50 or 60, not " + std::to_string(hz));
    }
    EvTable state = hz == 60 ? EV_TABLE_60HZ : EV_TABLE_50HZ;
    Send(CMD_SET_STATE, &state, nullptr, "SET_STATE");
    state_hz_ = hz;
  }

  void ResetQueue() { Send(CMD_RESET_QUEUE, nullptr, nullptr, "RESET_QUEUE"); }

  py::dict Detect(const py::array& prev, const py::array& cur, std::int32_t win_wd) {
    RequireOpen();
    const bool wide = sensor_.type == 0;
    const char* dtype = wide ? "int64" : "int32";
    CheckGrid(prev, "prev", dtype);
    CheckGrid(cur, "cur", dtype);
    if (!prev.request().shape.empty() && prev.request().shape != cur.request().shape) {
      throw py::value_error("prev and cur must have the same shape (bands x rows x columns)");
    }
    const auto shape = prev.request().shape;
    FlkDetectPara para{};
    para.type = sensor_.type;
    para.n_win_h = static_cast<std::int32_t>(shape[0]);
    para.win_ht = static_cast<std::int32_t>(sensor_.type == 2 ? shape[0] * shape[1] : shape[1]);
    para.n_win_w = static_cast<std::int32_t>(shape[2]);
    para.win_wd = win_wd > 0 ? win_wd : sensor_.window_width;
    para.cur_freq = state_hz_;
    // The SONY and zHDR stages rewrite the grids in place: the library works on copies, so the
    // caller's arrays stay as captured.
    const std::size_t n = static_cast<std::size_t>(prev.size());
    const std::size_t width = wide ? 8 : 4;
    prev_copy_.resize(n * width / 8 + 1);
    cur_copy_.resize(n * width / 8 + 1);
    std::memcpy(prev_copy_.data(), prev.data(), n * width);
    std::memcpy(cur_copy_.data(), cur.data(), n * width);
    para.prev_stats = prev_copy_.data();
    para.cur_stats = cur_copy_.data();
    std::int32_t result = -1;
    Send(CMD_DETECT, &para, &result, "DETECT");

    kh::FrameResult r;
    r.frame = ++frames_;
    r.state_hz = state_hz_;
    r.result = result;
    const kh::DetectFlags flags = kh::ReadDetectFigures(lines_, result, state_hz_, tuning_, r);
    if (!r.counted && result != -1) r.note = "not counted: " + kh::NotCountedWhy(flags, "", "");
    rows_ = std::min<std::size_t>(static_cast<std::size_t>(shape[0] * shape[1]), kLineVectorSize);
    py::dict d = FrameDict(r);
    PyDict_DelItemString(d.ptr(), "exposure_ms");
    return d;
  }

  py::tuple LineVectors() const {
    return py::make_tuple(py::array_t<std::int32_t>(rows_, line_prev_working_memory),
                          py::array_t<std::int32_t>(rows_, line_curr_working_memory));
  }

  std::int32_t state_hz() const { return state_hz_; }
  bool open() const { return open_; }
  py::dict sensor() const { return SensorDict(sensor_); }

 private:
  void RequireOpen() const {
    if (!open_) throw std::runtime_error("this Detector is closed");
  }

  void CheckGrid(const py::array& a, const char* name, const char* dtype) const {
    if (a.ndim() != 3) {
      throw py::value_error(std::string(name) +
                            ": expected a 3-d array (bands x rows x columns) of " + dtype +
                            ", got " + std::to_string(a.ndim()) + " dimension(s)");
    }
    const bool ok = sensor_.type == 0 ? py::isinstance<py::array_t<std::int64_t>>(a)
                                      : py::isinstance<py::array_t<std::int32_t>>(a);
    if (!ok) {
      throw py::value_error(std::string(name) + ": expected dtype " + dtype + " for a type " +
                            std::to_string(sensor_.type) + " sensor, got " +
                            py::str(a.dtype()).cast<std::string>());
    }
    if (!(a.flags() & py::array::c_style)) {
      throw py::value_error(std::string(name) + ": expected a C-contiguous array");
    }
    if (a.shape(0) <= 0 || a.shape(1) <= 0 || a.shape(2) <= 0) {
      throw py::value_error(std::string(name) + ": expected non-empty bands x rows x columns");
    }
  }

  void Send(std::uint32_t cmd, void* in, void* out, const char* what) {
    RequireOpen();
    lines_.clear();
    std::vector<std::string> printed;
    {
      StdoutCapture capture;
      SendCmdFlk(static_cast<FlkCmd>(cmd), in, out);
      printed = capture.Lines();
    }
    for (const std::string& line : printed) lines_.push_back(line);
    for (const std::string& line : lines_) log_(line);
    const std::string refusal = kh::Refusal(lines_);
    if (!refusal.empty()) {
      throw kh::HostError(std::string("the library refused ") + what + ": " + refusal);
    }
  }

  static void Sink(int, const char*, const char* text) {
    if (g_live == nullptr) return;
    std::string line(text);
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
    g_live->lines_.push_back(std::move(line));
  }

  kh::SensorSetup sensor_;
  py::object log_;
  bool log_line_data_;
  bool open_ = true;
  std::int32_t state_hz_ = 50;
  std::int32_t frames_ = 0;
  FlkExtPara tuning_ = FlkDefaultExtPara();  // as last sent
  std::size_t rows_ = 0;
  std::vector<std::string> lines_;
  // 64-bit words hold either element type.
  std::vector<std::int64_t> prev_copy_, cur_copy_;
};

// ---- simulator, recordings, runs ------------------------------------------------------------

double ExposureSeconds(const kh::SensorSetup& sensor, const py::object& exposure_ms,
                       std::int32_t state_hz) {
  if (!exposure_ms.is_none()) return exposure_ms.cast<double>() * 1e-3;
  // One flicker period of the starting state, as the tool does.
  return kh::ExposureForMains(1.0 / (2.0 * state_hz), state_hz, sensor.FramePeriod());
}

class Scene {
 public:
  Scene(const py::object& sensor, const py::object& scene, std::int32_t frames)
      : sensor_(SensorFrom(sensor)), scene_(SceneFrom(scene)) {
    kh::CheckSensorSetup(sensor_);
    kh::CheckRun(sensor_, scene_, frames, sensor_.FramePeriod() / 2, false);
    sim_ = std::make_unique<kh::SceneSimulator>(sensor_, scene_, frames);
  }
  py::array Generate(std::int32_t index, double exposure_ms) {
    if (!(exposure_ms > 0.0) || exposure_ms * 1e-3 > sensor_.FramePeriod()) {
      throw py::value_error("exposure_ms must lie in (0, " + kh::Ms(sensor_.FramePeriod()) + "]");
    }
    return GridArray(sensor_, sim_->Generate(index, exposure_ms * 1e-3).grid);
  }
  py::dict sensor() const { return SensorDict(sensor_); }

 private:
  kh::SensorSetup sensor_;
  kh::SceneSetup scene_;
  std::unique_ptr<kh::SceneSimulator> sim_;
};

py::object Simulate(const py::object& sensor_obj, const py::object& scene_obj, std::int32_t frames,
                    const py::object& exposure_ms, std::int32_t state_hz, bool record,
                    const py::object& ext_para) {
  RequireNoDetector("simulate()");
  if (state_hz != 50 && state_hz != 60) throw py::value_error("state_hz must be 50 or 60");
  const kh::SensorSetup sensor = SensorFrom(sensor_obj);
  const kh::SceneSetup scene = SceneFrom(scene_obj);
  kh::CheckSensorSetup(sensor);
  kh::HostOptions options;
  options.tuning = TuningFrom(ext_para);
  const double exposure_s = ExposureSeconds(sensor, exposure_ms, state_hz);
  kh::Recording recording;
  if (record) {
    kh::CheckRun(sensor, scene, frames, exposure_s, true);
    recording.sensor = sensor;
    recording.initial_state_hz = state_hz;
    recording.light_hz = static_cast<std::int32_t>(scene.mains_hz);
    options.on_capture = [&recording](const kh::Frame& f) { recording.frames.push_back(f); };
  }
  const kh::RunResult run = kh::Simulate(sensor, scene, frames, exposure_s, state_hz, options);
  py::dict d = RunDict(run, "simulate");
  if (record) d["recording"] = RecordingDict(recording);
  return d;
}

py::dict Replay(const py::object& source, const py::object& state_hz, const py::object& ext_para) {
  RequireNoDetector("replay()");
  // Read a frame at a time, as the tool does (plain or gzip files).
  std::unique_ptr<kh::RecordingReader> reader;
  if (py::isinstance<py::dict>(source)) {
    reader = std::make_unique<kh::RecordingReader>(
        kh::FormatRecording(RecordingFrom(source.cast<py::dict>())), "<recording>");
  } else {
    reader = std::make_unique<kh::RecordingReader>(PathOf(source));
  }
  const std::int32_t state =
      state_hz.is_none() ? reader->header().initial_state_hz : state_hz.cast<int>();
  kh::HostOptions options;
  options.tuning = TuningFrom(ext_para);
  return RunDict(kh::Replay(*reader, state, options), "replay");
}

py::dict Evaluate(const py::object& matrix, const py::object& ext_para) {
  RequireNoDetector("evaluate()");
  kh::EvalMatrix m;
  if (matrix.is_none()) {
    m = kh::DefaultMatrix();
  } else if (IsPath(matrix)) {
    m = kh::LoadMatrix(PathOf(matrix));
  } else {
    const std::string text = py::module_::import("json").attr("dumps")(matrix).cast<std::string>();
    m = kh::ParseMatrix(text, "<matrix>");
  }
  const FlkExtPara tuning = TuningFrom(ext_para);
  const kh::EvalReport report = kh::Evaluate(m, &tuning);
  py::dict d;
  d["total"] = StatsDict(report.total);
  py::list conditions, cells;
  for (const kh::EvalStats& c : report.conditions) conditions.append(StatsDict(c));
  for (const kh::EvalStats& c : report.cells) cells.append(StatsDict(c));
  d["conditions"] = conditions;
  d["cells"] = cells;
  d["table"] = kh::FormatEvalTable(report, false);
  d["csv"] = kh::FormatEvalCsv(report);
  d["json"] = kh::FormatEvalJson(report);
  return d;
}

}  // namespace

PYBIND11_MODULE(_kestrel_flicker, m) {
  m.doc() = "libkestrel.flicker and the kestrel-flicker host (simulator, recordings, reports)";
  py::register_exception<kh::HostError>(m, "HostError", PyExc_RuntimeError);

  py::class_<Detector>(m, "Detector", kDetectorDoc)
      .def(py::init<const py::object&, std::int32_t, const py::object&, py::object, bool>(),
           py::arg("sensor") = py::none(), py::arg("state_hz") = 50,
           py::arg("ext_para") = py::none(), py::arg("log") = py::none(),
           py::arg("log_line_data") = false)
      .def("close", &Detector::Close, "UNINIT; the library is free for another Detector")
      .def("set_ext_para", &Detector::SetExtPara, py::arg("ext_para"),
           "SET_EXT_PARA from a dict (over the defaults) or a JSON file")
      .def("set_state", &Detector::SetState, py::arg("state_hz"), "SET_STATE: 50 or 60 (Hz)")
      .def("reset_queue", &Detector::ResetQueue, "RESET_QUEUE: forget the scored frames")
      .def("detect", &Detector::Detect, py::arg("prev"), py::arg("cur"), py::arg("win_wd") = 0,
           kDetectDoc)
      .def("line_vectors", &Detector::LineVectors,
           "(prev, cur): the line vectors of the newest DETECT, one int32 per statistics row")
      .def_property_readonly("state_hz", &Detector::state_hz)
      .def_property_readonly("open", &Detector::open)
      .def_property_readonly("sensor", &Detector::sensor)
      .def(
          "__enter__", [](Detector& d) -> Detector& { return d; },
          py::return_value_policy::reference)
      .def("__exit__", [](Detector& d, py::args) { d.Close(); });

  py::class_<Scene>(
      m, "Scene",
      "The tool's rolling-shutter simulator: Scene(sensor, scene, frames); scene keys: "
      "mains_hz, depth, brightness, texture, noise, motion, hdr_ratio, seed, steps")
      .def(py::init<const py::object&, const py::object&, std::int32_t>(),
           py::arg("sensor") = py::none(), py::arg("scene") = py::none(), py::arg("frames") = 20)
      .def("generate", &Scene::Generate, py::arg("index"), py::arg("exposure_ms"),
           "Frame `index` exposed for `exposure_ms`: a grid ready for Detector.detect")
      .def_property_readonly("sensor", &Scene::sensor);

  m.def(
      "default_sensor",
      [](std::int32_t type, bool zhdr) { return SensorDict(kh::DefaultSensor(type, zhdr)); },
      py::arg("type") = 0, py::arg("zhdr") = false);
  m.def("default_ext_para", [] { return ExtParaDict(FlkDefaultExtPara()); });
  m.def(
      "frame_period_ms",
      [](const py::object& sensor) { return SensorFrom(sensor).FramePeriod() * 1e3; },
      py::arg("sensor"));
  m.def("simulate", &Simulate, py::arg("sensor") = py::none(), py::arg("scene") = py::none(),
        py::arg("frames") = 20, py::arg("exposure_ms") = py::none(), py::arg("state_hz") = 50,
        py::arg("record") = false, py::arg("ext_para") = py::none(),
        "A closed-loop run with the tool's auto-exposure policy; a dict of per-frame arrays "
        "(with the frames as a recording under 'recording' when `record`)");
  m.def("replay", &Replay, py::arg("recording"), py::arg("state_hz") = py::none(),
        py::arg("ext_para") = py::none(),
        "A recording (path or dict) through the tool's host; a run dict like simulate's");
  m.def("evaluate", &Evaluate, py::arg("matrix") = py::none(), py::arg("ext_para") = py::none(),
        "The tool's evaluation: every cell and seed of a matrix (None: the default matrix; a dict "
        "as the matrix JSON; or its path) simulated with a tuning; per condition, per cell and in "
        "total: detection rate, latency, false switches");
  m.def(
      "load_ext_para",
      [](const py::object& path) { return ExtParaDict(kh::LoadExtPara(PathOf(path))); },
      py::arg("path"), "A tuning file as a dict of FlkExtPara fields");
  m.def(
      "format_ext_para", [](const py::object& para) { return kh::FormatExtPara(TuningFrom(para)); },
      py::arg("ext_para"), "A tuning (dict over the defaults) as the tuning file's JSON text");
  m.def(
      "read_recording",
      [](const std::string& path) { return RecordingDict(kh::LoadRecording(path)); },
      py::arg("path"));
  m.def(
      "parse_recording",
      [](const std::string& text, const std::string& name) {
        return RecordingDict(kh::ParseRecording(text, name));
      },
      py::arg("text"), py::arg("name") = "<string>");
  m.def(
      "format_recording",
      [](const py::dict& rec) { return kh::FormatRecording(RecordingFrom(rec)); },
      py::arg("recording"));
  m.def(
      "write_recording",
      [](const std::string& path, const py::dict& rec) {
        // As the tool writes it: "*.gz" compressed, the file replaced only once complete.
        const kh::Recording r = RecordingFrom(rec);
        kh::OutputSink sink(path, std::cout, kh::WantsGzip(path));
        sink.Write(kh::FormatRecording(r));
        sink.Commit();
      },
      py::arg("path"), py::arg("recording"));
}
