// SPDX-License-Identifier: Apache-2.0
// Recording file: sensor geometry and the statistics of consecutive frames, as text (format
// version 1, described in docs/recording-format.md).
#include "host/recording.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <string_view>

#include "host/error.h"
#include "host/output.h"

namespace kestrel_host {

namespace {

// Largest grid the host loads: far above any sensor's statistics, far below memory trouble.
constexpr std::int64_t kMaxGridValues = 16 * 1024 * 1024;
constexpr std::int64_t kMaxFrames = 100000;

// Reads a recording's bytes: a file descriptor through zlib (which passes plain text through and
// inflates gzip, recognised by its magic bytes), or text already in memory.
class Source {
 public:
  Source(int fd, std::string name) : name_(std::move(name)) {
    gz_ = gzdopen(fd, "rb");
    if (gz_ == nullptr) {
      ::close(fd);
      throw HostError("cannot read " + name_ + ": " + std::strerror(ENOMEM));
    }
    gzbuffer(gz_, 128 * 1024);
  }
  explicit Source(std::string text) : text_(std::move(text)) {}
  ~Source() {
    if (gz_ != nullptr) gzclose(gz_);
  }
  Source(const Source&) = delete;
  Source& operator=(const Source&) = delete;

  // Up to `size` bytes into `data`; 0 at the end.
  std::size_t Read(char* data, std::size_t size) {
    if (gz_ == nullptr) {
      const std::size_t n = std::min(size, text_.size() - pos_);
      std::memcpy(data, text_.data() + pos_, n);
      pos_ += n;
      return n;
    }
    errno = 0;
    const int n = gzread(gz_, data, static_cast<unsigned>(std::min<std::size_t>(size, 1 << 20)));
    if (n < 0) {
      int code = 0;
      const char* message = gzerror(gz_, &code);
      throw HostError("cannot read " + name_ + ": " +
                      (code == Z_ERRNO ? std::strerror(errno) : std::string(message)));
    }
    return static_cast<std::size_t>(n);
  }

 private:
  std::string name_;
  gzFile gz_ = nullptr;
  std::string text_;
  std::size_t pos_ = 0;
};

}  // namespace

// Walks the bytes line by line, skipping comments and blank lines.
class RecordingReader::Lines {
 public:
  Lines(std::unique_ptr<Source> source, const std::string& name)
      : source_(std::move(source)), name_(name) {}

  // The next non-empty, non-comment line; false at the end of the text.
  bool Next(std::string_view& line) {
    if (unread_) {
      unread_ = false;
      line = last_;
      return true;
    }
    for (;;) {
      std::string_view l;
      bool terminated = true;
      if (!Raw(l, terminated)) return false;
      ++number_;
      if (!l.empty() && l.back() == '\r') l.remove_suffix(1);
      const std::size_t first = l.find_first_not_of(" \t");
      if (first == std::string_view::npos || l[first] == '#') {
        if (first != std::string_view::npos && keep_comments_) {
          std::string_view c = l.substr(first + 1);
          if (!c.empty() && c.front() == ' ') c.remove_prefix(1);
          comments_.emplace_back(c);
        }
        if (!terminated && check_ends_) Fail("truncated: the file ends in the middle of a line");
        continue;
      }
      line = l.substr(first);
      // Every line ends with a newline, the last one ("end") possibly excepted: anything else
      // is a file cut short in the middle of a line. (Not on the first line, so that another
      // kind of file is called that and not a truncated recording.)
      if (!terminated && check_ends_) {
        std::string_view t = line;
        while (!t.empty() && (t.back() == ' ' || t.back() == '\t')) t.remove_suffix(1);
        if (t != "end") Fail("truncated: the file ends in the middle of a line");
      }
      last_ = line;
      return true;
    }
  }
  // The line Next() returned comes again.
  void Unread() { unread_ = true; }
  void CheckLineEnds() { check_ends_ = true; }
  void StopComments() { keep_comments_ = false; }

  [[noreturn]] void Fail(const std::string& what) const {
    throw HostError(name_ + ":" + std::to_string(number_) + ": " + what);
  }

  std::vector<std::string>& comments() { return comments_; }

 private:
  // One line without its newline, straight from the buffer (valid until the next call).
  bool Raw(std::string_view& line, bool& terminated) {
    for (;;) {
      const std::size_t nl = buffer_.find('\n', pos_);
      if (nl != std::string::npos) {
        line = std::string_view(buffer_).substr(pos_, nl - pos_);
        pos_ = nl + 1;
        return true;
      }
      if (eof_) {
        if (pos_ >= buffer_.size()) return false;
        line = std::string_view(buffer_).substr(pos_);
        pos_ = buffer_.size();
        terminated = false;
        return true;
      }
      buffer_.erase(0, pos_);
      pos_ = 0;
      const std::size_t had = buffer_.size();
      buffer_.resize(had + kChunk);
      const std::size_t n = source_->Read(buffer_.data() + had, kChunk);
      buffer_.resize(had + n);
      if (n == 0) eof_ = true;
    }
  }

  static constexpr std::size_t kChunk = 256 * 1024;
  std::unique_ptr<Source> source_;
  std::string name_;
  std::string buffer_;
  std::size_t pos_ = 0;
  bool eof_ = false;
  std::int64_t number_ = 0;
  bool unread_ = false;
  bool check_ends_ = false;
  bool keep_comments_ = true;
  std::string_view last_;
  std::vector<std::string> comments_;
};

namespace {

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
std::int64_t ReadField(RecordingReader::Lines& lines, const char* key, std::int64_t low,
                       std::int64_t high) {
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

double ReadDoubleField(RecordingReader::Lines& lines, const char* key) {
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

namespace {

std::string HeaderText(const Recording& r, std::int64_t frames) {
  const SensorSetup& s = r.sensor;
  std::string out = std::string(kRecordingMagic) + " " + std::to_string(kRecordingVersion) + "\n";
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
  if (r.light_hz) field("light", std::to_string(*r.light_hz));
  field("frames", std::to_string(frames));
  return out;
}

void AppendFrame(std::string& out, std::int64_t index, const Frame& frame, std::size_t cols) {
  out += "frame " + std::to_string(index) + " exposure " + Format("%.17g", frame.exposure_s) + "\n";
  char buffer[32];
  const std::vector<std::int64_t>& g = frame.grid;
  for (std::size_t i = 0; i < g.size(); ++i) {
    auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, g[i]);
    out.append(buffer, end);
    out += (i + 1) % cols == 0 ? '\n' : ' ';
  }
}

}  // namespace

RecordingWriter::RecordingWriter(OutputSink& sink, const Recording& header, std::int64_t frames)
    : sink_(sink), frames_(frames), columns_(static_cast<std::size_t>(header.sensor.n_win_w)) {
  sink_.Write(HeaderText(header, frames));
}

void RecordingWriter::Add(const Frame& frame) {
  if (written_ >= frames_)
    throw HostError("a recording of " + std::to_string(frames_) + " frames was given another");
  text_.clear();
  AppendFrame(text_, written_++, frame, columns_);
  sink_.Write(text_);
}

void RecordingWriter::Finish() {
  if (written_ != frames_) {
    throw HostError("a recording of " + std::to_string(frames_) + " frames got " +
                    std::to_string(written_));
  }
  sink_.Write("end\n");
}

std::string FormatRecording(const Recording& r) {
  std::string out = HeaderText(r, static_cast<std::int64_t>(r.frames.size()));
  const std::size_t cols = static_cast<std::size_t>(r.sensor.n_win_w);
  for (std::size_t f = 0; f < r.frames.size(); ++f) {
    AppendFrame(out, static_cast<std::int64_t>(f), r.frames[f], cols);
  }
  return out + "end\n";
}

RecordingReader::RecordingReader(const std::string& path) {
  int fd = STDIN_FILENO;
  const std::string name = path == "-" ? "standard input" : path;
  if (path == "-") {
    fd = ::dup(STDIN_FILENO);
  } else {
    fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  }
  if (fd < 0) throw HostError("cannot read " + name + ": " + std::strerror(errno));
  struct stat st {};
  if (::fstat(fd, &st) == 0 && S_ISDIR(st.st_mode)) {
    ::close(fd);
    throw HostError("cannot read " + name + ": " + std::strerror(EISDIR));
  }
  lines_ = std::make_unique<Lines>(std::make_unique<Source>(fd, name), name);
  ReadHeader();
}

RecordingReader::RecordingReader(std::string text, const std::string& name)
    : lines_(std::make_unique<Lines>(std::make_unique<Source>(std::move(text)), name)) {
  ReadHeader();
}

RecordingReader::~RecordingReader() = default;

void RecordingReader::ReadHeader() {
  Lines& lines = *lines_;
  std::string_view line;
  if (!lines.Next(line)) lines.Fail("empty file, not a kestrel-flicker recording");
  const auto head = Words(line);
  if (head.empty() || head[0] != kRecordingMagic) {
    lines.Fail(std::string("not a kestrel-flicker recording (the first line must be '") +
               kRecordingMagic + " " + std::to_string(kRecordingVersion) + "')");
  }
  std::int64_t version = 0;
  if (head.size() != 2 || !ParseInt(head[1], version)) lines.Fail("the format version is missing");
  if (version < 1 || version > kRecordingVersion) {
    lines.Fail("format version " + std::to_string(version) +
               " is not supported (this tool reads versions 1 to " +
               std::to_string(kRecordingVersion) + ")");
  }
  lines.CheckLineEnds();
  constexpr std::int64_t kInt = std::numeric_limits<std::int32_t>::max();
  Recording& r = header_;
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
  if (version >= 2) {
    // The optional light label.
    if (lines.Next(line) && line.starts_with("light")) {
      lines.Unread();
      const std::int64_t light = ReadField(lines, "light", 0, 60);
      if (light != 0 && light != 50 && light != 60)
        lines.Fail("field 'light' must be 50, 60 or 0 (steady light)");
      r.light_hz = static_cast<std::int32_t>(light);
    } else {
      lines.Unread();
    }
  }
  frame_count_ = ReadField(lines, "frames", 0, kMaxFrames);
  try {
    CheckSensorSetup(s);
  } catch (const HostError& e) {
    lines.Fail(e.what());
  }
  r.comments = lines.comments();
  lines.StopComments();
}

bool RecordingReader::Next(Frame& frame) {
  Lines& lines = *lines_;
  const SensorSetup& s = header_.sensor;
  std::string_view line;
  // 64-bit words for type 0 (zHDR counts ride above bit 24), 32-bit values for the others.
  constexpr std::int64_t kInt = std::numeric_limits<std::int32_t>::max();
  const std::int64_t low = s.type == 0 ? std::numeric_limits<std::int64_t>::min()
                                       : std::numeric_limits<std::int32_t>::min();
  const std::int64_t high = s.type == 0 ? std::numeric_limits<std::int64_t>::max() : kInt;
  const std::size_t cols = static_cast<std::size_t>(s.n_win_w);
  const std::size_t rows = static_cast<std::size_t>(s.StatRows());
  // A grid line where a frame header or "end" belongs: the geometry announces fewer rows than
  // the frames hold.
  const auto check_extra_rows = [&](std::int64_t f) {
    std::int64_t v = 0;
    const auto words = Words(line);
    if (f > 0 && !words.empty() && ParseInt(words[0], v)) {
      lines.Fail("frame " + std::to_string(f - 1) + " has more than the " + std::to_string(rows) +
                 " rows the header gives (" + (s.type == 2 ? "win_ht" : "n_win_h x win_ht") + ")");
    }
  };
  if (next_ >= frame_count_) {
    if (next_ > frame_count_) return false;
    ++next_;
    const bool more = lines.Next(line);
    if (more && line != "end") check_extra_rows(frame_count_);
    if (!more || line != "end") {
      lines.Fail("truncated or damaged: 'end' expected after " + std::to_string(frame_count_) +
                 " frames");
    }
    if (lines.Next(line)) lines.Fail("unexpected text after 'end'");
    return false;
  }
  const std::int64_t f = next_;
  if (!lines.Next(line) || line == "end") {
    lines.Fail("truncated: " + std::to_string(frame_count_) + " frames announced, " +
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
  if (index != f) {
    lines.Fail("frame " + std::to_string(index) + " found where frame " + std::to_string(f) +
               " was expected");
  }
  frame.exposure_s = exposure;
  frame.grid.resize(rows * cols);
  for (std::size_t row = 0; row < rows; ++row) {
    if (!lines.Next(line)) {
      lines.Fail("truncated: frame " + std::to_string(f) + " has " + std::to_string(row) +
                 " of its " + std::to_string(rows) + " rows");
    }
    // Split in place: a row is read straight into the grid.
    std::size_t c = 0, i = 0;
    while (i < line.size()) {
      while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) ++i;
      std::size_t j = i;
      while (j < line.size() && line[j] != ' ' && line[j] != '\t') ++j;
      if (j > i) {
        std::int64_t v = 0;
        const std::string_view word = line.substr(i, j - i);
        if (c < cols && (!ParseInt(word, v) || v < low || v > high)) {
          lines.Fail("frame " + std::to_string(f) + " row " + std::to_string(row) + ": '" +
                     std::string(word) + "' is not a " + (s.type == 0 ? "64" : "32") +
                     "-bit integer");
        }
        if (c < cols) frame.grid[row * cols + c] = v;
        ++c;
      }
      i = j;
    }
    if (c != cols) {
      lines.Fail("frame " + std::to_string(f) + " row " + std::to_string(row) + " has " +
                 std::to_string(c) + " values, expected n_win_w = " + std::to_string(cols));
    }
  }
  ++next_;
  return true;
}

namespace {

Recording ReadAll(RecordingReader& reader) {
  Recording r = reader.header();
  Frame frame;
  while (reader.Next(frame)) r.frames.push_back(frame);
  return r;
}

}  // namespace

Recording ParseRecording(const std::string& text, const std::string& name) {
  RecordingReader reader(text, name);
  return ReadAll(reader);
}

Recording LoadRecording(const std::string& path) {
  RecordingReader reader(path);
  return ReadAll(reader);
}

}  // namespace kestrel_host
