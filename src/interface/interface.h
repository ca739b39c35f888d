// SPDX-License-Identifier: Apache-2.0
// Command interface and diagnostics: SendCmdFlk's handlers, the log flags, PrintLogFlk and the
// small host utilities.
#ifndef KESTREL_INTERFACE_H
#define KESTREL_INTERFACE_H

#include <cstdint>

#include "kestrel/flicker.h"

// Log flags, zero at load. g_logFlow: handler brackets, parameter dumps, per-frame and per-step
// lines. g_logLineData: the line-vector dump. g_logState: sequential-test and state lines.
extern std::int32_t g_logFlow;
extern std::int32_t g_logLineData;
extern std::int32_t g_logState;
extern std::int32_t FLKPAUSE;

// The sensor type whose INIT built the current tables; -1 while there are none. A DETECT of
// another type would read tables built for other statistics and is refused.
extern std::int32_t g_flkTabType;

// Command handlers, one per FlkCmd code; each brackets its work with "[%s] +" / "[%s] -" under
// the flow flag.
void DoCmdInit(void* in, void* out);
void DoCmdUninit(void* in, void* out);
void DoCmdDetect(void* in, void* out);
void DoCmdSetExtPara(void* in, void* out);
void DoCmdSetState(void* in, void* out);
void DoCmdResetQueue(void* in, void* out);
void DoCmdSetLogLevel(void* in, void* out);

std::int32_t set_log_level(FlkLogPara* para);
std::int32_t set_log(std::int32_t on);

// Position of the highest set bit (floor(log2 x)); 0 for 0 and 1. Non-negative x only.
std::int32_t findlog2(std::int32_t x);
std::int32_t findlog2(std::int64_t x);

// The line-data dump of the detectors: previous/current pairs, ten a line, labelled by the index
// of the line's first pair. With `closingRow` a last row, padded with -1, is always printed; the
// 2x5 driver prints only full rows. Prints nothing unless g_logLineData is 1.
void PrintLineDataFlk(const std::int32_t* prev, const std::int32_t* cur, std::int32_t n,
                      bool closingRow);

// One log line for a refused command or frame: "[func] refused: <text>". The library's
// robustness rule: geometry that would take a stage outside an array is refused, never run.
void LogRefusalFlk(const char* func, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

#endif  // KESTREL_INTERFACE_H
