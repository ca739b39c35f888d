// SPDX-License-Identifier: Apache-2.0
// A host built only against the installed header and library: it sends all seven commands the
// way an auto-exposure controller does and checks what comes back.
#include <kestrel/flicker.h>

#include <cstdint>
#include <cstdio>
#include <vector>

namespace {
int g_lines = 0;
void CountLine(int, const char*, const char*) {
  ++g_lines;
}
}  // namespace

int main() {
  SetLogSinkFlk(&CountLine);
  FlkLogPara log = FLK_LOG_FLOW;
  SendCmdFlk(CMD_SET_LOG_LEVEL, &log, nullptr);
  FlkExtPara tuning = FlkDefaultExtPara();
  SendCmdFlk(CMD_SET_EXT_PARA, &tuning, nullptr);
  FlkInitPara init{FLK_SENSOR_STANDARD, 2200, 1500, 64, 24000000.0, 0, 0};
  SendCmdFlk(CMD_INIT, &init, nullptr);
  EvTable state = EV_TABLE_50HZ;
  SendCmdFlk(CMD_SET_STATE, &state, nullptr);
  SendCmdFlk(CMD_RESET_QUEUE, nullptr, nullptr);

  std::vector<std::int64_t> prev(4 * 250 * 4, 50000);
  std::vector<std::int64_t> cur(4 * 250 * 4, 50000);
  FlkDetectPara detect{};
  detect.type = FLK_SENSOR_STANDARD;
  detect.prev_stats = prev.data();
  detect.cur_stats = cur.data();
  detect.n_win_h = 4;
  detect.n_win_w = 4;
  detect.win_wd = 64;
  detect.win_ht = 250;
  detect.cur_freq = 50;
  std::int32_t result = -1;
  SendCmdFlk(CMD_DETECT, &detect, &result);
  SendCmdFlk(CMD_UNINIT, nullptr, nullptr);
  SetLogSinkFlk(nullptr);

  if (result != FLK_RESULT_50HZ) {
    std::fprintf(stderr, "unexpected result %d\n", result);
    return 1;
  }
  if (g_lines < 7) {
    std::fprintf(stderr, "only %d log lines\n", g_lines);
    return 1;
  }
  std::printf("host: result %d after %d log lines\n", result, g_lines);
  return 0;
}
