// SPDX-License-Identifier: Apache-2.0
// Detection quality over a matrix of simulated scenes.
#include "host/evaluate.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>
#include <set>

#include "host/error.h"
#include "host/ext_para.h"

namespace kestrel_host {

namespace {

using Json = nlohmann::ordered_json;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

std::string Family(const SensorSetup& s) {
  if (s.type == 1) return "SONY";
  if (s.type == 2) return "2x5";
  return s.zhdr ? "zHDR" : "standard";
}

std::string Hz(double hz) {
  return hz > 0.0 ? Format("%.0f", hz) + "Hz light" : "steady light";
}

// The frame length that gives `fps` frames a second at the sensor's line time.
std::int32_t FrameLengthFor(const SensorSetup& s, double fps) {
  return static_cast<std::int32_t>(std::lround(s.pclk / (s.line_length * fps)));
}

double Percent(std::int32_t part, std::int32_t whole) {
  return whole > 0 ? 100.0 * part / whole : kNaN;
}

std::string Cell(double v, const char* fmt) {
  return std::isnan(v) ? "-" : Format(fmt, v);
}

}  // namespace

Truth TruthFor(double mains_hz, std::int32_t state_hz) {
  if (mains_hz <= 0.0) return Truth::kSteady;
  return std::lround(mains_hz) == state_hz ? Truth::kOwnMains : Truth::kOtherMains;
}

bool Detectable(const EvalCell& cell, std::string* why) {
  const auto say = [&](const std::string& text) {
    if (why != nullptr) *why = text;
    return false;
  };
  if (TruthFor(cell.scene.mains_hz, cell.state_hz) != Truth::kOtherMains) {
    return say("not lit by the other mains");
  }
  if (cell.scene.depth <= 0.0) return say("no modulation");
  const double flicker = 2.0 * cell.scene.mains_hz;
  // The bands move by the fractional part of the periods in a frame; if that adds up to less
  // than a quarter period over the whole run, they stand still and the frame difference cancels
  // them with the scene.
  const double periods = cell.sensor.FramePeriod() * flicker;
  const double drift = std::fabs(periods - std::round(periods)) * cell.frames;
  if (drift < 0.25) {
    return say("the bands stand still (" + Format("%.3f", periods) + " periods a frame)");
  }
  // An exposure of whole flicker periods averages the banding out.
  const double exposed = cell.exposure_s * flicker;
  if (std::fabs(exposed - std::round(exposed)) < 1e-6 && std::round(exposed) >= 1.0) {
    return say("the exposure is a whole number of flicker periods");
  }
  return true;
}

EvalMatrix DefaultMatrix() {
  struct Variant {
    std::string condition;
    std::function<bool(EvalCell&)> apply;  // false: the variant does not apply to the family
  };
  const std::vector<Variant> variants = {
      {"baseline", [](EvalCell&) { return true; }},
      // Frame rates: whole multiples of one flicker period (the bands stand still), near ones,
      // and the common video rates.
      {"fps 30",
       [](EvalCell& c) {
         c.sensor.column_length = FrameLengthFor(c.sensor, 30.0);
         return true;
       }},
      {"fps 29.97",
       [](EvalCell& c) {
         c.sensor.column_length = FrameLengthFor(c.sensor, 29.97);
         return true;
       }},
      {"fps 25",
       [](EvalCell& c) {
         c.sensor.column_length = FrameLengthFor(c.sensor, 25.0);
         return true;
       }},
      {"fps 24",
       [](EvalCell& c) {
         c.sensor.column_length = FrameLengthFor(c.sensor, 24.0);
         return true;
       }},
      // Exposures: several periods of the own flicker, and short ones that cancel nothing.
      {"exposure 3 periods",
       [](EvalCell& c) {
         c.exposure_s = 3.0 / (2.0 * c.state_hz);
         return true;
       }},
      {"exposure 2 ms",
       [](EvalCell& c) {
         c.exposure_s = 0.002;
         return true;
       }},
      {"exposure 0.5 ms",
       [](EvalCell& c) {
         c.exposure_s = 0.0005;
         return true;
       }},
      {"depth 5%",
       [](EvalCell& c) {
         c.scene.depth = 0.05;
         return true;
       }},
      {"depth 60%",
       [](EvalCell& c) {
         c.scene.depth = 0.6;
         return true;
       }},
      {"noise x4",
       [](EvalCell& c) {
         c.scene.noise = 4.0;
         return true;
       }},
      {"texture 0",
       [](EvalCell& c) {
         c.scene.texture = 0.0;
         return true;
       }},
      {"texture 3",
       [](EvalCell& c) {
         c.scene.texture = 3.0;
         return true;
       }},
      {"motion 3 lines",
       [](EvalCell& c) {
         c.scene.motion = 3.0;
         return true;
       }},
      {"brightness steps",
       [](EvalCell& c) {
         c.scene.steps = {{10, 3.0}, {20, 0.3}};
         return true;
       }},
      // Readout: the same frame period with faster or slower lines.
      {"readout half",
       [](EvalCell& c) {
         c.sensor.line_length /= 2;
         c.sensor.column_length *= 2;
         return true;
       }},
      {"readout long",
       [](EvalCell& c) {
         const double lines = static_cast<double>(c.sensor.StatRows()) * c.sensor.LinesPerRow();
         const double stretch = std::min(1.3, 0.98 * c.sensor.column_length / lines);
         const double frame = c.sensor.FramePeriod();
         c.sensor.line_length =
             static_cast<std::int32_t>(std::lround(c.sensor.line_length * stretch));
         c.sensor.column_length =
             static_cast<std::int32_t>(std::lround(frame * c.sensor.pclk / c.sensor.line_length));
         return true;
       }},
      {"hdr ratio 2",
       [](EvalCell& c) {
         c.scene.hdr_ratio = 2.0;
         return c.sensor.zhdr;
       }},
      {"hdr ratio 16",
       [](EvalCell& c) {
         c.scene.hdr_ratio = 16.0;
         return c.sensor.zhdr;
       }},
  };

  EvalMatrix m;
  const std::pair<std::int32_t, bool> families[] = {{0, false}, {0, true}, {1, false}, {2, false}};
  for (const auto& [type, zhdr] : families) {
    for (const Variant& v : variants) {
      for (const double mains : {50.0, 60.0, 0.0}) {
        for (const std::int32_t state : {50, 60}) {
          EvalCell c;
          c.condition = v.condition;
          c.sensor = DefaultSensor(type, zhdr);
          c.scene.mains_hz = mains;
          c.state_hz = state;
          c.exposure_s = 1.0 / (2.0 * state);
          c.frames = 30;
          c.seeds = {1001, 1002, 1003};
          if (!v.apply(c)) continue;
          c.name = Family(c.sensor) + ", " + Hz(mains) + ", " + std::to_string(state) +
                   "Hz state, " + v.condition;
          m.cells.push_back(std::move(c));
        }
      }
    }
  }
  return m;
}

EvalMatrix ParseMatrix(const std::string& text, const std::string& source) {
  Json doc;
  try {
    doc = Json::parse(text);
  } catch (const Json::parse_error& e) {
    throw HostError(source + ": not JSON: " + e.what());
  }
  if (!doc.is_object() || !doc.contains("cells") || !doc["cells"].is_array()) {
    throw HostError(source + ": a matrix is an object with an array \"cells\"");
  }
  const Json defaults = doc.value("defaults", Json::object());
  for (const auto& [key, value] : doc.items()) {
    if (key != "cells" && key != "defaults" && !key.starts_with("//"))
      throw HostError(source + ": unknown member '" + key + "'");
  }
  EvalMatrix m;
  std::set<std::string> names;
  for (std::size_t i = 0; i < doc["cells"].size(); ++i) {
    Json cell = defaults;
    if (!doc["cells"][i].is_object()) {
      throw HostError(source + ": cell " + std::to_string(i) + " is not an object");
    }
    for (const auto& [key, value] : doc["cells"][i].items()) cell[key] = value;
    const std::string where = source + ": cell " + std::to_string(i) +
                              (cell.contains("name") && cell["name"].is_string()
                                   ? " (" + cell["name"].get<std::string>() + ")"
                                   : std::string());
    const auto fail = [&](const std::string& what) { throw HostError(where + ": " + what); };
    const auto number = [&](const char* key, double low, double high) {
      const Json& v = cell[key];
      if (!v.is_number()) fail(std::string(key) + ": " + v.dump() + " is not a number");
      const double x = v.get<double>();
      if (!(x >= low && x <= high)) {
        fail(std::string(key) + ": " + v.dump() + " is out of range " + Format("%g", low) + ".." +
             Format("%g", high));
      }
      return x;
    };
    const auto whole = [&](const char* key, double low, double high) {
      if (!cell[key].is_number_integer())
        fail(std::string(key) + ": " + cell[key].dump() + " is not a whole number");
      return static_cast<std::int32_t>(number(key, low, high));
    };

    EvalCell c;
    const std::int32_t type = cell.contains("type") ? whole("type", 0, 2) : 0;
    bool zhdr = false;
    if (cell.contains("zhdr")) {
      if (!cell["zhdr"].is_boolean())
        fail("zhdr: " + cell["zhdr"].dump() + " is not true or false");
      zhdr = cell["zhdr"].get<bool>();
      if (zhdr && type != 0) fail("zhdr: applies to type 0 only");
    }
    c.sensor = DefaultSensor(type, zhdr);
    c.frames = 30;
    c.seeds = {1};
    for (const auto& [key, value] : cell.items()) {
      if (key.starts_with("//") || key == "type" || key == "zhdr") continue;
      if (key == "name" || key == "condition") {
        if (!value.is_string()) fail(key + ": not a string");
        (key == "name" ? c.name : c.condition) = value.get<std::string>();
      } else if (key == "mains") {
        const std::int32_t hz = whole("mains", 0, 60);
        if (hz != 0 && hz != 50 && hz != 60) fail("mains: use 50, 60 or 0 (steady light)");
        c.scene.mains_hz = hz;
      } else if (key == "state") {
        const std::int32_t hz = whole("state", 50, 60);
        if (hz != 50 && hz != 60) fail("state: use 50 or 60");
        c.state_hz = hz;
      } else if (key == "exposure_ms") {
        c.exposure_s = number("exposure_ms", 0.001, 10000.0) / 1e3;
      } else if (key == "frames") {
        c.frames = whole("frames", 2, 100000);
      } else if (key == "seeds") {
        if (!value.is_array() || value.empty()) fail("seeds: expected an array of whole numbers");
        c.seeds.clear();
        for (const Json& s : value) {
          if (!s.is_number_unsigned() || s.get<std::uint64_t>() > 0xFFFFFFFFu)
            fail("seeds: " + s.dump() + " is not a seed (0..4294967295)");
          c.seeds.push_back(s.get<std::uint32_t>());
        }
      } else if (key == "depth") {
        c.scene.depth = number("depth", 0.0, 1.0);
      } else if (key == "brightness") {
        c.scene.brightness = number("brightness", 0.0, 100.0);
      } else if (key == "texture") {
        c.scene.texture = number("texture", 0.0, 10.0);
      } else if (key == "noise") {
        c.scene.noise = number("noise", 0.0, 1000.0);
      } else if (key == "motion") {
        c.scene.motion = number("motion", -1000.0, 1000.0);
      } else if (key == "hdr_ratio") {
        c.scene.hdr_ratio = number("hdr_ratio", 1.0, 256.0);
      } else if (key == "steps") {
        if (!value.is_array()) fail("steps: expected [[frame, factor], ...]");
        for (const Json& s : value) {
          if (!s.is_array() || s.size() != 2 || !s[0].is_number_integer() || !s[1].is_number() ||
              s[0].get<std::int64_t>() < 0 || !(s[1].get<double>() > 0.0))
            fail("steps: " + s.dump() + " is not [frame, factor] with a factor above 0");
          c.scene.steps.push_back(
              {static_cast<std::int32_t>(s[0].get<std::int64_t>()), s[1].get<double>()});
        }
      } else if (key == "line_length") {
        c.sensor.line_length = whole("line_length", 1, 2147483647);
      } else if (key == "frame_length") {
        c.sensor.column_length = whole("frame_length", 1, 2147483647);
      } else if (key == "pclk") {
        c.sensor.pclk = number("pclk", 1e3, 1e12);
      } else if (key == "windows") {
        if (!value.is_array() || value.size() != 2 || !value[0].is_number_integer() ||
            !value[1].is_number_integer() || value[0].get<std::int64_t>() < 1 ||
            value[1].get<std::int64_t>() < 1)
          fail("windows: expected [bands, columns], both at least 1");
        c.sensor.n_win_h = value[0].get<std::int32_t>();
        c.sensor.n_win_w = value[1].get<std::int32_t>();
      } else if (key == "win_ht") {
        c.sensor.win_ht = whole("win_ht", 1, 10000000);
      } else if (key == "win_wd") {
        c.sensor.window_width = whole("win_wd", 1, 2147483647);
      } else if (key != "fps") {
        fail("unknown member '" + key + "'");
      }
    }
    // Frame rate last: it depends on the line length and clock.
    if (cell.contains("fps")) {
      if (cell.contains("frame_length")) fail("fps and frame_length both set the frame length");
      c.sensor.column_length = FrameLengthFor(c.sensor, number("fps", 0.01, 10000.0));
    }
    if (!cell.contains("exposure_ms")) c.exposure_s = 1.0 / (2.0 * c.state_hz);
    if (c.name.empty()) c.name = "cell " + std::to_string(i);
    if (c.condition.empty()) c.condition = c.name;
    if (!names.insert(c.name).second) fail("name: another cell has the same name");
    try {
      CheckSensorSetup(c.sensor);
      CheckRun(c.sensor, c.scene, c.frames, c.exposure_s, false);
    } catch (const HostError& e) {
      fail(e.what());
    }
    m.cells.push_back(std::move(c));
  }
  return m;
}

EvalMatrix LoadMatrix(const std::string& path) {
  return ParseMatrix(ReadTextFile(path), path);
}

std::string FormatMatrix(const EvalMatrix& matrix) {
  // Each cell names what differs from its family's defaults, and its frame length and exposure.
  std::string out = "{\n  \"cells\": [\n";
  for (std::size_t i = 0; i < matrix.cells.size(); ++i) {
    const EvalCell& c = matrix.cells[i];
    const SensorSetup base = DefaultSensor(c.sensor.type, c.sensor.zhdr);
    const SceneSetup scene;
    Json j;
    j["name"] = c.name;
    j["condition"] = c.condition;
    j["type"] = c.sensor.type;
    if (c.sensor.zhdr) j["zhdr"] = true;
    j["mains"] = std::lround(c.scene.mains_hz);
    j["state"] = c.state_hz;
    j["exposure_ms"] = c.exposure_s * 1e3;
    if (c.sensor.line_length != base.line_length) j["line_length"] = c.sensor.line_length;
    if (c.sensor.column_length != base.column_length) j["frame_length"] = c.sensor.column_length;
    if (c.sensor.pclk != base.pclk) j["pclk"] = c.sensor.pclk;
    if (c.sensor.n_win_h != base.n_win_h || c.sensor.n_win_w != base.n_win_w)
      j["windows"] = {c.sensor.n_win_h, c.sensor.n_win_w};
    if (c.sensor.win_ht != base.win_ht) j["win_ht"] = c.sensor.win_ht;
    if (c.sensor.window_width != base.window_width) j["win_wd"] = c.sensor.window_width;
    if (c.scene.depth != scene.depth) j["depth"] = c.scene.depth;
    if (c.scene.brightness != scene.brightness) j["brightness"] = c.scene.brightness;
    if (c.scene.texture != scene.texture) j["texture"] = c.scene.texture;
    if (c.scene.noise != scene.noise) j["noise"] = c.scene.noise;
    if (c.scene.motion != scene.motion) j["motion"] = c.scene.motion;
    if (c.scene.hdr_ratio != scene.hdr_ratio) j["hdr_ratio"] = c.scene.hdr_ratio;
    if (!c.scene.steps.empty()) {
      j["steps"] = Json::array();
      for (const BrightnessStep& s : c.scene.steps) j["steps"].push_back({s.frame, s.factor});
    }
    j["frames"] = c.frames;
    j["seeds"] = c.seeds;
    out += "    " + j.dump() + (i + 1 < matrix.cells.size() ? ",\n" : "\n");
  }
  return out + "  ]\n}\n";
}

double EvalStats::DetectionRate() const {
  return Percent(detected, detectable_runs);
}
double EvalStats::Within5Rate() const {
  return Percent(within5, detectable_runs);
}
double EvalStats::Within10Rate() const {
  return Percent(within10, detectable_runs);
}

double EvalStats::LatencyMedian() const {
  if (latencies.empty()) return kNaN;
  std::vector<std::int32_t> v = latencies;
  std::sort(v.begin(), v.end());
  const std::size_t n = v.size();
  return n % 2 == 1 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2.0;
}

double EvalStats::LatencyP95() const {
  if (latencies.empty()) return kNaN;
  std::vector<std::int32_t> v = latencies;
  std::sort(v.begin(), v.end());
  // Nearest rank: the smallest latency at or above 95% of the switches.
  const auto rank = static_cast<std::size_t>(std::ceil(0.95 * static_cast<double>(v.size())));
  return v[std::max<std::size_t>(rank, 1) - 1];
}

double EvalStats::FalsePer1000() const {
  return calm_frames > 0 ? 1000.0 * false_switches / calm_frames : kNaN;
}

std::int32_t EvalStats::NotCounted() const {
  std::int32_t n = 0;
  for (const auto& [why, count] : not_counted) n += count;
  return n;
}

void EvalStats::Add(const EvalStats& o) {
  runs += o.runs;
  frames += o.frames;
  other_runs += o.other_runs;
  detectable_runs += o.detectable_runs;
  detected += o.detected;
  within5 += o.within5;
  within10 += o.within10;
  latencies.insert(latencies.end(), o.latencies.begin(), o.latencies.end());
  calm_frames += o.calm_frames;
  false_switches += o.false_switches;
  for (const auto& [why, count] : o.not_counted) not_counted[why] += count;
}

EvalStats RunStats(const EvalCell& cell, const RunResult& run) {
  EvalStats s;
  s.name = cell.name;
  s.runs = 1;
  s.frames = static_cast<std::int32_t>(run.results.size());
  if (TruthFor(cell.scene.mains_hz, cell.state_hz) == Truth::kOtherMains) s.other_runs = 1;
  if (Detectable(cell, nullptr)) {
    s.detectable_runs = 1;
    if (run.first_switch_frame >= 0) {
      s.detected = 1;
      s.within5 = run.first_switch_frame <= 5 ? 1 : 0;
      s.within10 = run.first_switch_frame <= 10 ? 1 : 0;
      s.latencies.push_back(run.first_switch_frame);
    }
  }
  for (const FrameResult& r : run.results) {
    if (TruthFor(cell.scene.mains_hz, r.state_hz) != Truth::kOtherMains) {
      ++s.calm_frames;
      if (r.switched) ++s.false_switches;
    }
    if (!r.counted) ++s.not_counted[r.note.empty() ? "not counted" : r.note];
  }
  return s;
}

EvalReport Evaluate(const EvalMatrix& matrix, const FlkExtPara* tuning,
                    const EvalProgress& progress, std::vector<LabelledFrame>* frames) {
  EvalReport report;
  report.total.name = "total";
  std::size_t total_runs = 0, done = 0;
  for (const EvalCell& c : matrix.cells) total_runs += c.seeds.size();
  std::map<std::string, std::size_t> condition_at;
  HostOptions options;
  if (tuning != nullptr) options.tuning = *tuning;
  for (std::size_t i = 0; i < matrix.cells.size(); ++i) {
    const EvalCell& cell = matrix.cells[i];
    EvalStats stats;
    stats.name = cell.name;
    for (const std::uint32_t seed : cell.seeds) {
      SceneSetup scene = cell.scene;
      scene.seed = seed;
      RunResult run;
      try {
        run = Simulate(cell.sensor, scene, cell.frames, cell.exposure_s, cell.state_hz, options);
      } catch (const HostError& e) {
        throw HostError(cell.name + ": " + e.what());
      }
      stats.Add(RunStats(cell, run));
      if (frames != nullptr) {
        for (const FrameResult& r : run.results) {
          LabelledFrame f;
          f.state_hz = r.state_hz;
          f.truth = TruthFor(cell.scene.mains_hz, r.state_hz);
          f.freq_out = r.energies;
          f.valid = r.counted && r.has_energies;
          f.type = cell.sensor.type;
          f.cell = i;
          f.seed = seed;
          f.frame = r.frame;
          frames->push_back(f);
        }
      }
      if (progress) progress(++done, total_runs);
    }
    const std::string group = Family(cell.sensor) + ": " + cell.condition;
    auto [at, fresh] = condition_at.emplace(group, report.conditions.size());
    if (fresh) {
      report.conditions.push_back({});
      report.conditions.back().name = group;
    }
    report.conditions[at->second].Add(stats);
    report.total.Add(stats);
    report.cells.push_back(std::move(stats));
  }
  return report;
}

namespace {

std::string NotCountedText(const EvalStats& s) {
  std::string text;
  for (const auto& [why, count] : s.not_counted) {
    text += (text.empty() ? "" : "; ") + std::to_string(count) + " " + why;
  }
  return text;
}

// `text` right-aligned in `width` columns.
std::string Right(const std::string& text, std::size_t width) {
  return text.size() >= width ? text : std::string(width - text.size(), ' ') + text;
}

std::string Row(const EvalStats& s, std::size_t width) {
  std::string name = s.name;
  if (name.size() > width) name = name.substr(0, width - 1) + "~";
  name.resize(width, ' ');
  return name + Right(std::to_string(s.runs), 5) + Right(std::to_string(s.detectable_runs), 6) +
         Right(Cell(s.DetectionRate(), "%.0f%%"), 8) + Right(Cell(s.Within5Rate(), "%.0f%%"), 7) +
         Right(Cell(s.Within10Rate(), "%.0f%%"), 7) + Right(Cell(s.LatencyMedian(), "%.1f"), 7) +
         Right(Cell(s.LatencyP95(), "%.0f"), 6) + Right(Cell(s.FalsePer1000(), "%.1f"), 10) +
         Right(std::to_string(s.NotCounted()), 11) + "\n";
}

}  // namespace

std::string FormatEvalTable(const EvalReport& report, bool per_cell) {
  const std::vector<EvalStats>& rows = per_cell ? report.cells : report.conditions;
  std::size_t width = 10;
  for (const EvalStats& s : rows) width = std::max(width, s.name.size());
  width = std::min<std::size_t>(width, 60) + 2;
  std::string head = per_cell ? "cell" : "condition";
  head.resize(width, ' ');
  std::string out = head + " runs  det.  switch   <=5f  <=10f  med.f  p95f  false/1k  uncounted\n";
  for (const EvalStats& s : rows) out += Row(s, width);
  out += Row(report.total, width);
  const std::string why = NotCountedText(report.total);
  out +=
      "\nruns: seeds x cells; det.: runs lit by the other mains where a switch is possible;\n"
      "switch, <=5f, <=10f: share of those that switched at all, within 5 and 10 frames;\n"
      "med.f, p95f: frames after the first frame until the switch (median, 95th percentile);\n"
      "false/1k: switches per 1000 frames judged under steady light or the state's own mains;\n"
      "uncounted: frames the sequential test did not count";
  out += why.empty() ? ".\n" : " (" + why + ").\n";
  return out;
}

std::string FormatEvalCsv(const EvalReport& report) {
  std::string out =
      "cell,runs,frames,other_runs,detectable_runs,switched,within5,within10,latency_median,"
      "latency_p95,calm_frames,false_switches,false_per_1000,not_counted,not_counted_why\n";
  const auto quote = [](const std::string& s) {
    std::string q = "\"";
    for (char ch : s) q += ch == '"' ? std::string("\"\"") : std::string(1, ch);
    return q + "\"";
  };
  const auto num = [](double v, const char* fmt) {
    return std::isnan(v) ? std::string() : Format(fmt, v);
  };
  std::vector<const EvalStats*> rows;
  for (const EvalStats& s : report.cells) rows.push_back(&s);
  rows.push_back(&report.total);
  for (const EvalStats* s : rows) {
    out += quote(s->name) + "," + std::to_string(s->runs) + "," + std::to_string(s->frames) + "," +
           std::to_string(s->other_runs) + "," + std::to_string(s->detectable_runs) + "," +
           std::to_string(s->detected) + "," + std::to_string(s->within5) + "," +
           std::to_string(s->within10) + "," + num(s->LatencyMedian(), "%.1f") + "," +
           num(s->LatencyP95(), "%.0f") + "," + std::to_string(s->calm_frames) + "," +
           std::to_string(s->false_switches) + "," + num(s->FalsePer1000(), "%.3f") + "," +
           std::to_string(s->NotCounted()) + "," + quote(NotCountedText(*s)) + "\n";
  }
  return out;
}

std::string FormatEvalJson(const EvalReport& report) {
  const auto stats = [](const EvalStats& s) {
    const auto num = [](double v) { return std::isnan(v) ? Json(nullptr) : Json(v); };
    Json j;
    j["name"] = s.name;
    j["runs"] = s.runs;
    j["frames"] = s.frames;
    j["other_runs"] = s.other_runs;
    j["detectable_runs"] = s.detectable_runs;
    j["switched"] = s.detected;
    j["within5"] = s.within5;
    j["within10"] = s.within10;
    j["switch_rate"] = num(s.DetectionRate() / 100.0);
    j["within5_rate"] = num(s.Within5Rate() / 100.0);
    j["within10_rate"] = num(s.Within10Rate() / 100.0);
    j["latency_median"] = num(s.LatencyMedian());
    j["latency_p95"] = num(s.LatencyP95());
    j["calm_frames"] = s.calm_frames;
    j["false_switches"] = s.false_switches;
    j["false_per_1000"] = num(s.FalsePer1000());
    j["not_counted"] = s.not_counted;
    return j;
  };
  Json doc;
  doc["total"] = stats(report.total);
  doc["conditions"] = Json::array();
  for (const EvalStats& s : report.conditions) doc["conditions"].push_back(stats(s));
  doc["cells"] = Json::array();
  for (const EvalStats& s : report.cells) doc["cells"].push_back(stats(s));
  return doc.dump(2) + "\n";
}

}  // namespace kestrel_host
