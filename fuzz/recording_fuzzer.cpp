// SPDX-License-Identifier: Apache-2.0
// Recording reader fuzzer: any bytes are either read into a recording whose every frame holds
// the grid its geometry announces, or rejected with a HostError; never a crash, never an
// allocation beyond the reader's own limits (libFuzzer's -rss_limit_mb and -malloc_limit_mb).
// A recording that reads also survives a write and a second read unchanged.
#include <cstdint>
#include <string>

#include "host/error.h"
#include "host/recording.h"

namespace {

// The reader's one entry point as this target uses it: bytes in, a recording or a HostError out.
bool ReadRecording(const std::string& bytes, kestrel_host::Recording& recording) {
  try {
    recording = kestrel_host::ParseRecording(bytes, "fuzz");
    return true;
  } catch (const kestrel_host::HostError&) {
    return false;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  kestrel_host::Recording first;
  if (!ReadRecording(std::string(reinterpret_cast<const char*>(data), size), first)) return 0;
  for (const kestrel_host::Frame& frame : first.frames) {
    if (static_cast<std::int64_t>(frame.grid.size()) != first.sensor.GridSize()) __builtin_trap();
  }
  kestrel_host::Recording second;
  if (!ReadRecording(kestrel_host::FormatRecording(first), second)) __builtin_trap();
  if (second.frames.size() != first.frames.size()) __builtin_trap();
  for (std::size_t i = 0; i < first.frames.size(); ++i) {
    if (second.frames[i].grid != first.frames[i].grid) __builtin_trap();
  }
  return 0;
}
