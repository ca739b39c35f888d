// SPDX-License-Identifier: Apache-2.0
// Logging and debug controls: the three log flags, PrintLogFlk and its sinks, system properties
// and the small exported host utilities.
#include "interface/interface.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#ifdef __ANDROID__
#include <android/log.h>
#include <sys/system_properties.h>
#endif

std::int32_t g_logFlow = 0;
std::int32_t g_logLineData = 0;
std::int32_t g_logState = 0;
std::int32_t FLKPAUSE = 0;

namespace {

constexpr int kLogPriorityDebug = 3;  // ANDROID_LOG_DEBUG
constexpr const char* kLogTag = "[FLICKER Alg] ";

void (*g_logSink)(int priority, const char* tag, const char* text) = nullptr;

}  // namespace

extern "C" int PrintLogFlk(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
#ifdef __ANDROID__
  const int result = __android_log_vprint(kLogPriorityDebug, kLogTag, fmt, args);
#else
  // Formatted on the stack: the per-frame lines must not allocate. Only a message longer than
  // the buffer (never one of the library's own) goes to the heap.
  char buffer[1024];
  va_list again;
  va_copy(again, args);
  const int needed = std::vsnprintf(buffer, sizeof buffer, fmt, args);
  std::string long_text;
  const char* text = buffer;
  if (needed < 0) {
    buffer[0] = '\0';
  } else if (needed >= static_cast<int>(sizeof buffer)) {
    long_text.resize(static_cast<std::size_t>(needed) + 1);
    std::vsnprintf(long_text.data(), long_text.size(), fmt, again);
    text = long_text.c_str();
  }
  va_end(again);
  int result = needed;
  if (g_logSink != nullptr) {
    g_logSink(kLogPriorityDebug, kLogTag, text);
  } else {
    const std::size_t length = std::strlen(text);
    const bool has_newline = length > 0 && text[length - 1] == '\n';
    result = std::fprintf(stderr, "D %s%s%s", kLogTag, text, has_newline ? "" : "\n");
  }
#endif
  va_end(args);
  return result;
}

extern "C" void SetLogSinkFlk(void (*sink)(int priority, const char* tag, const char* text)) {
  g_logSink = sink;
}

extern "C" int GetPropIntFlk(const char* name, int def) {
  char value[100] = {};
#ifdef __ANDROID__
  __system_property_get(name, value);
#else
  // Off Android a property "a.b.c" is read from the environment variable "a_b_c".
  std::string variable(name);
  for (char& c : variable) {
    if (c == '.') c = '_';
  }
  if (const char* env = std::getenv(variable.c_str())) {
    std::strncpy(value, env, sizeof value - 1);
  }
#endif
  if (value[0] == '\0') return def;
  return std::atoi(value);
}

std::int32_t set_log(std::int32_t on) {
  g_logState = on;
  return PrintLogFlk("[%s] state(%d)", "set_log", on);
}

std::int32_t set_log_level(FlkLogPara* para) {
  g_logFlow = static_cast<std::int32_t>(*para & FLK_LOG_FLOW);
  g_logLineData = (*para & FLK_LOG_LINE_DATA) != 0 ? 1 : 0;
  PrintLogFlk("[%s] log_flow(%d) log_line_data(%d)", "set_log_level", g_logFlow, g_logLineData);
  return set_log(g_logFlow);
}

void setFlkPause(std::int32_t pause) {
  FLKPAUSE = pause;
}

std::int32_t getFlkPause() {
  return FLKPAUSE;
}

void setLMVcnt(std::uint32_t) {}

namespace {

// The loop body runs before the test, so 0 and 1 both give 0.
template <typename T>
std::int32_t FindLog2(T x) {
  std::int32_t position = -1;
  do {
    x >>= 1;
    ++position;
  } while (x != 0);
  return position;
}

}  // namespace

std::int32_t findlog2(std::int32_t x) {
  return FindLog2(x);
}

std::int32_t findlog2(std::int64_t x) {
  return FindLog2(x);
}

void PrintLineDataFlk(const std::int32_t* prev, const std::int32_t* cur, std::int32_t n,
                      bool closingRow) {
  if (g_logLineData != 1) return;
  std::int32_t a[10] = {};
  std::int32_t b[10] = {};
  auto print_row = [&](std::int32_t label) {
    PrintLogFlk(
        "Line[%5d]: %5d, %5d, %5d, %5d, %5d, %5d, %5d, %5d, %5d, %5d, %5d, %5d, %5d, %5d, %5d, "
        "%5d, %5d, %5d, %5d, %5d,\n",
        label, a[0], b[0], a[1], b[1], a[2], b[2], a[3], b[3], a[4], b[4], a[5], b[5], a[6], b[6],
        a[7], b[7], a[8], b[8], a[9], b[9]);
  };
  std::int32_t held = 0;
  for (std::int32_t i = 0; i < n; ++i) {
    a[i % 10] = prev[i];
    b[i % 10] = cur[i];
    if (++held == 10) {
      print_row(i - 9);
      held = 0;
    }
  }
  if (!closingRow) return;
  for (std::int32_t j = held; j < 10; ++j) {
    a[j] = -1;
    b[j] = -1;
  }
  print_row(n < 1 ? 0 : (n / 10) * 10);
}

void LogRefusalFlk(const char* func, const char* fmt, ...) {
  char text[256];
  va_list args;
  va_start(args, fmt);
  std::vsnprintf(text, sizeof text, fmt, args);
  va_end(args);
  PrintLogFlk("[%s] refused: %s", func, text);
}
