// SPDX-License-Identifier: Apache-2.0
// The command line: the exit-code rule, the outputs as they are written, and where they go.
#include "host/cli.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "host/output.h"
#include "support.h"

namespace kestrel_host {
namespace {

namespace fs = std::filesystem;

std::string Slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

class CliTest : public kestrel_test::LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    fs::create_directories(dir_);
  }
  void TearDown() override {
    fs::permissions(dir_, fs::perms::owner_all, fs::perm_options::add);
    fs::remove_all(dir_);
    LibraryTest::TearDown();
  }
  // The command line `args`, words separated by single spaces; "@" stands for the test's folder.
  int Run(std::string args, std::ostream* out = nullptr) {
    for (std::size_t at; (at = args.find('@')) != std::string::npos;)
      args.replace(at, 1, dir_.string() + "/");
    std::vector<std::string> words;
    for (std::istringstream in(args); in.good();) in >> words.emplace_back();
    if (args.empty()) words.clear();
    out_.str("");
    err_.str("");
    kestrel_test::ResetLibraryState();
    return RunCli(words, out != nullptr ? *out : out_, err_);
  }
  std::string Path(const std::string& name) const { return (dir_ / name).string(); }

  const fs::path dir_ =
      fs::temp_directory_path() / ("kestrel_cli_test_" + std::to_string(::getpid()));
  std::ostringstream out_, err_;
};

struct BadArgs {
  const char* name;
  const char* args;
  const char* message;  // the start of the reason given
};

class BadCommandLine : public CliTest, public ::testing::WithParamInterface<BadArgs> {};

// Anything wrong on the command line, the library's limits on geometry and timing included, is
// exit status 2 before the first frame, with the option to change and its range.
TEST_P(BadCommandLine, ExitsTwoBeforeTheFirstFrame) {
  EXPECT_EQ(Run(GetParam().args), 2);
  EXPECT_EQ(out_.str(), "");
  EXPECT_EQ(err_.str().rfind("kestrel-flicker: " + std::string(GetParam().message), 0), 0u)
      << err_.str();
  EXPECT_TRUE(err_.str().ends_with("\nTry 'kestrel-flicker --help'.\n")) << err_.str();
}

INSTANTIATE_TEST_SUITE_P(
    Cli, BadCommandLine,
    ::testing::Values(
        BadArgs{"NotANumber", "--frames x", "--frames: 'x' is not a whole number (2..1000000)"},
        BadArgs{"Overflow", "--frames 99999999999",
                "--frames: 99999999999 is out of range 2..1000000\n"},
        BadArgs{"Mains", "--mains 55",
                "--mains: '55' is not a mains frequency: use 50, 60 or 0 (steady light)\n"},
        BadArgs{"NegativeMains", "--mains -60", "--mains: '-60' is not a mains frequency: use"},
        BadArgs{"PixelClock", "--pclk 1", "--pclk: 1 is out of range 100000..1e+10\n"},
        BadArgs{"FrameTooLongForInit", "--fps 1",
                "the library refused INIT: [flicker_init] column_length 80000 outside 0..65536: "
                "change --frame-length or --fps\n"},
        BadArgs{"FrameTooShortForStatistics", "--fps 40",
                "the statistics cover 2400 sensor lines (2400 rows of 1) but a frame has only "
                "column_length 2000: use --win-ht 666 or less, or a lower --fps\n"},
        BadArgs{"WindowHeight", "--win-ht 1",
                "the library refused DETECT: [detectFlicker_SW] win_ht 1 outside 53..2000, result "
                "2: change --win-ht\n"},
        BadArgs{"TwoByFiveBands", "--type 2 --windows 11x8 --win-ht 605",
                "the library refused DETECT: [detectFlicker_SW_2x5] 11 windows, limit 1..10, "
                "result 2: change --windows (bands)\n"},
        BadArgs{"ExposureLongerThanFrame", "--exposure 40",
                "an exposure of 40.000 ms does not fit a frame of 37.500 ms"},
        BadArgs{"Windows", "--windows 3", "--windows: expected HxW (bands x columns), got '3'\n"},
        BadArgs{"MissingValue", "--exposure", "--exposure: 1 required MS missing\n"},
        BadArgs{"UnknownOption", "--colour", "The following argument was not expected: --colour"},
        BadArgs{"UnknownCommand", "frobnicate",
                "unknown command 'frobnicate' (simulate, replay, evaluate, tune)"},
        BadArgs{"ReplayWithoutFile", "replay", "FILE is required\n"},
        BadArgs{"ZhdrOnSony", "--type 1 --zhdr", "--zhdr applies to sensor type 0 only\n"},
        BadArgs{"RatioWithoutZhdr", "--hdr-ratio 2", "--hdr-ratio requires --zhdr\n"},
        BadArgs{"SameFileTwice", "--csv a --record a", "--record and --csv name the same file\n"},
        BadArgs{"TwoOnStandardOutput", "--csv - --json",
                "only one of --csv -, --record - and --json can use standard output\n"},
        BadArgs{"FpsAndFrameLength", "--fps 30 --frame-length 3000",
                "--fps and --frame-length both set the frame length: give one\n"}),
    [](const auto& info) { return std::string(info.param.name); });

// The README's first command: the header, each row as it is judged, the summary.
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
  EXPECT_EQ(out_.str(), "kestrel-flicker 1.1.0 (recording format 2)\n");
  EXPECT_EQ(Run("--help"), 0);
  EXPECT_NE(out_.str().find("simulate"), std::string::npos);
  // Whole periods: 30 fps is 2667 lines, 4.0005 periods: over 20 frames the bands move a
  // hundredth of a period. 29.97 fps is 2669 lines, 4.0035 periods: 0.07 over the run.
  ASSERT_EQ(Run("--fps 30"), 0);
  EXPECT_NE(out_.str().find("timing: 33.337 ms frames (30.00 fps) = 4.0005 periods of 120 Hz "
                            "light (0.0005 from a whole number: over 20 frames the bands move "
                            "0.0095 of a period, all but still)\n"),
            std::string::npos)
      << out_.str();
  ASSERT_EQ(Run("--fps 29.97"), 0);
  EXPECT_NE(out_.str().find("= 4.0035 periods of 120 Hz light (nearly whole: the bands drift "
                            "0.0035 of a period a frame, a weak difference between frames)\n"),
            std::string::npos)
      << out_.str();
  ASSERT_EQ(Run("--frames 2"), 0);
  EXPECT_NE(out_.str().find("; 1 frame judged, 0 not counted"), std::string::npos);
}

// A replay's table, CSV and JSON are those of the simulation that recorded it, in every family,
// plain and gzip.
TEST_F(CliTest, SimulateRecordReplayCsvJson) {
  for (const std::string type : {"0", "1", "2"}) {
    const std::string rec = type == "1" ? "@s.kfr.gz" : "@s.kfr";
    ASSERT_EQ(Run("--frames 8 --motion 1.5 --record " + rec + " --csv @s.csv --type " + type), 0);
    const std::string table = out_.str();
    ASSERT_EQ(Run("replay " + rec + " --csv @r.csv"), 0) << err_.str();
    EXPECT_EQ(Slurp(Path("r.csv")), Slurp(Path("s.csv"))) << "type " << type;
    EXPECT_EQ(out_.str().substr(out_.str().find("\nframe")), table.substr(table.find("\nframe")));
  }
  EXPECT_EQ(Slurp(Path("s.kfr.gz")).substr(0, 2), "\x1f\x8b");
  EXPECT_TRUE(Slurp(Path("s.csv"))
                  .starts_with("frame,exposure_ms,state_hz,e70,e80,e90,e100,e120,e130,e140,e160,"
                               "e170,relative,score,seq,"
                               "result,result_hz,switched,next_exposure_ms,note\n1,10.000000,50,"));
  ASSERT_EQ(Run("replay @s.kfr --json"), 0);
  EXPECT_TRUE(out_.str().starts_with(
      "{\n  \"tool\": \"kestrel-flicker\",\n  \"format\": 2,\n  \"command\": \"replay\","));
  EXPECT_NE(out_.str().find("\"energies\": {\n        \"70\": "), std::string::npos);
}

// The shipped example, read from a file and from standard input, switches where its comment says.
TEST_F(CliTest, ExampleRecordingReplays) {
  const std::string example = std::string(KESTREL_EXAMPLES) + "/2x5-60hz-light.kfr";
  ASSERT_EQ(Run("replay " + example), 0) << err_.str();
  const std::string from_file = out_.str();
  EXPECT_TRUE(from_file.starts_with("kestrel-flicker replay " + example +
                                    ": 2x5 sensor (type 2), 6 frames, 60 Hz mains light, "
                                    "starting in the 50 Hz state\n"))
      << from_file;
  EXPECT_TRUE(
      from_file.ends_with("\nsummary: switched from 50 Hz to 60 Hz at frame 3 (exposure "
                          "10.000 -> 8.333 ms); final state 60 Hz; 5 frames judged, 0 "
                          "not counted\n"));
  const int saved = ::dup(STDIN_FILENO);
  const int file = ::open(example.c_str(), O_RDONLY);
  ::dup2(file, STDIN_FILENO);
  ::close(file);
  EXPECT_EQ(Run("replay -"), 0) << err_.str();
  ::dup2(saved, STDIN_FILENO);
  ::close(saved);
  EXPECT_EQ(out_.str().substr(out_.str().find('\n')), from_file.substr(from_file.find('\n')));
}

struct Target {
  const char* name;
  const char* kind;     // what the output path is
  int status;           // exit status
  const char* message;  // error after "kestrel-flicker: cannot write PATH: "
};

class OutputFile : public CliTest, public ::testing::WithParamInterface<Target> {};

// Temporary file and rename for a regular file or a new path only; devices and FIFOs are written
// directly, symbolic links followed, read-only files refused; every write is checked.
TEST_P(OutputFile, GoesWhereThePathLeads) {
  const Target t = GetParam();
  const std::string kind = t.kind;
  std::string path = Path("out.csv");
  int fifo = -1;
  std::string from_fifo;
  if (kind == "device") path = "/dev/null";
  if (kind == "full") path = "/dev/full";
  if (kind == "dash") path = "-";
  if (kind == "regular" || kind == "readonly" || kind == "link") {
    std::ofstream(Path("out.csv")) << "old\n";
  }
  if (kind == "readonly") fs::permissions(path, fs::perms::owner_read);
  if (kind == "link" || kind == "dangling") {
    fs::create_symlink("out.csv", Path("link.csv"));
    path = Path("link.csv");
  }
  if (kind == "fifo") {
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    // The read end is open before the tool opens the write end, so its open does not wait, and a
    // few frames of CSV fit in the pipe's buffer: the test reads them afterwards, with no thread
    // (which qemu-user's arm64 runs do not survive here).
    fifo = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(fifo, 0);
  }
  if (kind == "newdir") path = Path("no/such.csv");
  EXPECT_EQ(Run("--frames 3 --csv " + path), t.status) << err_.str();
  if (fifo >= 0) {
    char buffer[4096];
    for (ssize_t n; (n = ::read(fifo, buffer, sizeof buffer)) > 0;) {
      from_fifo.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(fifo);
  }
  const std::string header = "frame,exposure_ms,state_hz,";
  if (t.status == 0) {
    // With the CSV on standard output, the summary goes to standard error.
    EXPECT_EQ(err_.str().rfind(kind == "dash" ? "summary: " : "", 0), 0u) << err_.str();
    const std::string written = kind == "dash"     ? out_.str()
                                : kind == "fifo"   ? from_fifo
                                : kind == "device" ? header
                                                   : Slurp(Path("out.csv"));
    EXPECT_TRUE(written.starts_with(header)) << written;
    EXPECT_EQ(written.find("summary"), std::string::npos);
  } else {
    EXPECT_EQ(err_.str(), "kestrel-flicker: cannot write " + path + ": " + t.message + "\n");
  }
  if (kind == "link" || kind == "dangling") {
    EXPECT_TRUE(fs::is_symlink(path));
  }
  if (kind == "fifo") {
    EXPECT_TRUE(fs::is_fifo(path));
  }
  if (kind == "device" || kind == "full") {
    EXPECT_TRUE(fs::is_character_file(path));
  }
  if (kind == "readonly") {
    EXPECT_EQ(Slurp(path), "old\n");
  }
  if (kind == "dash") {
    EXPECT_FALSE(fs::exists("-"));
  }
  // No temporary file is left behind.
  for (const auto& entry : fs::directory_iterator(dir_))
    EXPECT_FALSE(entry.path().filename().string().starts_with(".")) << entry.path();
}

INSTANTIATE_TEST_SUITE_P(
    Cli, OutputFile,
    ::testing::Values(Target{"NewFile", "new", 0, ""}, Target{"Replaced", "regular", 0, ""},
                      Target{"Symlink", "link", 0, ""},
                      Target{"DanglingSymlink", "dangling", 0, ""}, Target{"Fifo", "fifo", 0, ""},
                      Target{"Device", "device", 0, ""}, Target{"StandardOutput", "dash", 0, ""},
                      Target{"FullDisk", "full", 1, "No space left on device"},
                      Target{"ReadOnly", "readonly", 1, "Permission denied"},
                      Target{"MissingFolder", "newdir", 1, "No such file or directory"}),
    [](const auto& info) { return std::string(info.param.name); });

// Failures while running are exit status 1 with the path and the reason; nothing is half-written.
TEST_F(CliTest, FailuresWhileRunning) {
  std::ofstream full("/dev/full");
  EXPECT_EQ(Run("--frames 3", &full), 1);
  EXPECT_EQ(err_.str(), "kestrel-flicker: cannot write standard output: No space left on device\n");
  EXPECT_EQ(Run("--frames 3 --record @out.kfr --csv " + dir_.string()), 1);
  EXPECT_EQ(err_.str(), "kestrel-flicker: cannot write " + dir_.string() + ": Is a directory\n");
  EXPECT_TRUE(fs::is_empty(dir_));
  EXPECT_EQ(Run("replay @missing.kfr"), 1);
  EXPECT_EQ(err_.str(), "kestrel-flicker: cannot read " + Path("missing.kfr") +
                            ": No such file or directory\n");
  std::ofstream(Path("cut.kfr")) << "kestrel-flicker-recording 1\ntype 1\nline_len";
  EXPECT_EQ(Run("replay @cut.kfr --csv @out.csv"), 1);
  EXPECT_EQ(err_.str(), "kestrel-flicker: " + Path("cut.kfr") +
                            ":3: truncated: the file ends in the middle of a line\n");
  EXPECT_FALSE(fs::exists(Path("out.csv")));
}

}  // namespace
}  // namespace kestrel_host
