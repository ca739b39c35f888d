// SPDX-License-Identifier: Apache-2.0
// kestrel-flicker: simulate flicker scenes or replay recorded statistics through the detector.
#include <iostream>
#include <string>
#include <vector>

#include "host/cli.h"

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  return kestrel_host::RunCli(args, std::cout, std::cerr);
}
