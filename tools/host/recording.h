// SPDX-License-Identifier: Apache-2.0
// Recording file: sensor geometry and the statistics of consecutive frames, as text, plain or
// gzip-compressed (described in docs/recording-format.md). Read and written a frame at a time.
#ifndef KESTREL_TOOLS_RECORDING_H
#define KESTREL_TOOLS_RECORDING_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/scene.h"

namespace kestrel_host {

class OutputSink;

constexpr const char* kRecordingMagic = "kestrel-flicker-recording";
// Version 2 adds the optional `light` label; version 1 files are still read.
constexpr std::int32_t kRecordingVersion = 2;

struct Recording {
  SensorSetup sensor;
  std::int32_t initial_state_hz = 50;  // the flicker setting the camera started with
  // The mains frequency lighting the scene, when known: 50, 60, or 0 for steady light.
  std::optional<std::int32_t> light_hz;
  std::vector<Frame> frames;          // in capture order; each is compared with the one before
  std::vector<std::string> comments;  // free text, kept for the reader
};

// Reads a recording one frame at a time, so a long one never sits in memory. Throws HostError
// ("<name>:<line>: ...") for anything it cannot take: another format, a newer version, a missing
// field, a value out of range, or fewer frames or values than announced (a truncated file).
class RecordingReader {
 public:
  // `path` "-" is standard input; gzip is recognised by its first bytes, whatever the name.
  explicit RecordingReader(const std::string& path);
  // A recording held in memory; `name` only labels the messages.
  RecordingReader(std::string text, const std::string& name);
  ~RecordingReader();
  RecordingReader(const RecordingReader&) = delete;
  RecordingReader& operator=(const RecordingReader&) = delete;

  // Everything but the frames (comments: those before the first frame).
  const Recording& header() const { return header_; }
  std::int64_t frame_count() const { return frame_count_; }
  // The next frame into `frame`; false once all are read and the closing "end" checked.
  bool Next(Frame& frame);

  class Lines;  // the line reader underneath (public for the field readers)

 private:
  void ReadHeader();
  std::unique_ptr<Lines> lines_;
  Recording header_;
  std::int64_t frame_count_ = 0;
  std::int64_t next_ = 0;
};

// Writes a recording frame by frame; `frames` is announced in the header and must be met.
class RecordingWriter {
 public:
  RecordingWriter(OutputSink& sink, const Recording& header, std::int64_t frames);
  void Add(const Frame& frame);
  // Writes the closing "end" (the sink is the caller's to commit).
  void Finish();

 private:
  OutputSink& sink_;
  std::int64_t frames_;
  std::int64_t written_ = 0;
  std::size_t columns_;
  std::string text_;
};

// The whole recording as text (the current version).
std::string FormatRecording(const Recording& recording);

// Reads a whole recording from text or from a file ("-": standard input).
Recording ParseRecording(const std::string& text, const std::string& name);
Recording LoadRecording(const std::string& path);

// Geometry checks shared by the recording reader and the command line: sizes the host itself can
// hold and that make a frame at all. What the library accepts is its own business: it refuses a
// DETECT it cannot run and says which limit was exceeded.
void CheckSensorSetup(const SensorSetup& sensor);

}  // namespace kestrel_host

#endif  // KESTREL_TOOLS_RECORDING_H
