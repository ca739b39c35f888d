// SPDX-License-Identifier: Apache-2.0
// The command line: option parsing, exit codes, the outputs, and no file left half-written.
#include "host/cli.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "host/report.h"
#include "support.h"

namespace kestrel_host {
namespace {

namespace fs = std::filesystem;

class CliTest : public kestrel_test::LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    fs::create_directories(dir_);
  }
  void TearDown() override {
    fs::remove_all(dir_);
    LibraryTest::TearDown();
  }
  // The command line `args`, words separated by single spaces.
  int Run(const std::string& args) {
    std::vector<std::string> words;
    for (std::istringstream in(args); in.good();) in >> words.emplace_back();
    if (args.empty()) words.clear();
    out_.str("");
    err_.str("");
    kestrel_test::ResetLibraryState();
    return RunCli(words, out_, err_);
  }
  std::string Path(const std::string& name) const { return (dir_ / name).string(); }

  const fs::path dir_ =
      fs::temp_directory_path() / ("kestrel_cli_test_" + std::to_string(::getpid()));
  std::ostringstream out_, err_;
};

struct BadArgs {
  const char* args;
  const char* message;  // the start of the reason given
};

void PrintTo(const BadArgs& c, std::ostream* os) {
  *os << c.args;
}

class BadCommandLine : public CliTest, public ::testing::WithParamInterface<BadArgs> {};

TEST_P(BadCommandLine, ExitsTwoWithTheReason) {
  EXPECT_EQ(Run(GetParam().args), 2);
  EXPECT_EQ(out_.str(), "");
  EXPECT_EQ(err_.str().rfind("kestrel-flicker: " + std::string(GetParam().message), 0), 0u)
      << err_.str();
  EXPECT_TRUE(err_.str().ends_with("\nTry 'kestrel-flicker --help'.\n")) << err_.str();
}

INSTANTIATE_TEST_SUITE_P(
    Cli, BadCommandLine,
    ::testing::Values(
        BadArgs{"--frames x", "--frames: 'x' is not a whole number\n"},
        BadArgs{"--frames 1", "--frames: 1 is out of range 2..100000\n"},
        BadArgs{"--mains 55", "--mains: use 50, 60 or 0 (steady light)\n"},
        BadArgs{"--windows 3", "--windows: expected HxW (bands x columns), got '3'\n"},
        BadArgs{"--exposure", "--exposure needs a value\n"},
        BadArgs{"--json=yes", "--json takes no value\n"},
        BadArgs{"--colour", "unknown option '--colour'\n"},
        BadArgs{"frobnicate", "unknown command 'frobnicate' (simulate or replay)\n"},
        BadArgs{"replay", "replay needs a recording file\n"},
        BadArgs{"replay r.kfr --mains 50", "--mains is a simulate option; a replay takes"},
        BadArgs{"--type 1 --zhdr", "--zhdr applies to sensor type 0 only\n"},
        BadArgs{"--hdr-ratio 2", "--hdr-ratio applies with --zhdr only\n"},
        BadArgs{"--block-height 2", "--block-height and --green-only apply to sensor type 2 only"},
        BadArgs{"--csv a --record a", "--record and --csv name the same file\n"},
        BadArgs{"--fps 30 --frame-length 3000", "--fps and --frame-length both set the frame"},
        BadArgs{"--motion 1000 --frames 100000", "the scene would hold 3200077856 values"},
        BadArgs{"--exposure 40", "an exposure of 40.000 ms does not fit a frame of 37.500 ms"},
        BadArgs{"--win-ht 1100", "the statistics cover 3300 sensor lines (3300 rows of 1) but"}));

// The README's first command: a standard sensor in the 50 Hz state sees 60 Hz light and switches.
TEST_F(CliTest, DefaultScenarioSwitches) {
  ASSERT_EQ(Run(""), 0) << err_.str();
  EXPECT_TRUE(out_.str().starts_with(
      "kestrel-flicker simulate: standard sensor (type 0), 60 Hz mains light (modulation 25%), "
      "starting in the 50 Hz state at 10.000 ms\n"
      "timing: 37.500 ms frames (26.67 fps) = 4.50 periods of 120 Hz light\n"
      "statistics: 2400 rows (2400 of the 3000 lines), 3 bands x 8 windows 64 pixels wide\n"))
      << out_.str();
  EXPECT_TRUE(out_.str().ends_with(
      "\nsummary: switched from 50 Hz to 60 Hz at frame 3 (exposure 10.000 -> 8.333 ms); final "
      "state 60 Hz; 19 frames judged, 0 not counted\n"));
  EXPECT_EQ(Run("--version"), 0);
  EXPECT_EQ(out_.str(), "kestrel-flicker 1.0.0 (recording format 1)\n");
  EXPECT_EQ(Run("--help"), 0);
  EXPECT_TRUE(out_.str().starts_with("usage: kestrel-flicker"));
}

// A replay's table, CSV and JSON are those of the simulation that recorded it, in every family.
TEST_F(CliTest, SimulateRecordReplayCsvJson) {
  const std::string rec = Path("scene.kfr"), csv = Path("scene.csv"), csv2 = Path("replay.csv");
  for (const std::string type : {"0", "1", "2"}) {
    ASSERT_EQ(Run("--frames 8 --motion 1.5 --record " + rec + " --csv " + csv + " --type " + type),
              0);
    const std::string table = out_.str();
    ASSERT_EQ(Run("replay " + rec + " --csv " + csv2), 0) << err_.str();
    EXPECT_EQ(ReadWholeFile(csv2), ReadWholeFile(csv)) << "type " << type;
    EXPECT_EQ(out_.str().substr(out_.str().find("\nframe")), table.substr(table.find("\nframe")));
  }
  EXPECT_TRUE(ReadWholeFile(csv).starts_with(
      "frame,exposure_ms,state_hz,e70,e80,e90,e100,e120,e130,e140,e160,e170,relative,score,seq,"
      "result,switched,next_exposure_ms,note\n1,10.000000,50,"));
  ASSERT_EQ(Run("replay " + rec + " --json"), 0);
  EXPECT_TRUE(out_.str().starts_with(
      "{\n  \"tool\": \"kestrel-flicker\",\n  \"format\": 1,\n  \"command\": \"replay\","));
  EXPECT_NE(out_.str().find("\"first_switch_frame\": 3,"), std::string::npos);
  EXPECT_EQ(JsonString("a\"b\\c\nd\te\x01"), "\"a\\\"b\\\\c\\nd\\te\\u0001\"");
}

TEST_F(CliTest, FailuresWriteNothing) {
  const std::string csv = Path("out.csv"), rec = Path("out.kfr"),
                    outputs = " --csv " + csv + " --record " + rec;
  // Refused by the library, which names the limit.
  EXPECT_EQ(Run("--type 2 --windows 11x8 --win-ht 605" + outputs), 1);
  EXPECT_EQ(err_.str(),
            "kestrel-flicker: frame 1: the library refused DETECT: [detectFlicker_SW_2x5] "
            "11 windows, limit 1..10, result 2\n");
  EXPECT_EQ(out_.str(), "");
  EXPECT_EQ(Run("--frame-length 70000" + outputs), 1);
  EXPECT_EQ(err_.str(),
            "kestrel-flicker: the library refused INIT: [flicker_init] column_length "
            "70000 outside 0..65536\n");
  // One of two outputs cannot be written: neither is.
  EXPECT_EQ(Run("--frames 3 --record " + rec + " --csv " + Path("no/such.csv")), 1);
  EXPECT_EQ(err_.str(), "kestrel-flicker: cannot write " + Path("no/such.csv") +
                            ": No such file or directory\n");
  EXPECT_EQ(Run("--frames 3 --record " + rec + " --csv " + dir_.string()), 1);
  EXPECT_EQ(err_.str(), "kestrel-flicker: cannot write " + dir_.string() + ": Is a directory\n");
  EXPECT_TRUE(fs::is_empty(dir_));
  // Unreadable and truncated recordings.
  EXPECT_EQ(Run("replay " + Path("missing.kfr") + " --csv " + csv), 1);
  EXPECT_EQ(err_.str(), "kestrel-flicker: cannot read " + Path("missing.kfr") +
                            ": No such file or directory\n");
  WriteFiles({{rec, "kestrel-flicker-recording 1\ntype 1\nline_len"}});
  EXPECT_EQ(Run("replay " + rec + " --csv " + csv), 1);
  EXPECT_EQ(err_.str(),
            "kestrel-flicker: " + rec + ":3: truncated: the file ends in the middle of a line\n");
  EXPECT_FALSE(fs::exists(csv));
}

}  // namespace
}  // namespace kestrel_host
