// SPDX-License-Identifier: Apache-2.0
// The host tool's error, a message for the user, and the number formats messages share.
#include "host/error.h"

#include <cstdio>

namespace kestrel_host {

std::string Format(const char* fmt, double v) {
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, fmt, v);
  return buffer;
}

std::string Ms(double seconds) {
  return Format("%.3f", seconds * 1e3);
}

}  // namespace kestrel_host
