// SPDX-License-Identifier: Apache-2.0
// Output files of the host tool: written as the run goes, replaced only when it succeeds, and
// never written over something that is not a plain file.
#ifndef KESTREL_TOOLS_OUTPUT_H
#define KESTREL_TOOLS_OUTPUT_H

#include <ostream>
#include <string>
#include <string_view>

namespace kestrel_host {

// Where an output goes is decided when it is opened:
//  - "-": the tool's standard output;
//  - a regular file or a path that does not exist yet (a symbolic link is followed to the file it
//    names): a temporary file beside it, renamed over it by Commit(), so an interrupted or failed
//    run leaves the old file as it was;
//  - anything else that exists (a device, a FIFO, a terminal, /dev/stdout): written directly.
// A directory or a read-only file is an error. Every write, flush and close is checked; a failure
// throws HostError "cannot write PATH: <the system's reason>".
class OutputSink {
 public:
  // `gzip`: the bytes are compressed (the gzip format zlib and gzip(1) read).
  OutputSink(const std::string& path, std::ostream& standard_output, bool gzip = false);
  ~OutputSink();  // an output never committed: its temporary file is removed
  OutputSink(const OutputSink&) = delete;
  OutputSink& operator=(const OutputSink&) = delete;

  void Write(std::string_view bytes);
  // Hands what is buffered to the system, so a reader of a FIFO or terminal sees it at once.
  void Flush();
  // Completes the output: the last bytes, the close and, for a temporary file, the rename.
  void Commit();

  const std::string& path() const { return path_; }
  bool is_standard_output() const { return stream_ != nullptr; }

 private:
  void Drain(int deflate_flush);
  void WriteRaw(const char* data, std::size_t size);
  [[noreturn]] void Fail(int error);

  std::string path_;    // as the user gave it, for messages
  std::string target_;  // the file a temporary file replaces
  std::string temp_;    // empty when written directly
  std::ostream* stream_ = nullptr;
  int fd_ = -1;
  bool gzip_ = false;
  bool committed_ = false;
  std::string pending_;
  struct Deflate;
  Deflate* deflate_ = nullptr;
};

// True when `path` names a gzip file to write ("*.gz").
bool WantsGzip(const std::string& path);

// Checks the stream the tool's report goes to; throws HostError "cannot write standard output".
void CheckStandardOutput(std::ostream& out);

}  // namespace kestrel_host

#endif  // KESTREL_TOOLS_OUTPUT_H
