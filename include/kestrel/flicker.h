// SPDX-License-Identifier: Apache-2.0
// Public interface of libkestrel.flicker.so: the command entry, its records and the host utilities.
//
// A host (the auto-exposure controller) drives the detector through SendCmdFlk only:
//   CMD_SET_LOG_LEVEL / CMD_SET_EXT_PARA  at any time
//   CMD_INIT                              with the sensor timing, before the first CMD_DETECT
//   CMD_SET_STATE                         whenever the host applies a flicker setting
//   CMD_DETECT                            once per frame; writes 2 (50 Hz) or 3 (60 Hz)
//   CMD_RESET_QUEUE                       when the frame history must be forgotten
//   CMD_UNINIT                            at the end
// The library is single-threaded and not reentrant: one command at a time.
#ifndef KESTREL_FLICKER_H
#define KESTREL_FLICKER_H

#include <cstddef>
#include <cstdint>

// Command codes of SendCmdFlk (compared unsigned: every code above 6 is unknown).
enum FlkCmd : std::uint32_t {
  CMD_INIT = 0,           // in: FlkInitPara*
  CMD_UNINIT = 1,         // no records
  CMD_DETECT = 2,         // in: FlkDetectPara*, out: std::int32_t* result code
  CMD_SET_EXT_PARA = 3,   // in: FlkExtPara*
  CMD_SET_STATE = 4,      // in: EvTable* (one 32-bit value)
  CMD_RESET_QUEUE = 5,    // no records
  CMD_SET_LOG_LEVEL = 6,  // in: FlkLogPara*
};

// The flicker setting the host has applied: 0 = 50 Hz mains, 1 = 60 Hz mains.
enum EvTable : std::int32_t {
  EV_TABLE_50HZ = 0,
  EV_TABLE_60HZ = 1,
};

// Result codes written by CMD_DETECT. 0 is written only while no state was ever set.
constexpr std::int32_t FLK_RESULT_NONE = 0;
constexpr std::int32_t FLK_RESULT_50HZ = 2;
constexpr std::int32_t FLK_RESULT_60HZ = 3;

// Sensor families (the `type` field of FlkInitPara and FlkDetectPara).
constexpr std::int32_t FLK_SENSOR_STANDARD = 0;  // 64-bit statistics, optional zHDR packing
constexpr std::int32_t FLK_SENSOR_SONY = 1;      // 10-bit statistics through a tone curve
constexpr std::int32_t FLK_SENSOR_2X5 = 2;       // "2x5" block statistics

// CMD_SET_LOG_LEVEL word: bit 0 flow tracing (and sequential-test lines), bit 1 line-data dump.
using FlkLogPara = std::uint32_t;
constexpr FlkLogPara FLK_LOG_FLOW = 1u;
constexpr FlkLogPara FLK_LOG_LINE_DATA = 2u;

// Input of CMD_INIT.
struct FlkInitPara {
  std::int32_t type;           // sensor family
  std::int32_t line_length;    // pixel clocks per sensor line
  std::int32_t column_length;  // sensor lines per frame
  std::int32_t window_width;   // pixels summed into one statistic
  double pclk;                 // pixel clock, Hz
  std::int32_t block_height;   // lines per statistic ("2x5" sensors only)
  std::int32_t green_only;     // statistics carry green pixels only ("2x5" sensors only)
};

// By-value records carried through the detector signatures. The library reads none of their
// fields; the layouts below are the host's.
struct FlkSensorInfo {
  std::int32_t sensor_id;
  std::int32_t reserved;
};

struct FlkEISVector {
  std::int32_t motion[32];  // electronic image stabilisation record
};

struct FlkAEInfo {
  std::int32_t exposure_index;
};

// Input of CMD_DETECT. The grids hold n_win_h bands of win_ht rows of n_win_w values, the column
// varying fastest: std::int64_t values for the standard family, std::int32_t for the others.
// "2x5" sensors read win_ht as the frame's total rows. The SONY pipeline rewrites both grids in
// place (tone curve and width scaling).
struct FlkDetectPara {
  std::int32_t type;
  void* prev_stats;  // previous frame's grid
  void* cur_stats;   // current frame's grid
  std::int32_t n_win_h;
  std::int32_t n_win_w;
  std::int32_t win_wd;
  std::int32_t win_ht;
  std::int32_t cur_freq;  // the host's current setting; logged only
  FlkSensorInfo sensor_info;
  FlkEISVector eis_vector;
  FlkAEInfo ae_info;
  std::int32_t* out_ptr;  // forwarded, never used
};

// Input of CMD_SET_EXT_PARA: replaces every tunable at once.
struct FlkExtPara {
  std::int32_t flicker_freq[9];         // candidate frequencies, Hz
  std::int32_t flicker_grad_threshold;  // edge threshold of the standard alignment
  std::int32_t flicker_search_range;    // shift search range of the standard alignment
  std::int32_t min_past_frames;         // frames needed before the test may decide
  std::int32_t max_past_frames;         // newest scores summed by the test
  std::int32_t ev50_l50[4];             // likelihood tables: knot, slope below, slope at/above
  std::int32_t ev50_l60[4];             //   (both Q8), offset
  std::int32_t ev60_l50[4];
  std::int32_t ev60_l60[4];
  std::int32_t ev50_thresholds[2];     // [1] is the switch threshold in state 50 Hz
  std::int32_t ev60_thresholds[2];     // [1] is the switch threshold in state 60 Hz
  std::int32_t freq_feature_index[2];  // scored feature per state
  std::uint8_t is_zhdr;                // statistics words carry zHDR counts
  std::uint8_t zhdr_se_small;          // the short exposure is too dark to use
  std::uint8_t zhdr_gle_first;         // even rows are the long exposure
};

// The compiled-in tuning, for hosts that change a few fields and send the rest unchanged.
inline FlkExtPara FlkDefaultExtPara() {
  return FlkExtPara{{70, 80, 90, 100, 120, 130, 140, 160, 170},
                    42,
                    32,
                    3,
                    14,
                    {-194, 4721, 381, -766},
                    {1159, 401, 749, -384},
                    {1383, 422, 1115, -458},
                    {-162, 2898, 247, -642},
                    {-30, 8},
                    {-30, 8},
                    {4, 3},
                    0,
                    0,
                    1};
}

// The host's layout contract: these sizes and offsets are fixed.
static_assert(sizeof(FlkCmd) == 4 && sizeof(EvTable) == 4 && sizeof(FlkLogPara) == 4);
static_assert(sizeof(FlkSensorInfo) == 8 && alignof(FlkSensorInfo) == 4);
static_assert(sizeof(FlkEISVector) == 128 && alignof(FlkEISVector) == 4);
static_assert(sizeof(FlkAEInfo) == 4 && alignof(FlkAEInfo) == 4);
static_assert(sizeof(FlkInitPara) == 32 && offsetof(FlkInitPara, pclk) == 16 &&
              offsetof(FlkInitPara, block_height) == 24 && offsetof(FlkInitPara, green_only) == 28);
static_assert(sizeof(void*) != 8 ||
              (sizeof(FlkDetectPara) == 192 && offsetof(FlkDetectPara, prev_stats) == 8 &&
               offsetof(FlkDetectPara, cur_stats) == 16 && offsetof(FlkDetectPara, n_win_h) == 24 &&
               offsetof(FlkDetectPara, cur_freq) == 40 &&
               offsetof(FlkDetectPara, sensor_info) == 44 &&
               offsetof(FlkDetectPara, eis_vector) == 52 &&
               offsetof(FlkDetectPara, ae_info) == 180 && offsetof(FlkDetectPara, out_ptr) == 184));
static_assert(sizeof(FlkExtPara) == 144 && offsetof(FlkExtPara, ev50_l50) == 52 &&
              offsetof(FlkExtPara, ev50_thresholds) == 116 &&
              offsetof(FlkExtPara, freq_feature_index) == 132 &&
              offsetof(FlkExtPara, is_zhdr) == 140 && offsetof(FlkExtPara, zhdr_gle_first) == 142);

// The one command entry.
void SendCmdFlk(FlkCmd cmd, void* in, void* out);

extern "C" {
// printf-style log at debug priority with the tag "[FLICKER Alg] ". On Android it goes to the
// system log; elsewhere to standard error as "D [FLICKER Alg] <text>", or to the sink below.
int PrintLogFlk(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// Replaces the log destination off Android (null restores standard error). The sink receives the
// priority (3 = debug), the tag and the formatted text.
void SetLogSinkFlk(void (*sink)(int priority, const char* tag, const char* text));

// Integer system property (Android) or environment variable named like the property with every
// '.' replaced by '_' (elsewhere); `def` when unset or empty.
int GetPropIntFlk(const char* name, int def);
}

// Host utilities: exported, not used by the detector itself.
std::int32_t get_slrt_score(std::uint32_t max_past);  // current sequential score, no new frame
void flk_getTablSize(std::int32_t line_length, std::int32_t column_length, std::int32_t* width,
                     std::int32_t* count);  // standard tables: row width and row count
void setFlkPause(std::int32_t pause);
std::int32_t getFlkPause();
void setLMVcnt(std::uint32_t count);

#endif  // KESTREL_FLICKER_H
