// SPDX-License-Identifier: Apache-2.0
// Recording format: a lossless round trip, and a clear message for every file it cannot take.
#include "host/recording.h"

#include <gtest/gtest.h>

#include <cctype>
#include <ostream>
#include <string>

#include "host/error.h"

namespace kestrel_host {
namespace {

// A recording of two tiny frames, written out by hand: the documented layout.
const std::string kSmallText =
    "kestrel-flicker-recording 2\n"
    "# two tiny frames\n"
    "type 1\nline_length 6000\ncolumn_length 1250\npclk 200000000\nwindow_width 64\n"
    "block_height 0\ngreen_only 0\nn_win_h 1\nn_win_w 2\nwin_ht 3\nzhdr 0\nzhdr_gle_first 1\n"
    "zhdr_se_small 0\ninitial_state 60\nlight 50\nframes 2\n"
    "frame 0 exposure 0.01\n1 2\n3 4\n5 6\n"
    "frame 1 exposure 0.0083333333333333332\n7 8\n9 10\n11 1023\n"
    "end\n";

// kSmallText with the first `from` replaced by `to` and, with `cut`, nothing after it.
std::string Edited(const std::string& from, const std::string& to, bool cut = false) {
  const std::size_t at = kSmallText.find(from);
  EXPECT_NE(at, std::string::npos) << from;
  return kSmallText.substr(0, at) + to + (cut ? "" : kSmallText.substr(at + from.size()));
}

// Reading the layout and writing it again gives it back to the byte, a 64-bit zHDR word (value
// 0xFFFFFF, noise count 17, saturation count 4095) and a fractional pixel clock included.
TEST(Recording, ReadsAndWritesTheDocumentedLayout) {
  EXPECT_EQ(FormatRecording(ParseRecording(kSmallText, "x")), kSmallText);
  std::string text = Edited("type 1", "type 0");
  text.replace(text.find("zhdr 0"), 6, "zhdr 1");
  text.replace(text.find("11 1023"), 7, "11 281406559223807");
  text.replace(text.find("pclk 200000000"), 14, "pclk 123456789.123");
  const Recording r = ParseRecording(text, "x");
  EXPECT_TRUE(r.sensor.zhdr);
  EXPECT_EQ(r.frames[1].grid[5], (std::int64_t{4095} << 36) | (std::int64_t{17} << 24) | 0xFFFFFF);
  EXPECT_EQ(FormatRecording(r), text);
  // Version 1 has no light label and is still read.
  std::string v1 = Edited("recording 2", "recording 1");
  v1.erase(v1.find("light 50\n"), 9);
  EXPECT_FALSE(ParseRecording(v1, "x").light_hz.has_value());
  EXPECT_EQ(ParseRecording(kSmallText, "x").light_hz, 50);
}

// Comments, blank lines, CR LF line ends and a last line without its newline are read.
TEST(Recording, ReadsCommentsBlankLinesAndCrLf) {
  std::string crlf;
  for (char c : Edited("frame 1", "\n# a note between frames\n   \nframe 1")) {
    crlf += c == '\n' ? std::string("\r\n") : std::string(1, c);
  }
  crlf.resize(crlf.size() - 2);
  EXPECT_EQ(ParseRecording(crlf, "x").frames[1].grid[5], 1023);
}

struct BadFile {
  std::string from, to;  // replace the first `from` by `to`; with `cut`, drop everything after it
  bool cut;
  const char* message;  // the error after "rec.kfr:<line>: "
};

void PrintTo(const BadFile& c, std::ostream* os) {
  *os << c.message;
}

class BadRecording : public ::testing::TestWithParam<BadFile> {};

TEST_P(BadRecording, SaysWhereAndWhat) {
  const BadFile c = GetParam();
  try {
    ParseRecording(Edited(c.from, c.to, c.cut), "rec.kfr");
    FAIL() << "accepted";
  } catch (const HostError& e) {
    EXPECT_EQ(std::string(e.what()), "rec.kfr:" + std::string(c.message));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Recording, BadRecording,
    ::testing::Values(
        BadFile{"kestrel", "\x89PNG", true,
                "1: not a kestrel-flicker recording (the first line "
                "must be 'kestrel-flicker-recording 2')"},
        BadFile{"recording 2", "recording 3", false,
                "1: format version 3 is not supported (this "
                "tool reads versions 1 to 2)"},
        BadFile{"light 50", "light 55", false,
                "17: field 'light' must be 50, 60 or 0 (steady light)"},
        BadFile{"recording 2", "recording 1", false,
                "17: expected 'frames <value>', found 'light 50'"},
        BadFile{"kestrel", "", true, "0: empty file, not a kestrel-flicker recording"},
        BadFile{"n_win_h", "", true, "9: truncated: missing field 'n_win_h'"},
        BadFile{"11 1023", "", true, "25: truncated: frame 1 has 2 of its 3 rows"},
        BadFile{"frame 1", "", true, "22: truncated: 2 frames announced, 1 found"},
        BadFile{"end", "", true, "26: truncated or damaged: 'end' expected after 2 frames"},
        BadFile{"23\nend", "", true, "26: truncated: the file ends in the middle of a line"},
        BadFile{"end\n", "end\nmore\n", false, "28: unexpected text after 'end'"},
        BadFile{"type 1", "type 3", false, "3: field 'type' must be an integer in 0..2, found '3'"},
        BadFile{"zhdr 0", "zhdr 1", false, "18: zHDR statistics exist only for sensor type 0"},
        BadFile{"3 4\n", "3\n", false, "21: frame 0 row 1 has 1 values, expected n_win_w = 2"},
        BadFile{"5 6\n", "5 6\n0 0\n", false,
                "23: frame 0 has more than the 3 rows the header "
                "gives (n_win_h x win_ht)"},
        BadFile{"n_win_h 1", "n_win_h 1000000100", false,
                "18: a grid of 6000000600 values is more than the 16777216 the host loads"},
        BadFile{"9 10", "9 2147483648", false,
                "25: frame 1 row 1: '2147483648' is not a 32-bit "
                "integer"},
        BadFile{"frame 1 exposure", "frame 5 exposure", false,
                "23: frame 5 found where frame 1 "
                "was expected"}),
    [](const auto& info) {
      // "25: truncated: frame 1 has ..." -> "Line25_TruncatedFrame1Has2Of".
      const std::string m = info.param.message;
      std::string name = "Line" + m.substr(0, m.find(':')) + "_";
      int words = 0;
      bool start = true;
      for (const char c : m.substr(m.find(':') + 1)) {
        if (std::isalnum(static_cast<unsigned char>(c)) == 0) {
          start = true;
          continue;
        }
        if (start && ++words > 6) break;
        name += start ? static_cast<char>(std::toupper(static_cast<unsigned char>(c))) : c;
        start = false;
      }
      return name;
    });

}  // namespace
}  // namespace kestrel_host
