// SPDX-License-Identifier: Apache-2.0
// The host tool's error, a message for the user, and the number formats messages share.
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

// One number through a printf format ("%.3f", "%.17g", ...), for messages, reports and files.
std::string Format(const char* fmt, double v);

// Milliseconds with three decimals, from seconds: "8.333".
std::string Ms(double seconds);

}  // namespace kestrel_host

#endif  // KESTREL_TOOLS_ERROR_H
