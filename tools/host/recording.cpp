// SPDX-License-Identifier: Apache-2.0
// Recording file: sensor geometry and the statistics of consecutive frames, as text (format
// version 1, described in docs/recording-format.md).
#include "host/recording.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <limits>
#include <string_view>

#include "host/error.h"

namespace kestrel_host {

namespace {

// Largest grid the host loads: far above any sensor's statistics, far below memory trouble.
constexpr std::int64_t kMaxGridValues = 16 * 1024 * 1024;
constexpr std::int64_t kMaxFrames = 100000;

// Walks the text line by line, skipping comments and blank lines, and splits lines into words.
class Lines {
 public:
  Lines(const std::string& text, const std::string& name) : text_(text), name_(name) {}

  // The next non-empty, non-comment line; false at the end of the text.
  bool Next(std::string_view& line) {
    while (pos_ < text_.size()) {
      std::size_t end = text_.find('\n', pos_);
      if (end == std::string_view::npos) end = text_.size();
      std::string_view l = text_.substr(pos_, end - pos_);
      pos_ = end + 1;
      ++number_;
      if (!l.empty() && l.back() == '\r') l.remove_suffix(1);
      const std::size_t first = l.find_first_not_of(" \t");
      if (first == std::string_view::npos || l[first] == '#') {
        if (first != std::string_view::npos) {
          std::string_view c = l.substr(first + 1);
          if (!c.empty() && c.front() == ' ') c.remove_prefix(1);
          comments_.emplace_back(c);
        }
        continue;
      }
      line = l.substr(first);
      return true;
    }
    return false;
  }

  [[noreturn]] void Fail(const std::string& what) const {
    throw HostError(name_ + ":" + std::to_string(number_) + ": " + what);
  }

  std::vector<std::string>& comments() { return comments_; }

 private:
  std::string_view text_;
  std::string name_;
  std::size_t pos_ = 0;
  std::int64_t number_ = 0;
  std::vector<std::string> comments_;
};

std::vector<std::string_view> Words(std::string_view line) {
  std::vector<std::string_view> words;
  std::size_t i = 0;
  while (i < line.size()) {
    while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) ++i;
    std::size_t j = i;
    while (j < line.size() && line[j] != ' ' && line[j] != '\t') ++j;
    if (j > i) words.push_back(line.substr(i, j - i));
    i = j;
  }
  return words;
}

bool ParseInt(std::string_view word, std::int64_t& value) {
  const char* end = word.data() + word.size();
  auto [ptr, ec] = std::from_chars(word.data(), end, value);
  return ec == std::errc() && ptr == end;
}

bool ParseDouble(std::string_view word, double& value) {
  const char* end = word.data() + word.size();
  auto [ptr, ec] = std::from_chars(word.data(), end, value);
  return ec == std::errc() && ptr == end && std::isfinite(value);
}

// "key value" with an integer value in [low, high].
std::int64_t ReadField(Lines& lines, const char* key, std::int64_t low, std::int64_t high) {
  std::string_view line;
  if (!lines.Next(line)) lines.Fail(std::string("truncated: missing field '") + key + "'");
  const auto words = Words(line);
  if (words.size() != 2 || words[0] != key) {
    lines.Fail(std::string("expected '") + key + " <value>', found '" + std::string(line) + "'");
  }
  std::int64_t value = 0;
  if (!ParseInt(words[1], value) || value < low || value > high) {
    lines.Fail(std::string("field '") + key + "' must be an integer in " + std::to_string(low) +
               ".." + std::to_string(high) + ", found '" + std::string(words[1]) + "'");
  }
  return value;
}

double ReadDoubleField(Lines& lines, const char* key) {
  std::string_view line;
  if (!lines.Next(line)) lines.Fail(std::string("truncated: missing field '") + key + "'");
  const auto words = Words(line);
  double value = 0.0;
  if (words.size() != 2 || words[0] != key || !ParseDouble(words[1], value) || value <= 0.0) {
    lines.Fail(std::string("expected '") + key + " <positive number>', found '" +
               std::string(line) + "'");
  }
  return value;
}

}  // namespace

void CheckSensorSetup(const SensorSetup& s) {
  const auto positive = [](const char* what, std::int64_t v) {
    if (v < 1)
      throw HostError(std::string(what) + " must be at least 1 (got " + std::to_string(v) + ")");
  };
  if (s.type < 0 || s.type > 2) {
    throw HostError("sensor type must be 0 (standard), 1 (SONY) or 2 (2x5), got " +
                    std::to_string(s.type));
  }
  positive("line_length", s.line_length);
  positive("column_length", s.column_length);
  positive("window_width", s.window_width);
  positive("n_win_h", s.n_win_h);
  positive("n_win_w", s.n_win_w);
  positive("win_ht", s.win_ht);
  if (!(s.pclk > 0.0) || !std::isfinite(s.pclk))
    throw HostError("pclk must be a positive number of Hz");
  if (s.type == 2) positive("block_height", s.block_height);
  if (s.zhdr && s.type != 0) throw HostError("zHDR statistics exist only for sensor type 0");
  if (s.type == 2 && s.win_ht < s.n_win_h) {
    throw HostError("type 2 reads win_ht as the frame's rows: " + std::to_string(s.win_ht) +
                    " rows cannot make " + std::to_string(s.n_win_h) + " bands");
  }
  if (s.GridSize() > kMaxGridValues) {
    throw HostError("a grid of " + std::to_string(s.GridSize()) + " values is more than the " +
                    std::to_string(kMaxGridValues) + " the host loads");
  }
  const std::int64_t lines = static_cast<std::int64_t>(s.StatRows()) * s.LinesPerRow();
  if (lines > s.column_length) {
    throw HostError("the statistics cover " + std::to_string(lines) + " sensor lines (" +
                    std::to_string(s.StatRows()) + " rows of " + std::to_string(s.LinesPerRow()) +
                    ") but a frame has only column_length " + std::to_string(s.column_length));
  }
}

std::string FormatRecording(const Recording& r) {
  const SensorSetup& s = r.sensor;
  std::string out;
  out.reserve(static_cast<std::size_t>(s.GridSize()) * 9 * r.frames.size() + 1024);
  out += std::string(kRecordingMagic) + " " + std::to_string(kRecordingVersion) + "\n";
  for (const std::string& c : r.comments) out += "# " + c + "\n";
  const auto field = [&](const char* key, const std::string& value) {
    out += key;
    out += ' ';
    out += value;
    out += '\n';
  };
  field("type", std::to_string(s.type));
  field("line_length", std::to_string(s.line_length));
  field("column_length", std::to_string(s.column_length));
  field("pclk", Format("%.17g", s.pclk));
  field("window_width", std::to_string(s.window_width));
  field("block_height", std::to_string(s.block_height));
  field("green_only", std::to_string(s.green_only));
  field("n_win_h", std::to_string(s.n_win_h));
  field("n_win_w", std::to_string(s.n_win_w));
  field("win_ht", std::to_string(s.win_ht));
  field("zhdr", s.zhdr ? "1" : "0");
  field("zhdr_gle_first", s.zhdr_gle_first ? "1" : "0");
  field("zhdr_se_small", s.zhdr_se_small ? "1" : "0");
  field("initial_state", std::to_string(r.initial_state_hz));
  field("frames", std::to_string(r.frames.size()));
  const std::size_t cols = static_cast<std::size_t>(s.n_win_w);
  char buffer[32];
  for (std::size_t f = 0; f < r.frames.size(); ++f) {
    out += "frame " + std::to_string(f) + " exposure " + Format("%.17g", r.frames[f].exposure_s) +
           "\n";
    const std::vector<std::int64_t>& g = r.frames[f].grid;
    for (std::size_t i = 0; i < g.size(); ++i) {
      auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, g[i]);
      out.append(buffer, end);
      out += (i + 1) % cols == 0 ? '\n' : ' ';
    }
  }
  out += "end\n";
  return out;
}

Recording ParseRecording(const std::string& text, const std::string& name) {
  Lines lines(text, name);
  Recording r;
  std::string_view line;
  if (!lines.Next(line)) lines.Fail("empty file, not a kestrel-flicker recording");
  const auto head = Words(line);
  if (head.empty() || head[0] != kRecordingMagic) {
    lines.Fail(std::string("not a kestrel-flicker recording (the first line must be '") +
               kRecordingMagic + " " + std::to_string(kRecordingVersion) + "')");
  }
  std::int64_t version = 0;
  if (head.size() != 2 || !ParseInt(head[1], version)) lines.Fail("the format version is missing");
  if (version != kRecordingVersion) {
    lines.Fail("format version " + std::to_string(version) +
               " is not supported (this tool reads version " + std::to_string(kRecordingVersion) +
               ")");
  }
  // Every line ends with a newline, the last one ("end") possibly excepted: anything else is a
  // file cut short in the middle of a line. (Checked only now, so that another kind of file is
  // called that and not a truncated recording.)
  if (!text.empty() && text.back() != '\n') {
    std::string_view tail(text);
    tail = tail.substr(tail.rfind('\n') == std::string_view::npos ? 0 : tail.rfind('\n') + 1);
    while (!tail.empty() && (tail.back() == ' ' || tail.back() == '\t' || tail.back() == '\r'))
      tail.remove_suffix(1);
    if (tail != "end") {
      const auto line = std::count(text.begin(), text.end(), '\n') + 1;
      throw HostError(name + ":" + std::to_string(line) +
                      ": truncated: the file ends in the middle of a line");
    }
  }
  constexpr std::int64_t kInt = std::numeric_limits<std::int32_t>::max();
  SensorSetup& s = r.sensor;
  s.type = static_cast<std::int32_t>(ReadField(lines, "type", 0, 2));
  s.line_length = static_cast<std::int32_t>(ReadField(lines, "line_length", 1, kInt));
  s.column_length = static_cast<std::int32_t>(ReadField(lines, "column_length", 1, kInt));
  s.pclk = ReadDoubleField(lines, "pclk");
  s.window_width = static_cast<std::int32_t>(ReadField(lines, "window_width", 1, kInt));
  s.block_height = static_cast<std::int32_t>(ReadField(lines, "block_height", 0, kInt));
  s.green_only = static_cast<std::int32_t>(ReadField(lines, "green_only", 0, 1));
  s.n_win_h = static_cast<std::int32_t>(ReadField(lines, "n_win_h", 1, kInt));
  s.n_win_w = static_cast<std::int32_t>(ReadField(lines, "n_win_w", 1, kInt));
  s.win_ht = static_cast<std::int32_t>(ReadField(lines, "win_ht", 1, kInt));
  s.zhdr = ReadField(lines, "zhdr", 0, 1) != 0;
  s.zhdr_gle_first = ReadField(lines, "zhdr_gle_first", 0, 1) != 0;
  s.zhdr_se_small = ReadField(lines, "zhdr_se_small", 0, 1) != 0;
  const std::int64_t state = ReadField(lines, "initial_state", 50, 60);
  if (state != 50 && state != 60) lines.Fail("field 'initial_state' must be 50 or 60");
  r.initial_state_hz = static_cast<std::int32_t>(state);
  const std::int64_t frames = ReadField(lines, "frames", 0, kMaxFrames);
  try {
    CheckSensorSetup(s);
  } catch (const HostError& e) {
    lines.Fail(e.what());
  }

  // 64-bit words for type 0 (zHDR counts ride above bit 24), 32-bit values for the others.
  const std::int64_t low = s.type == 0 ? std::numeric_limits<std::int64_t>::min()
                                       : std::numeric_limits<std::int32_t>::min();
  const std::int64_t high = s.type == 0 ? std::numeric_limits<std::int64_t>::max() : kInt;
  const std::size_t cols = static_cast<std::size_t>(s.n_win_w);
  const std::size_t rows = static_cast<std::size_t>(s.StatRows());
  r.frames.resize(static_cast<std::size_t>(frames));
  // A grid line where a frame header or "end" belongs: the geometry announces fewer rows than
  // the frames hold.
  const auto check_extra_rows = [&](std::size_t f) {
    std::int64_t v = 0;
    const auto words = Words(line);
    if (f > 0 && !words.empty() && ParseInt(words[0], v)) {
      lines.Fail("frame " + std::to_string(f - 1) + " has more than the " + std::to_string(rows) +
                 " rows the header gives (" + (s.type == 2 ? "win_ht" : "n_win_h x win_ht") + ")");
    }
  };
  for (std::size_t f = 0; f < r.frames.size(); ++f) {
    if (!lines.Next(line) || line == "end") {
      lines.Fail("truncated: " + std::to_string(frames) + " frames announced, " +
                 std::to_string(f) + " found");
    }
    check_extra_rows(f);
    const auto words = Words(line);
    std::int64_t index = -1;
    double exposure = 0.0;
    if (words.size() != 4 || words[0] != "frame" || !ParseInt(words[1], index) ||
        words[2] != "exposure" || !ParseDouble(words[3], exposure) || exposure < 0.0) {
      lines.Fail("expected 'frame " + std::to_string(f) + " exposure <seconds>', found '" +
                 std::string(line.substr(0, 80)) + "'");
    }
    if (index != static_cast<std::int64_t>(f)) {
      lines.Fail("frame " + std::to_string(index) + " found where frame " + std::to_string(f) +
                 " was expected");
    }
    Frame& frame = r.frames[f];
    frame.exposure_s = exposure;
    frame.grid.resize(rows * cols);
    for (std::size_t row = 0; row < rows; ++row) {
      if (!lines.Next(line)) {
        lines.Fail("truncated: frame " + std::to_string(f) + " has " + std::to_string(row) +
                   " of its " + std::to_string(rows) + " rows");
      }
      const auto values = Words(line);
      if (values.size() != cols) {
        lines.Fail("frame " + std::to_string(f) + " row " + std::to_string(row) + " has " +
                   std::to_string(values.size()) +
                   " values, expected n_win_w = " + std::to_string(cols));
      }
      for (std::size_t c = 0; c < cols; ++c) {
        std::int64_t v = 0;
        if (!ParseInt(values[c], v) || v < low || v > high) {
          lines.Fail("frame " + std::to_string(f) + " row " + std::to_string(row) + ": '" +
                     std::string(values[c]) + "' is not a " + (s.type == 0 ? "64" : "32") +
                     "-bit integer");
        }
        frame.grid[row * cols + c] = v;
      }
    }
  }
  const bool more = lines.Next(line);
  if (more && line != "end") check_extra_rows(r.frames.size());
  if (!more || line != "end") {
    lines.Fail("truncated or damaged: 'end' expected after " + std::to_string(frames) + " frames");
  }
  if (lines.Next(line)) lines.Fail("unexpected text after 'end'");
  r.comments = std::move(lines.comments());
  return r;
}

Recording LoadRecording(const std::string& path) {
  return ParseRecording(ReadWholeFile(path), path);
}

}  // namespace kestrel_host
