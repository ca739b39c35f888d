// SPDX-License-Identifier: Apache-2.0
// kestrel-flicker: simulate flicker scenes or replay recorded statistics through the detector.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "host/cli.h"

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  int status = kestrel_host::RunCli(args, std::cout, std::cerr, ::isatty(STDERR_FILENO) != 0);
  // The report is written and flushed by now; closing standard output is the last check of it.
  if (std::fclose(stdout) != 0 && status == 0) {
    std::fprintf(stderr, "kestrel-flicker: cannot write standard output: %s\n",
                 std::strerror(errno));
    status = 1;
  }
  return status;
}
