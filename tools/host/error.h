// SPDX-License-Identifier: Apache-2.0
// The host tool's error: a message for the user, and the files it writes all at once or not at all.
#ifndef KESTREL_TOOLS_ERROR_H
#define KESTREL_TOOLS_ERROR_H

#include <stdexcept>
#include <string>
#include <vector>

namespace kestrel_host {

// Anything the user should read instead of a crash: bad input, unreadable files, refusals.
class HostError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct OutputFile {
  std::string path;
  std::string content;
};

// Writes every file or none: each content goes to a temporary file beside its path, and only when
// all of them are written are they renamed over their paths. A failure removes the temporary
// files and leaves whatever was there before.
void WriteFiles(const std::vector<OutputFile>& files);

// The whole file, or a HostError naming the file and the reason.
std::string ReadWholeFile(const std::string& path);

// One number through a printf format ("%.3f", "%.17g", ...), for messages, reports and files.
std::string Format(const char* fmt, double v);

// Milliseconds with three decimals, from seconds: "8.333".
std::string Ms(double seconds);

}  // namespace kestrel_host

#endif  // KESTREL_TOOLS_ERROR_H
