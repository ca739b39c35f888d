// SPDX-License-Identifier: Apache-2.0
// What the host tool prints and writes: the per-frame table, the summary line, CSV and JSON.
#include "host/report.h"

#include <cmath>
#include <cstdio>

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

// JSON has no NaN or infinity; none of the figures here can be either, but keep the file valid.
std::string JsonNumber(double v) {
  if (!std::isfinite(v)) return "null";
  return Format("%.6g", v);
}

}  // namespace

const char* SensorName(std::int32_t type) {
  if (type == 1) return "SONY";
  if (type == 2) return "2x5";
  return "standard";
}

std::string FormatTable(const RunResult& run, bool wide) {
  std::string out;
  std::string head = "frame  exposure  state ";
  if (wide) {
    for (int f : kFrequencies) head += Pad("E" + std::to_string(f), 9);
  } else {
    head += Pad("E100", 9) + Pad("E120", 9) + Pad("others", 9);
  }
  head += "    rel  score    seq  result  note / action\n";
  out += head;
  for (const FrameResult& r : run.results) {
    std::string row = Pad(std::to_string(r.frame), 5) + Pad(Ms(r.exposure_s), 10) +
                      Pad(std::to_string(r.state_hz) + " Hz", 7);
    if (wide) {
      for (int i = 0; i < 9; ++i) {
        row +=
            Pad(r.has_energies ? std::to_string(r.energies[static_cast<std::size_t>(i)]) : "-", 9);
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
    std::string tail = r.switched ? r.action : r.note;
    if (r.switched && !r.note.empty()) tail = r.note + "; " + r.action;
    if (!tail.empty()) row += "  " + tail;
    out += row + "\n";
  }
  return out;
}

std::string FormatSummary(const RunResult& run) {
  const std::int32_t judged = static_cast<std::int32_t>(run.results.size());
  std::string counts =
      std::to_string(judged) + " frames judged, " + std::to_string(run.skipped) + " not counted";
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

std::string FormatCsv(const RunResult& run) {
  std::string out = "frame,exposure_ms,state_hz";
  for (int f : kFrequencies) out += ",e" + std::to_string(f);
  out += ",relative,score,seq,result,switched,next_exposure_ms,note\n";
  for (const FrameResult& r : run.results) {
    out += std::to_string(r.frame) + "," + Format("%.6f", r.exposure_s * 1e3) + "," +
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
    out += "," + std::to_string(r.result) + "," + (r.switched ? "1" : "0") + "," +
           Format("%.6f", r.next_exposure_s * 1e3) + ",";
    // Notes are plain words; quote them anyway so a comma can never split a row.
    std::string note = r.note;
    for (char& c : note) {
      if (c == '"') c = '\'';
    }
    out += "\"" + note + "\"\n";
  }
  return out;
}

std::string JsonString(const std::string& text) {
  std::string out = "\"";
  for (const char ch : text) {
    const auto c = static_cast<unsigned char>(ch);
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (c < 0x20) {
          char buffer[8];
          std::snprintf(buffer, sizeof buffer, "\\u%04x", c);
          out += buffer;
        } else {
          out += ch;
        }
    }
  }
  return out + "\"";
}

std::string FormatJson(const RunResult& run, const std::string& command) {
  const SensorSetup& s = run.sensor;
  std::string out = "{\n";
  out += "  \"tool\": \"kestrel-flicker\",\n  \"format\": 1,\n";
  out += "  \"command\": " + JsonString(command) + ",\n";
  out += "  \"sensor\": {\"type\": " + std::to_string(s.type) +
         ", \"family\": " + JsonString(SensorName(s.type)) +
         ", \"line_length\": " + std::to_string(s.line_length) +
         ", \"column_length\": " + std::to_string(s.column_length) +
         ", \"pclk\": " + JsonNumber(s.pclk) +
         ", \"window_width\": " + std::to_string(s.window_width) +
         ", \"block_height\": " + std::to_string(s.block_height) +
         ", \"green_only\": " + std::to_string(s.green_only) +
         ", \"n_win_h\": " + std::to_string(s.n_win_h) +
         ", \"n_win_w\": " + std::to_string(s.n_win_w) +
         ", \"win_ht\": " + std::to_string(s.win_ht) +
         ", \"zhdr\": " + (s.zhdr ? "true" : "false") +
         ", \"frame_period_ms\": " + JsonNumber(s.FramePeriod() * 1e3) + "},\n";
  out += "  \"frames\": " + std::to_string(run.frames) + ",\n";
  out += "  \"initial_state_hz\": " + std::to_string(run.initial_state_hz) + ",\n";
  out += "  \"final_state_hz\": " + std::to_string(run.final_state_hz) + ",\n";
  out += std::string("  \"switched\": ") + (run.first_switch_frame >= 0 ? "true" : "false") + ",\n";
  out +=
      "  \"first_switch_frame\": " +
      (run.first_switch_frame >= 0 ? std::to_string(run.first_switch_frame) : std::string("null")) +
      ",\n";
  out += "  \"switches\": " + std::to_string(run.switches) + ",\n";
  out += "  \"frames_not_counted\": " + std::to_string(run.skipped) + ",\n";
  out += "  \"per_frame\": [";
  for (std::size_t i = 0; i < run.results.size(); ++i) {
    const FrameResult& r = run.results[i];
    out += i == 0 ? "\n" : ",\n";
    out += "    {\"frame\": " + std::to_string(r.frame) +
           ", \"exposure_ms\": " + JsonNumber(r.exposure_s * 1e3) +
           ", \"state_hz\": " + std::to_string(r.state_hz) + ", \"energies\": ";
    if (r.has_energies) {
      out += "[";
      for (int k = 0; k < 9; ++k) {
        if (k > 0) out += ", ";
        out += std::to_string(r.energies[static_cast<std::size_t>(k)]);
      }
      out += "]";
    } else {
      out += "null";
    }
    out += ", \"relative\": " +
           (r.has_relative ? JsonNumber(r.relative_q8 / 256.0) : std::string("null"));
    out += ", \"score\": " + (r.has_score ? std::to_string(r.score) : std::string("null"));
    out += ", \"seq\": " + (r.has_seq ? std::to_string(r.seq) : std::string("null"));
    out += ", \"result\": " + std::to_string(r.result);
    out += std::string(", \"switched\": ") + (r.switched ? "true" : "false");
    out += ", \"next_exposure_ms\": " + JsonNumber(r.next_exposure_s * 1e3);
    out += ", \"note\": " + JsonString(r.note) + "}";
  }
  out += run.results.empty() ? "]\n" : "\n  ]\n";
  out += "}\n";
  return out;
}

}  // namespace kestrel_host
