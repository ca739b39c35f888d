// SPDX-License-Identifier: Apache-2.0
// What the host tool prints and writes: the per-frame table, the summary line, CSV and JSON.
#include "host/report.h"

#include <cmath>
#include <cstdio>

#include <nlohmann/json.hpp>

#include "host/error.h"

namespace kestrel_host {

namespace {

constexpr int kFrequencies[9] = {70, 80, 90, 100, 120, 130, 140, 160, 170};

std::string Pad(const std::string& text, std::size_t width) {
  return text.size() >= width ? text : std::string(width - text.size(), ' ') + text;
}

// Mean of the seven energies other than 100 Hz and 120 Hz: the floor the two mains bands stand on.
double RestMean(const FrameResult& r) {
  double sum = 0.0;
  for (int i = 0; i < 9; ++i) {
    if (i != 3 && i != 4) sum += r.energies[static_cast<std::size_t>(i)];
  }
  return sum / 7.0;
}

std::string ResultText(std::int32_t result) {
  if (result == 2) return "50 Hz";
  if (result == 3) return "60 Hz";
  return result == -1 ? "-" : std::to_string(result);
}

// The library's result code in Hz; 0 for no result.
std::int32_t ResultHz(std::int32_t result) {
  return result == 2 ? 50 : result == 3 ? 60 : 0;
}

}  // namespace

std::string Count(std::int64_t n, const std::string& noun) {
  return std::to_string(n) + " " + noun + (n == 1 ? "" : "s");
}

const char* SensorName(std::int32_t type) {
  if (type == 1) return "SONY";
  if (type == 2) return "2x5";
  return "standard";
}

std::string TableHeader(bool wide) {
  std::string head = "frame  exposure  state ";
  if (wide) {
    for (int f : kFrequencies) head += Pad("E" + std::to_string(f), 9);
  } else {
    head += Pad("E100", 9) + Pad("E120", 9) + Pad("others", 9);
  }
  return head + "    rel  score    seq  result  note / action\n";
}

std::string RowNote(const FrameResult& r) {
  if (r.switched && !r.note.empty()) return r.note + "; " + r.action;
  return r.switched ? r.action : r.note;
}

std::string TableRow(const FrameResult& r, bool wide) {
  std::string row = Pad(std::to_string(r.frame), 5) + Pad(Ms(r.exposure_s), 10) +
                    Pad(std::to_string(r.state_hz) + " Hz", 7);
  if (wide) {
    for (int i = 0; i < 9; ++i) {
      row += Pad(r.has_energies ? std::to_string(r.energies[static_cast<std::size_t>(i)]) : "-", 9);
    }
  } else if (r.has_energies) {
    row += Pad(std::to_string(r.energies[3]), 9) + Pad(std::to_string(r.energies[4]), 9) +
           Pad(Format("%.0f", RestMean(r)), 9);
  } else {
    row += Pad("-", 9) + Pad("-", 9) + Pad("-", 9);
  }
  row += Pad(r.has_relative ? Format("%.2f", r.relative_q8 / 256.0) : "-", 7);
  row += Pad(r.has_score ? Format("%+.0f", r.score) : "-", 7);
  row += Pad(r.has_seq ? std::to_string(r.seq) : "-", 7);
  row += Pad(ResultText(r.result), 8);
  const std::string tail = RowNote(r);
  if (!tail.empty()) row += "  " + tail;
  return row + "\n";
}

std::string FormatTable(const RunResult& run, bool wide) {
  std::string out = TableHeader(wide);
  for (const FrameResult& r : run.results) out += TableRow(r, wide);
  return out;
}

std::string FamilyName(std::int32_t type) {
  return std::string(SensorName(type)) + " sensor (type " + std::to_string(type) + ")";
}

namespace {

// A number with as few decimals (2 to 4) as show it exactly, else 4: 4.50, 4.0005, 4.0035.
std::string Periods(double v) {
  for (int d = 2; d < 4; ++d) {
    const double scale = std::pow(10.0, d);
    if (std::fabs(v * scale - std::round(v * scale)) < 1e-6 * scale)
      return Format(d == 2 ? "%.2f" : "%.3f", v);
  }
  return Format("%.4f", v);
}

}  // namespace

// Where the frame period stands against the flicker period: the bands move between frames only
// when it is not a whole number of flicker periods. "Whole" is judged over the run: the bands
// stand still when they drift less than a hundredth of a period over all its frames.
std::string TimingText(const SensorSetup& s, double mains_hz, std::int64_t frames) {
  const double period = s.FramePeriod();
  std::string text =
      "timing: " + Ms(period) + " ms frames (" + Format("%.2f", 1.0 / period) + " fps)";
  if (mains_hz > 0.0) {
    const double periods = period * 2.0 * mains_hz;
    const double drift = std::fabs(periods - std::round(periods));
    text +=
        " = " + Periods(periods) + " periods of " + Format("%.0f", 2.0 * mains_hz) + " Hz light";
    const double travel = drift * static_cast<double>(std::max<std::int64_t>(frames - 1, 1));
    if (drift < 1e-9) {
      text += " (a whole number: the bands stand still from frame to frame)";
    } else if (travel < 0.01) {
      text += " (" + Format("%.4f", drift) + " from a whole number: over " +
              Count(frames, "frame") + " the bands move " + Format("%.4f", travel) +
              " of a period, all but still)";
    } else if (drift < 0.05) {
      text += " (nearly whole: the bands drift " + Format("%.4f", drift) +
              " of a period a frame, a weak difference between frames)";
    }
  }
  const std::int64_t lines = static_cast<std::int64_t>(s.StatRows()) * s.LinesPerRow();
  text += "\nstatistics: " + Count(s.StatRows(), "row");
  if (s.LinesPerRow() > 1) text += " of " + Count(s.LinesPerRow(), "line");
  text += " (" + std::to_string(lines) + " of the " + std::to_string(s.column_length) +
          " lines), " + Count(s.n_win_h, "band") + " x " + Count(s.n_win_w, "window") + " " +
          std::to_string(s.window_width) + " pixels wide";
  if (s.zhdr) text += ", zHDR";
  return text + "\n";
}

std::string FormatSummary(const RunResult& run) {
  const std::int32_t judged = static_cast<std::int32_t>(run.results.size());
  std::string counts =
      Count(judged, "frame") + " judged, " + std::to_string(run.skipped) + " not counted";
  if (run.first_switch_frame >= 0) {
    const FrameResult* first = nullptr;
    for (const FrameResult& r : run.results) {
      if (r.switched) {
        first = &r;
        break;
      }
    }
    std::string text = "summary: switched from " + std::to_string(run.initial_state_hz) +
                       " Hz to " + std::to_string(first->state_hz == 50 ? 60 : 50) +
                       " Hz at frame " + std::to_string(run.first_switch_frame) + " (exposure " +
                       Ms(first->exposure_s) + " -> " + Ms(first->next_exposure_s) + " ms)";
    if (run.switches > 1) text += ", " + std::to_string(run.switches) + " switches in all";
    return text + "; final state " + std::to_string(run.final_state_hz) + " Hz; " + counts + "\n";
  }
  std::string text =
      "summary: never switched: stayed in the " + std::to_string(run.final_state_hz) + " Hz state";
  for (auto it = run.results.rbegin(); it != run.results.rend(); ++it) {
    if (it->has_seq) {
      text +=
          " (last sequential score " + std::to_string(it->seq) + ", a switch needs more than 8)";
      break;
    }
  }
  return text + "; " + counts + "\n";
}

std::string CsvHeader() {
  std::string out = "frame,exposure_ms,state_hz";
  for (int f : kFrequencies) out += ",e" + std::to_string(f);
  return out + ",relative,score,seq,result,result_hz,switched,next_exposure_ms,note\n";
}

std::string CsvRow(const FrameResult& r) {
  std::string out = std::to_string(r.frame) + "," + Format("%.6f", r.exposure_s * 1e3) + "," +
                    std::to_string(r.state_hz);
  for (int i = 0; i < 9; ++i) {
    out += ",";
    if (r.has_energies) out += std::to_string(r.energies[static_cast<std::size_t>(i)]);
  }
  out += ",";
  if (r.has_relative) out += Format("%.6g", r.relative_q8 / 256.0);
  out += ",";
  if (r.has_score) out += std::to_string(r.score);
  out += ",";
  if (r.has_seq) out += std::to_string(r.seq);
  out += "," + std::to_string(r.result) + ",";
  if (ResultHz(r.result) != 0) out += std::to_string(ResultHz(r.result));
  out += std::string(",") + (r.switched ? "1" : "0") + "," +
         Format("%.6f", r.next_exposure_s * 1e3) + ",";
  // Notes are plain words; quote them anyway so a comma can never split a row.
  std::string note = RowNote(r);
  for (char& c : note) {
    if (c == '"') c = '\'';
  }
  return out + "\"" + note + "\"\n";
}

std::string FormatCsv(const RunResult& run) {
  std::string out = CsvHeader();
  for (const FrameResult& r : run.results) out += CsvRow(r);
  return out;
}

std::string FormatJson(const RunResult& run, const std::string& command) {
  const SensorSetup& s = run.sensor;
  using Json = nlohmann::ordered_json;
  Json j;
  j["tool"] = "kestrel-flicker";
  j["format"] = 2;
  j["command"] = command;
  j["sensor"] = {{"type", s.type},
                 {"family", SensorName(s.type)},
                 {"line_length", s.line_length},
                 {"column_length", s.column_length},
                 {"pclk", s.pclk},
                 {"window_width", s.window_width},
                 {"block_height", s.block_height},
                 {"green_only", s.green_only},
                 {"n_win_h", s.n_win_h},
                 {"n_win_w", s.n_win_w},
                 {"win_ht", s.win_ht},
                 {"zhdr", s.zhdr},
                 {"frame_period_ms", s.FramePeriod() * 1e3}};
  j["frames"] = run.frames;
  j["frames_judged"] = run.results.size();
  j["initial_state_hz"] = run.initial_state_hz;
  j["final_state_hz"] = run.final_state_hz;
  j["switched"] = run.first_switch_frame >= 0;
  j["first_switch_frame"] =
      run.first_switch_frame >= 0 ? Json(run.first_switch_frame) : Json(nullptr);
  j["switches"] = run.switches;
  j["frames_not_counted"] = run.skipped;
  Json frames = Json::array();
  for (const FrameResult& r : run.results) {
    Json f;
    f["frame"] = r.frame;
    f["exposure_ms"] = r.exposure_s * 1e3;
    f["state_hz"] = r.state_hz;
    if (r.has_energies) {
      // Keyed by the candidate frequency in Hz.
      Json e = Json::object();
      for (std::size_t k = 0; k < 9; ++k) e[std::to_string(kFrequencies[k])] = r.energies[k];
      f["energies"] = e;
    } else {
      f["energies"] = nullptr;
    }
    f["relative"] = r.has_relative ? Json(r.relative_q8 / 256.0) : Json(nullptr);
    f["relative_q8"] = r.has_relative ? Json(r.relative_q8) : Json(nullptr);
    f["score"] = r.has_score ? Json(r.score) : Json(nullptr);
    f["seq"] = r.has_seq ? Json(r.seq) : Json(nullptr);
    f["result"] = r.result;
    f["result_hz"] = ResultHz(r.result) != 0 ? Json(ResultHz(r.result)) : Json(nullptr);
    f["counted"] = r.counted;
    f["switched"] = r.switched;
    f["next_exposure_ms"] = r.next_exposure_s * 1e3;
    f["note"] = RowNote(r);
    frames.push_back(std::move(f));
  }
  j["per_frame"] = std::move(frames);
  return j.dump(2) + "\n";
}

}  // namespace kestrel_host
