// SPDX-License-Identifier: Apache-2.0
// The auto-exposure host: drives the library through SendCmdFlk only, frame by frame, and applies
// its decisions the way a camera's auto-exposure does.
#ifndef KESTREL_TOOLS_HOST_H
#define KESTREL_TOOLS_HOST_H

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <kestrel/flicker.h>

#include "host/recording.h"
#include "host/scene.h"

namespace kestrel_host {

// What the library said about one frame (the current frame of a DETECT) and what the host did.
struct FrameResult {
  std::int32_t frame = 0;                  // index of the current frame
  double exposure_s = 0.0;                 // its exposure time
  std::int32_t state_hz = 50;              // the flicker setting under test when it was judged
  bool has_energies = false;               // the detector reported its nine energies
  std::array<std::int32_t, 9> energies{};  // 70, 80, 90, 100, 120, 130, 140, 160, 170 Hz
  bool has_relative = false;
  std::int32_t relative_q8 = 0;  // scored feature over the mean of the others, minus 1 (Q8)
  bool has_score = false;
  std::int32_t score = 0;  // frame score, rounded to whole units (positive: other mains)
  bool has_seq = false;
  std::int32_t seq = 0;          // sequential score; a switch is decided above the threshold 8
  std::int32_t result = -1;      // DETECT output: 2 = 50 Hz, 3 = 60 Hz (-1: nothing written)
  bool counted = true;           // the sequential test queued a score for the frame
  std::string note;              // why the frame did not count, or that the test is warming up
  bool switched = false;         // the host confirmed a switch after this frame
  double next_exposure_s = 0.0;  // exposure the host applies from the next frame on
  std::string action;            // what the host sent
};

struct RunResult {
  SensorSetup sensor;
  std::int32_t initial_state_hz = 50;
  std::int32_t final_state_hz = 50;
  std::int32_t frames = 0;               // frames seen (the first has no DETECT)
  std::vector<FrameResult> results;      // one per DETECT
  std::int32_t first_switch_frame = -1;  // frame after which the first switch was confirmed
  std::int32_t switches = 0;
  std::int32_t skipped = 0;  // frames the test did not count
  // The sequential sum must exceed this to switch, in the 50 Hz and the 60 Hz state (the
  // tuning's ev50_thresholds[1] and ev60_thresholds[1]).
  std::array<std::int32_t, 2> switch_threshold{8, 8};
};

// How a run talks to the library and to whoever watches it.
struct HostOptions {
  bool verbose = false;  // the library's log and standard-output lines go to standard error
  // Sent with SET_EXT_PARA before INIT; the zHDR switches are the sensor's and override these.
  FlkExtPara tuning = FlkDefaultExtPara();
  // Called as each frame is judged (live output), and with each frame as it is rendered or read.
  std::function<void(const FrameResult&)> on_frame;
  std::function<void(const Frame&)> on_capture;
};

// The exposure a host applies for a mains frequency: the nearest whole number of flicker periods
// that fits in a frame of `frame_s` (at least one), which cancels the banding of that mains.
double ExposureForMains(double exposure_s, std::int32_t mains_hz, double frame_s);

// Throws HostError unless a simulation of `frames` frames at `exposure_s` makes sense on
// `sensor` and fits in memory (the scene, and the frames kept when `recording`).
void CheckRun(const SensorSetup& sensor, const SceneSetup& scene, std::int32_t frames,
              double exposure_s, bool recording);

// The library's refusal among the log lines of one command ("<function> <limit>"), or "".
std::string Refusal(const std::vector<std::string>& lines);

// What the library said about a frame it did not score.
struct DetectFlags {
  bool unstable = false;      // the brightness changed between the frames
  bool unregistered = false;  // the frames could not be aligned
  bool flat = false;          // a frame had no detail to align by
};

// The figures of one DETECT from the lines the library logged with flow logging on (energies,
// the test's relative feature, score and sum, whether the frame counted) for a frame judged in
// the `state_hz` state under `tuning`; `result` is what DETECT wrote (-1: nothing).
DetectFlags ReadDetectFigures(const std::vector<std::string>& lines, std::int32_t result,
                              std::int32_t state_hz, const FlkExtPara& tuning, FrameResult& r);

// Why a frame did not count, for its note: the flags, else `condition` (what is wrong with the
// frames themselves, if anything), else what INIT warned about (`init_caveat`).
std::string NotCountedWhy(const DetectFlags& flags, const std::string& condition,
                          const std::string& init_caveat);

// The INIT record of `sensor`'s timing and statistics geometry.
FlkInitPara InitParaOf(const SensorSetup& sensor);

// INIT and one DETECT of a flat pair of frames with `tuning`, in a session of its own: throws
// HostError with the library's refusal ("the library refused INIT: [func] <limit>") for a geometry
// or timing it cannot take, so a run can be refused before its first frame.
void ProbeLibrary(const SensorSetup& sensor, const FlkExtPara& tuning);

// One library session: INIT on construction, UNINIT on destruction. While alive it owns the
// library's log sink (to read the detector's per-frame figures) and keeps the library's own
// standard-output lines away from the tool's output. One session at a time.
class LibrarySession {
 public:
  // `verbose`: the library's log and standard output go to standard error.
  LibrarySession(const SensorSetup& sensor, std::int32_t initial_state_hz, double exposure_s,
                 bool verbose, const FlkExtPara& tuning = FlkDefaultExtPara());
  ~LibrarySession();
  LibrarySession(const LibrarySession&) = delete;
  LibrarySession& operator=(const LibrarySession&) = delete;

  // DETECT on a pair of frames, then the host policy: on a switch, SET_STATE and RESET_QUEUE,
  // and the exposure moves to a multiple of the new flicker period. Throws HostError when the
  // library refuses the frame.
  FrameResult Detect(std::int32_t frame, const Frame& prev, const Frame& cur);

  std::int32_t state_hz() const { return state_hz_; }
  double exposure_s() const { return exposure_s_; }

 private:
  void Send(std::uint32_t cmd, void* in, void* out, const char* what);
  static void Sink(int priority, const char* tag, const char* text);

  SensorSetup sensor_;
  FlkExtPara tuning_;
  std::int32_t state_hz_;
  double exposure_s_;
  bool verbose_;
  std::vector<std::string> lines_;
  std::string init_caveat_;
  std::vector<std::int64_t> prev64_, cur64_;
  std::vector<std::int32_t> prev32_, cur32_;
};

// Closed loop: the simulator renders each frame with the exposure the host chose after the
// previous one.
RunResult Simulate(const SensorSetup& sensor, const SceneSetup& scene, std::int32_t frames,
                   double exposure_s, std::int32_t initial_state_hz, const HostOptions& options);
// The same; `recording`, when given, receives the frames as rendered.
RunResult Simulate(const SensorSetup& sensor, const SceneSetup& scene, std::int32_t frames,
                   double exposure_s, std::int32_t initial_state_hz, bool verbose,
                   Recording* recording);

// Open loop: the recorded frames through the same host (the exposure it chooses is reported;
// the recorded frames stay as they were captured). Frames are read one at a time.
RunResult Replay(RecordingReader& reader, std::int32_t initial_state_hz,
                 const HostOptions& options);
RunResult Replay(const Recording& recording, std::int32_t initial_state_hz, bool verbose);

}  // namespace kestrel_host

#endif  // KESTREL_TOOLS_HOST_H
