// SPDX-License-Identifier: Apache-2.0
// Recording file: sensor geometry and the statistics of consecutive frames, as text (format
// version 1, described in docs/recording-format.md).
#ifndef KESTREL_TOOLS_RECORDING_H
#define KESTREL_TOOLS_RECORDING_H

#include <cstdint>
#include <string>
#include <vector>

#include "host/scene.h"

namespace kestrel_host {

constexpr const char* kRecordingMagic = "kestrel-flicker-recording";
constexpr std::int32_t kRecordingVersion = 1;

struct Recording {
  SensorSetup sensor;
  std::int32_t initial_state_hz = 50;  // the flicker setting the camera started with
  std::vector<Frame> frames;           // in capture order; each is compared with the one before
  std::vector<std::string> comments;   // free text, kept for the reader
};

// The recording as text, ready to be written in one go.
std::string FormatRecording(const Recording& recording);

// Parses a recording; `name` only labels the messages ("<name>:<line>: ..."). Throws HostError
// for anything it cannot take: another format, a newer version, a missing field, a value out of
// range, or fewer frames or values than announced (a truncated file).
Recording ParseRecording(const std::string& text, const std::string& name);

Recording LoadRecording(const std::string& path);

// Geometry checks shared by the recording reader and the command line: sizes the host itself can
// hold and that make a frame at all. What the library accepts is its own business: it refuses a
// DETECT it cannot run and says which limit was exceeded.
void CheckSensorSetup(const SensorSetup& sensor);

}  // namespace kestrel_host

#endif  // KESTREL_TOOLS_RECORDING_H
