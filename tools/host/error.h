// SPDX-License-Identifier: Apache-2.0
// The host tool's error: a message for the user, and the files it writes all at once or not at all.
#ifndef KESTREL_TOOLS_ERROR_H
#define KESTREL_TOOLS_ERROR_H

#include <stdexcept>
#include <string>

namespace kestrel_host {

// Anything the user should read instead of a crash: bad input, unreadable files, refusals.
class HostError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Writes `content` to a temporary file beside `path` and renames it over `path`, so a reader
// never sees half a file and a failure leaves whatever was there before.
void WriteFileAtomically(const std::string& path, const std::string& content);

// The whole file, or a HostError naming the file and the reason.
std::string ReadWholeFile(const std::string& path);

}  // namespace kestrel_host

#endif  // KESTREL_TOOLS_ERROR_H
