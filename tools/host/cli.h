// SPDX-License-Identifier: Apache-2.0
// The kestrel-flicker command line: argument parsing and the simulate / replay commands.
#ifndef KESTREL_TOOLS_CLI_H
#define KESTREL_TOOLS_CLI_H

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "host/error.h"
#include "host/scene.h"

namespace kestrel_host {

// A command line the tool cannot take (exit status 2).
class UsageError : public HostError {
 public:
  using HostError::HostError;
};

struct CliOptions {
  enum class Command { kSimulate, kReplay, kHelp, kVersion };
  Command command = Command::kSimulate;
  std::string replay_file;
  // Sensor: the family's defaults, then every option given.
  std::int32_t type = 0;
  bool zhdr = false;
  std::optional<std::int32_t> line_length, column_length, window_width, block_height, green_only;
  std::optional<std::int32_t> n_win_h, n_win_w, win_ht;
  std::optional<double> pclk, fps;
  SceneSetup scene;
  std::int32_t frames = 20;
  std::optional<double> exposure_ms;
  std::optional<std::int32_t> state_hz;
  std::string record_file, csv_file;
  bool json = false;
  bool wide = false;
  bool verbose = false;

  // The sensor these options describe (family defaults overridden by the options).
  SensorSetup Sensor() const;
};

// Throws UsageError with a message naming the option.
CliOptions ParseArgs(const std::vector<std::string>& args);

std::string UsageText();

// The whole tool: 0 on success, 1 when the run fails (unreadable recording, a refusal of the
// library, a file that cannot be written), 2 for a bad command line. Nothing is written to a
// file unless the run succeeded.
int RunCli(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

}  // namespace kestrel_host

#endif  // KESTREL_TOOLS_CLI_H
