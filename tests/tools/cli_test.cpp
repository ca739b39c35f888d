// SPDX-License-Identifier: Apache-2.0
// The command line: option parsing, exit codes, the outputs, and no file left half-written.
#include "host/cli.h"

#include <gtest/gtest.h>

#include <cctype>
#include <filesystem>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "host/recording.h"
#include "host/report.h"
#include "support.h"

namespace kestrel_host {
namespace {

namespace fs = std::filesystem;

class CliTest : public kestrel_test::LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    dir_ = fs::temp_directory_path() / ("kestrel_cli_test_" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()));
    fs::remove_all(dir_);
    fs::create_directories(dir_);
  }
  void TearDown() override {
    fs::remove_all(dir_);
    LibraryTest::TearDown();
  }
  int Run(const std::vector<std::string>& args) {
    out_.str("");
    err_.str("");
    return RunCli(args, out_, err_);
  }
  std::string Path(const std::string& name) const { return (dir_ / name).string(); }
  std::size_t FilesLeft() const {
    return static_cast<std::size_t>(std::distance(fs::directory_iterator(dir_), fs::directory_iterator()));
  }

  fs::path dir_;
  std::ostringstream out_, err_;
};

TEST(ParseArgs, DefaultsAndOptions) {
  const CliOptions none = ParseArgs({});
  EXPECT_EQ(none.command, CliOptions::Command::kSimulate);
  EXPECT_EQ(none.Sensor().type, 0);
  EXPECT_EQ(none.scene.mains_hz, 60.0);

  const CliOptions o = ParseArgs({"simulate", "--type", "2", "--windows", "2x5", "--win-ht=400", "--mains", "50",
                                  "--step", "4:1.5", "--fps", "30", "--motion", "-2.5", "--json"});
  const SensorSetup s = o.Sensor();
  EXPECT_EQ(s.type, 2);
  EXPECT_EQ(s.n_win_h, 2);
  EXPECT_EQ(s.n_win_w, 5);
  EXPECT_EQ(s.win_ht, 400);
  EXPECT_EQ(s.column_length, 2667);  // 200 MHz / (2500 x 30)
  EXPECT_EQ(o.scene.mains_hz, 50.0);
  EXPECT_EQ(o.scene.motion, -2.5);
  ASSERT_EQ(o.scene.steps.size(), 1u);
  EXPECT_EQ(o.scene.steps[0].frame, 4);
  EXPECT_EQ(o.scene.steps[0].factor, 1.5);
  EXPECT_TRUE(o.json);

  const CliOptions r = ParseArgs({"replay", "rec.kfr", "--state", "60", "--csv", "x.csv"});
  EXPECT_EQ(r.command, CliOptions::Command::kReplay);
  EXPECT_EQ(r.replay_file, "rec.kfr");
  EXPECT_EQ(r.state_hz, 60);
  EXPECT_EQ(r.csv_file, "x.csv");
}

struct BadArgs {
  std::vector<std::string> args;
  const char* message;
};

void PrintTo(const BadArgs& c, std::ostream* os) {
  for (const std::string& a : c.args) *os << a << ' ';
}

class BadCommandLine : public ::testing::TestWithParam<BadArgs> {};

TEST_P(BadCommandLine, ExitsTwoWithTheReason) {
  std::ostringstream out, err;
  EXPECT_EQ(RunCli(GetParam().args, out, err), 2);
  EXPECT_EQ(out.str(), "");
  EXPECT_NE(err.str().find(GetParam().message), std::string::npos) << err.str();
  EXPECT_NE(err.str().find("Try 'kestrel-flicker --help'."), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(
    Cli, BadCommandLine,
    ::testing::Values(BadArgs{{"--frames", "x"}, "--frames: 'x' is not a whole number"},
                      BadArgs{{"--frames", "1"}, "--frames: 1 is out of range 2..100000"},
                      BadArgs{{"--mains", "55"}, "--mains: use 50, 60 or 0"},
                      BadArgs{{"--state", "0"}, "--state: 0 is out of range 50..60"},
                      BadArgs{{"--depth", "1.5"}, "--depth: 1.5 is out of range 0..1"},
                      BadArgs{{"--type", "3"}, "--type: 3 is out of range 0..2"},
                      BadArgs{{"--windows", "3"}, "--windows: expected HxW"},
                      BadArgs{{"--step", "4"}, "--step: expected FRAME:FACTOR"},
                      BadArgs{{"--exposure"}, "--exposure needs a value"},
                      BadArgs{{"--json=yes"}, "--json takes no value"},
                      BadArgs{{"--colour"}, "unknown option '--colour'"},
                      BadArgs{{"frobnicate"}, "unknown command 'frobnicate'"},
                      BadArgs{{"replay"}, "replay needs a recording file"},
                      BadArgs{{"replay", "r.kfr", "--mains", "50"}, "--mains is a simulate option"},
                      BadArgs{{"--type", "1", "--zhdr"}, "--zhdr applies to sensor type 0 only"},
                      BadArgs{{"--win-ht", "1100"}, "the statistics cover 3300 sensor lines"},
                      BadArgs{{"--type", "2", "--block-height", "0"}, "--block-height: 0 is out of range"}),
    [](const ::testing::TestParamInfo<BadArgs>& info) {
      std::string name;
      for (const std::string& a : info.param.args) {
        for (char c : a) {
          if (std::isalnum(static_cast<unsigned char>(c))) name += c;
        }
        name += '_';
      }
      return name + std::to_string(info.index);
    });

TEST_F(CliTest, HelpAndVersion) {
  EXPECT_EQ(Run({"--help"}), 0);
  EXPECT_EQ(out_.str().rfind("usage: kestrel-flicker", 0), 0u);
  EXPECT_EQ(Run({"--version"}), 0);
  EXPECT_EQ(out_.str(), "kestrel-flicker 1.0.0 (recording format 1)\n");
}

TEST_F(CliTest, SimulateRecordReplayCsvJson) {
  const std::string rec = Path("scene.kfr");
  const std::string csv = Path("scene.csv");
  ASSERT_EQ(Run({"--type", "1", "--frames", "8", "--record", rec, "--csv", csv}), 0) << err_.str();
  const std::string table = out_.str();
  EXPECT_NE(table.find("kestrel-flicker simulate: SONY sensor (type 1), 60 Hz mains light"), std::string::npos);
  EXPECT_NE(table.find("\nsummary: "), std::string::npos);
  const std::string first_csv = ReadWholeFile(csv);
  EXPECT_EQ(first_csv.rfind("frame,exposure_ms,state_hz,e70,e80,e90,e100,e120,e130,e140,e160,e170,", 0), 0u);
  EXPECT_EQ(std::count(first_csv.begin(), first_csv.end(), '\n'), 8);  // header and 7 frames

  // The replay's table rows and CSV are those of the simulation.
  kestrel_test::ResetLibraryState();
  const std::string csv2 = Path("replay.csv");
  ASSERT_EQ(Run({"replay", rec, "--csv", csv2}), 0) << err_.str();
  EXPECT_EQ(ReadWholeFile(csv2), first_csv);
  const std::string replay = out_.str();
  EXPECT_EQ(replay.substr(replay.find("frame  exposure")), table.substr(table.find("frame  exposure")));

  kestrel_test::ResetLibraryState();
  ASSERT_EQ(Run({"replay", rec, "--json"}), 0);
  const std::string json = out_.str();
  EXPECT_EQ(json.rfind("{\n  \"tool\": \"kestrel-flicker\",\n  \"format\": 1,\n  \"command\": \"replay\",", 0), 0u);
  EXPECT_NE(json.find("\"per_frame\": ["), std::string::npos);
  EXPECT_EQ(json.substr(json.size() - 6), "  ]\n}\n");
}

TEST_F(CliTest, FailuresWriteNothing) {
  const std::string csv = Path("out.csv");
  const std::string rec = Path("out.kfr");
  // Refused by the library (and the reason is the library's).
  EXPECT_EQ(Run({"--type", "2", "--windows", "11x8", "--win-ht", "605", "--csv", csv, "--record", rec}), 1);
  EXPECT_EQ(err_.str(),
            "kestrel-flicker: frame 1: the library refused DETECT: [detectFlicker_SW_2x5] 11 windows, limit 1..10, "
            "result 2\n");
  EXPECT_EQ(out_.str(), "");
  EXPECT_EQ(FilesLeft(), 0u);

  // Unreadable and truncated recordings.
  EXPECT_EQ(Run({"replay", Path("missing.kfr"), "--csv", csv}), 1);
  EXPECT_NE(err_.str().find("cannot read "), std::string::npos);
  const std::string good = Path("good.kfr");
  ASSERT_EQ(Run({"--type", "1", "--frames", "3", "--record", good}), 0);
  std::string text = ReadWholeFile(good);
  text.resize(text.size() / 2);
  const std::string cut = Path("cut.kfr");
  WriteFileAtomically(cut, text);
  EXPECT_EQ(Run({"replay", cut, "--csv", csv}), 1);
  EXPECT_NE(err_.str().find("cut.kfr:"), std::string::npos);
  EXPECT_NE(err_.str().find("truncated"), std::string::npos) << err_.str();
  EXPECT_FALSE(fs::exists(csv));

  // An output that cannot be written: the error names it, and nothing else is left behind.
  EXPECT_EQ(Run({"--type", "1", "--frames", "3", "--csv", Path("no/such/dir.csv")}), 1);
  EXPECT_NE(err_.str().find("cannot write "), std::string::npos);
}

// The default scenario is the demonstration: a standard sensor in the 50 Hz state sees 60 Hz
// light and switches.
TEST_F(CliTest, DefaultScenarioSwitches) {
  ASSERT_EQ(Run({}), 0) << err_.str();
  const std::string text = out_.str();
  EXPECT_EQ(text.rfind("kestrel-flicker simulate: standard sensor (type 0), 60 Hz mains light (modulation 25%), "
                       "starting in the 50 Hz state at 10.000 ms\n"
                       "timing: 37.500 ms frames (26.67 fps) = 4.50 periods of 120 Hz light\n"
                       "statistics: 2400 rows (2400 of the 3000 lines), 3 bands x 8 windows 64 pixels wide\n",
                       0),
            0u)
      << text;
  EXPECT_NE(text.find("summary: switched from 50 Hz to 60 Hz at frame "), std::string::npos) << text;
  EXPECT_NE(text.find("switch to 60 Hz: SET_STATE 1, RESET_QUEUE, exposure 10.000 ms -> 8.333 ms"), std::string::npos);
}

TEST(JsonString, Escapes) {
  EXPECT_EQ(JsonString("plain"), "\"plain\"");
  EXPECT_EQ(JsonString("a\"b\\c\nd\te\x01"), "\"a\\\"b\\\\c\\nd\\te\\u0001\"");
}

}  // namespace
}  // namespace kestrel_host
