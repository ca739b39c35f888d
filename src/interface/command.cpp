// SPDX-License-Identifier: Apache-2.0
// Command entry: SendCmdFlk and one handler per command.
#include "interface/interface.h"

#include "decision/decision.h"
#include "sony/sony.h"
#include "standard/standard.h"
#include "twobyfive/twobyfive.h"

std::int32_t g_flkTabType = -1;

namespace {

// "[name] +" before a handler's work and "[name] -" after it, each under the flow flag as it
// stands at that moment (SET_LOG_LEVEL changes it in between).
class Bracket {
 public:
  explicit Bracket(const char* name) : name_(name) {
    if (g_logFlow) PrintLogFlk("[%s] +", name_);
  }
  ~Bracket() {
    if (g_logFlow) PrintLogFlk("[%s] -", name_);
  }
  Bracket(const Bracket&) = delete;
  Bracket& operator=(const Bracket&) = delete;

 private:
  const char* name_;
};

bool TablesBuilt() {
  return g_flkTab1 != nullptr && g_flkTab2 != nullptr && g_flkCompTab != nullptr;
}

}  // namespace

void DoCmdInit(void* in, void*) {
  const Bracket bracket("DoCmdInit");
  if (in == nullptr) {
    LogRefusalFlk("DoCmdInit", "no FlkInitPara record");
    return;
  }
  const FlkInitPara& para = *static_cast<const FlkInitPara*>(in);
  PrintLogFlk(
      "[%s] type(%d) line_length(%d) column_length(%d) window_width(%d) pclk(%f) block_height(%d) "
      "green_only(%d)",
      "DoCmdInit", para.type, para.line_length, para.column_length, para.window_width, para.pclk,
      para.block_height, para.green_only);
  switch (para.type) {
    case FLK_SENSOR_STANDARD:
      flicker_init(para.line_length, para.column_length, para.window_width, para.pclk);
      break;
    case FLK_SENSOR_SONY:
      flicker_init_SONY(para.line_length, para.column_length, para.window_width, para.pclk);
      break;
    case FLK_SENSOR_2X5:
      flicker_init_2x5(para.line_length, para.column_length, para.window_width, para.block_height,
                       para.green_only, para.pclk);
      break;
    default:
      PrintLogFlk("[%s] Unknown sensor type!", "DoCmdInit");
      return;
  }
  // A refused INIT leaves no tables; DETECT of that type is refused until a good INIT.
  g_flkTabType = TablesBuilt() ? para.type : -1;
}

void DoCmdUninit(void*, void*) {
  const Bracket bracket("DoCmdUninit");
  flicker_uninit();
  g_flkTabType = -1;
}

void DoCmdDetect(void* in, void* out) {
  const Bracket bracket("DoCmdDetect");
  std::int32_t* result = static_cast<std::int32_t*>(out);
  if (in == nullptr) {
    LogRefusalFlk("DoCmdDetect", "no FlkDetectPara record, result %d", g_flickerResult);
    if (result != nullptr) *result = g_flickerResult;
    return;
  }
  const FlkDetectPara& para = *static_cast<const FlkDetectPara*>(in);
  PrintLogFlk("[%s] type(%d) n_win_h(%d) n_win_w(%d) win_wd(%d) win_ht(%d) cur_freq(%d)",
              "DoCmdDetect", para.type, para.n_win_h, para.n_win_w, para.win_wd, para.win_ht,
              para.cur_freq);
  if (result == nullptr) {
    LogRefusalFlk("DoCmdDetect", "no output for the result code");
    return;
  }
  if (para.type < FLK_SENSOR_STANDARD || para.type > FLK_SENSOR_2X5) {
    PrintLogFlk("[%s] Unknown sensor type!", "DoCmdDetect");
    *result = FLK_RESULT_50HZ;
    return;
  }
  if (g_flkTabType != para.type || !TablesBuilt()) {
    LogRefusalFlk("DoCmdDetect",
                  "no tables for sensor type %d (CMD_INIT of that type first), result %d",
                  para.type, g_flickerResult);
    *result = g_flickerResult;
    return;
  }
  if (para.prev_stats == nullptr || para.cur_stats == nullptr) {
    LogRefusalFlk("DoCmdDetect", "missing statistics grid, result %d", g_flickerResult);
    *result = g_flickerResult;
    return;
  }
  // The detectors ignore their seventh parameter, the sensor and AE records and the trailing
  // pointer; only the EIS record is carried over from the command.
  const FlkSensorInfo sensor_info{};
  const FlkAEInfo ae_info{};
  switch (para.type) {
    case FLK_SENSOR_STANDARD:
      *result = detectFlicker_SW(static_cast<std::int64_t*>(para.prev_stats),
                                 static_cast<std::int64_t*>(para.cur_stats), para.n_win_h,
                                 para.n_win_w, para.win_wd, para.win_ht, 0, sensor_info,
                                 para.eis_vector, ae_info, para.out_ptr);
      break;
    case FLK_SENSOR_SONY:
      *result = detectFlicker_SW_SONY(static_cast<std::int32_t*>(para.prev_stats),
                                      static_cast<std::int32_t*>(para.cur_stats), para.n_win_h,
                                      para.n_win_w, para.win_wd, para.win_ht, 0, sensor_info,
                                      para.eis_vector, ae_info, para.out_ptr);
      break;
    default:
      *result = detectFlicker_SW_2x5(static_cast<std::int32_t*>(para.prev_stats),
                                     static_cast<std::int32_t*>(para.cur_stats), para.n_win_h,
                                     para.n_win_w, para.win_wd, para.win_ht, 0, sensor_info,
                                     para.eis_vector, ae_info, para.out_ptr);
      break;
  }
}

void DoCmdSetExtPara(void* in, void*) {
  const Bracket bracket("DoCmdSetExtPara");
  if (in == nullptr) {
    LogRefusalFlk("DoCmdSetExtPara", "no FlkExtPara record");
    return;
  }
  flicker_setExtPara(static_cast<FlkExtPara*>(in));
}

void DoCmdSetState(void* in, void*) {
  const Bracket bracket("DoCmdSetState");
  if (in == nullptr) {
    LogRefusalFlk("DoCmdSetState", "no EvTable value");
    return;
  }
  const EvTable state = *static_cast<const EvTable*>(in);
  PrintLogFlk("[%s] set state(%d)", "DoCmdSetState", static_cast<int>(state));
  set_flicker_state(state);
}

void DoCmdResetQueue(void*, void*) {
  const Bracket bracket("DoCmdResetQueue");
  reset_flicker_queue();
}

void DoCmdSetLogLevel(void* in, void*) {
  const Bracket bracket("DoCmdSetLogLevel");
  if (in == nullptr) {
    LogRefusalFlk("DoCmdSetLogLevel", "no FlkLogPara word");
    return;
  }
  set_log_level(static_cast<FlkLogPara*>(in));
}

void SendCmdFlk(FlkCmd cmd, void* in, void* out) {
  struct Entry {
    const char* name;
    void (*handler)(void*, void*);
  };
  static constexpr Entry kCommands[] = {
      {"[%s] CMD_INIT", DoCmdInit},
      {"[%s] CMD_UNINIT", DoCmdUninit},
      {"[%s] CMD_DETECT", DoCmdDetect},
      {"[%s] CMD_SET_EXT_PARA", DoCmdSetExtPara},
      {"[%s] CMD_SET_STATE", DoCmdSetState},
      {"[%s] CMD_RESET_QUEUE", DoCmdResetQueue},
      {"[%s] CMD_SET_LOG_LEVEL", DoCmdSetLogLevel},
  };
  const std::uint32_t code = cmd;
  if (code >= sizeof kCommands / sizeof kCommands[0]) {
    PrintLogFlk("[%s] Unknown command!", "SendCmdFlk");
    return;
  }
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  PrintLogFlk(kCommands[code].name, "SendCmdFlk");
#pragma GCC diagnostic pop
  kCommands[code].handler(in, out);
}
