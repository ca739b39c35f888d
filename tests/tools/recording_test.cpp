// SPDX-License-Identifier: Apache-2.0
// Recording format: a lossless round trip, and a clear message for every file it cannot take.
#include "host/recording.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <filesystem>
#include <ostream>
#include <string>

#include "host/error.h"

namespace kestrel_host {
namespace {

Recording Small() {
  Recording r;
  r.sensor = DefaultSensor(1);
  r.sensor.n_win_h = 1;
  r.sensor.n_win_w = 2;
  r.sensor.win_ht = 3;
  r.initial_state_hz = 60;
  r.frames = {Frame{0.01, {1, 2, 3, 4, 5, 6}}, Frame{1.0 / 120.0, {7, 8, 9, 10, 11, 1023}}};
  r.comments = {"two tiny frames"};
  return r;
}

// The text of Small(), written out by hand: the documented layout.
const char* kSmallText =
    "kestrel-flicker-recording 1\n"
    "# two tiny frames\n"
    "type 1\nline_length 6000\ncolumn_length 1250\npclk 200000000\nwindow_width 64\n"
    "block_height 0\ngreen_only 0\nn_win_h 1\nn_win_w 2\nwin_ht 3\nzhdr 0\nzhdr_gle_first 1\n"
    "zhdr_se_small 0\ninitial_state 60\nframes 2\n"
    "frame 0 exposure 0.01\n1 2\n3 4\n5 6\n"
    "frame 1 exposure 0.0083333333333333332\n7 8\n9 10\n11 1023\n"
    "end\n";

TEST(Recording, WritesTheDocumentedLayout) { EXPECT_EQ(FormatRecording(Small()), kSmallText); }

TEST(Recording, RoundTripIsLossless) {
  Recording in = Small();
  in.sensor = DefaultSensor(0, true);
  in.sensor.n_win_h = 1;
  in.sensor.n_win_w = 2;
  in.sensor.win_ht = 3;
  in.sensor.pclk = 123456789.123;
  in.frames[1].grid[5] = (std::int64_t{4095} << 36) | (std::int64_t{17} << 24) | 0xFFFFFF;
  const Recording out = ParseRecording(FormatRecording(in), "x");
  EXPECT_EQ(out.sensor.type, 0);
  EXPECT_TRUE(out.sensor.zhdr);
  EXPECT_EQ(out.sensor.pclk, in.sensor.pclk);
  EXPECT_EQ(out.initial_state_hz, 60);
  ASSERT_EQ(out.frames.size(), 2u);
  for (std::size_t f = 0; f < 2; ++f) {
    EXPECT_EQ(out.frames[f].exposure_s, in.frames[f].exposure_s);
    EXPECT_EQ(out.frames[f].grid, in.frames[f].grid);
  }
  EXPECT_EQ(out.comments, std::vector<std::string>{"two tiny frames"});
}

TEST(Recording, AcceptsCommentsBlankLinesAndCrLf) {
  std::string text = kSmallText;
  text.insert(text.find("frame 1"), "\n# a note between frames\n   \n");
  std::string crlf;
  for (char c : text) {
    if (c == '\n') crlf += '\r';
    crlf += c;
  }
  const Recording r = ParseRecording(crlf, "x");
  EXPECT_EQ(r.frames[1].grid[5], 1023);
  // The closing line may lack its newline.
  std::string bare = kSmallText;
  bare.pop_back();
  EXPECT_EQ(ParseRecording(bare, "x").frames.size(), 2u);
}

struct BadFile {
  const char* what;
  std::string from, to;  // replace the first `from` by `to` in the good text
  const char* message;   // expected part of the error
};

void PrintTo(const BadFile& c, std::ostream* os) { *os << c.what; }

class BadRecording : public ::testing::TestWithParam<BadFile> {};

TEST_P(BadRecording, SaysWhatIsWrong) {
  const BadFile c = GetParam();
  std::string text = kSmallText;
  const std::size_t at = text.find(c.from);
  ASSERT_NE(at, std::string::npos) << c.what;
  text.replace(at, c.from.size(), c.to);
  try {
    ParseRecording(text, "rec.kfr");
    FAIL() << c.what << ": accepted";
  } catch (const HostError& e) {
    EXPECT_NE(std::string(e.what()).find(c.message), std::string::npos) << c.what << ": " << e.what();
    EXPECT_EQ(std::string(e.what()).rfind("rec.kfr:", 0), 0u) << e.what();
  }
}

INSTANTIATE_TEST_SUITE_P(
    Recording, BadRecording,
    ::testing::Values(
        BadFile{"other file", "kestrel-flicker-recording 1", "P6 640 480", "not a kestrel-flicker recording"},
        BadFile{"newer version", "recording 1", "recording 2", "format version 2 is not supported"},
        BadFile{"empty", kSmallText, "", "empty file"},
        BadFile{"truncated header", "green_only 0\nn_win_h 1\nn_win_w 2\nwin_ht 3\nzhdr 0\nzhdr_gle_first 1\n"
                "zhdr_se_small 0\ninitial_state 60\nframes 2\nframe 0 exposure 0.01\n1 2\n3 4\n5 6\n"
                "frame 1 exposure 0.0083333333333333332\n7 8\n9 10\n11 1023\nend\n", "green_only 0\n",
                "truncated: missing field 'n_win_h'"},
        BadFile{"truncated frame", "9 10\n11 1023\nend\n", "9 10\n", "frame 1 has 2 of its 3 rows"},
        BadFile{"missing frame", "frame 1 exposure 0.0083333333333333332\n7 8\n9 10\n11 1023\n", "",
                "2 frames announced, 1 found"},
        BadFile{"missing end", "end\n", "", "'end' expected"},
        BadFile{"cut in a line", "11 1023\nend\n", "11 10", "truncated: the file ends in the middle of a line"},
        BadFile{"text after end", "end\n", "end\nmore\n", "unexpected text after 'end'"},
        BadFile{"field order", "line_length 6000\ncolumn_length 1250", "column_length 1250\nline_length 6000",
                "expected 'line_length <value>'"},
        BadFile{"unknown type", "type 1", "type 3", "field 'type' must be an integer in 0..2"},
        BadFile{"bad state", "initial_state 60", "initial_state 55", "must be 50 or 60"},
        BadFile{"zero windows", "n_win_w 2", "n_win_w 0", "field 'n_win_w' must be an integer in 1.."},
        BadFile{"bad pclk", "pclk 200000000", "pclk fast", "expected 'pclk <positive number>'"},
        BadFile{"short row", "3 4\n", "3\n", "frame 0 row 1 has 1 values, expected n_win_w = 2"},
        BadFile{"not a number", "9 10", "9 ten", "'ten' is not a 32-bit integer"},
        BadFile{"too large for 32 bits", "9 10", "9 2147483648", "is not a 32-bit integer"},
        BadFile{"frame out of order", "frame 1 exposure", "frame 5 exposure", "frame 5 found where frame 1"},
        BadFile{"zHDR on SONY", "zhdr 0", "zhdr 1", "zHDR statistics exist only for sensor type 0"},
        BadFile{"rows beyond the frame", "column_length 1250", "column_length 2",
                "the statistics cover 3 sensor lines"}),
    [](const ::testing::TestParamInfo<BadFile>& info) {
      std::string name;
      for (const char* c = info.param.what; *c != '\0'; ++c) {
        if (std::isalnum(static_cast<unsigned char>(*c))) name += *c;
        if (*c == ' ') name += '_';
      }
      return name;
    });

TEST(Recording, MissingFile) {
  try {
    LoadRecording("/nonexistent/dir/rec.kfr");
    FAIL();
  } catch (const HostError& e) {
    EXPECT_NE(std::string(e.what()).find("cannot read /nonexistent/dir/rec.kfr"), std::string::npos);
  }
}

TEST(Recording, SaveIsAllOrNothing) {
  const std::filesystem::path dir = std::filesystem::temp_directory_path() / "kestrel_recording_test";
  std::filesystem::remove_all(dir);
  std::filesystem::create_directories(dir);
  const std::string path = (dir / "rec.kfr").string();
  SaveRecording(path, Small());
  EXPECT_EQ(ReadWholeFile(path), kSmallText);
  // Nothing but the recording is left beside it.
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir), std::filesystem::directory_iterator()), 1);
  EXPECT_THROW(SaveRecording((dir / "no" / "rec.kfr").string(), Small()), HostError);
  EXPECT_THROW(ReadWholeFile(dir.string()), HostError);
  std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace kestrel_host
