// SPDX-License-Identifier: Apache-2.0
// Command-sequence fuzzer: INIT, UNINIT, DETECT, SET_EXT_PARA, SET_STATE, RESET_QUEUE,
// SET_LOG_LEVEL and unknown codes through SendCmdFlk, in any order and with any values.
//
// Every DETECT grid is allocated to exactly the size its geometry implies for the DETECT's own
// type (n_win_h x win_ht x n_win_w values; win_ht x n_win_w for type 2), so AddressSanitizer
// catches any read or write past it. Geometry too large to allocate gets a one-value grid: the
// library must refuse such a frame without touching it.
#include <fuzzer/FuzzedDataProvider.h>
#include <kestrel/flicker.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>

namespace {

// Above every geometry a detector accepts (6000 rows of at most 10 columns).
constexpr std::int64_t kMaxGridValues = 1 << 17;
constexpr int kMaxCommands = 48;

void DiscardLog(int, const char*, const char*) {}

std::int32_t PickInt(FuzzedDataProvider& in, std::int32_t typical_lo, std::int32_t typical_hi) {
  static constexpr std::int32_t kEdges[] = {0,
                                            1,
                                            -1,
                                            2,
                                            7,
                                            8,
                                            10,
                                            11,
                                            53,
                                            1000,
                                            2000,
                                            6000,
                                            12000,
                                            65536,
                                            1195852288,
                                            std::numeric_limits<std::int32_t>::max(),
                                            std::numeric_limits<std::int32_t>::min()};
  switch (in.ConsumeIntegralInRange<int>(0, 2)) {
    case 0:
      return in.ConsumeIntegralInRange<std::int32_t>(typical_lo, typical_hi);
    case 1:
      return in.PickValueInArray(kEdges);
    default:
      return in.ConsumeIntegral<std::int32_t>();
  }
}

std::int32_t PickType(FuzzedDataProvider& in) {
  return in.ConsumeIntegralInRange<int>(0, 7) == 0 ? in.ConsumeIntegral<std::int32_t>()
                                                   : in.ConsumeIntegralInRange<std::int32_t>(0, 2);
}

double PickClock(FuzzedDataProvider& in) {
  static constexpr double kClocks[] = {24e6,
                                       96e6,
                                       0.0,
                                       -1.0,
                                       1e-300,
                                       1e300,
                                       std::numeric_limits<double>::infinity(),
                                       std::numeric_limits<double>::quiet_NaN()};
  if (in.ConsumeBool()) return in.PickValueInArray(kClocks);
  return in.ConsumeFloatingPoint<double>();
}

void Init(FuzzedDataProvider& in) {
  FlkInitPara para{};
  para.type = PickType(in);
  para.line_length = PickInt(in, 500, 8000);
  para.column_length = PickInt(in, 200, 4000);
  para.window_width = PickInt(in, 1, 256);
  para.pclk = PickClock(in);
  para.block_height = PickInt(in, 0, 64);
  para.green_only = PickInt(in, 0, 1);
  SendCmdFlk(CMD_INIT, in.ConsumeIntegralInRange<int>(0, 15) == 0 ? nullptr : &para, nullptr);
}

// Values of one frame: raw bytes, one extreme everywhere, or bands at a chosen rate over a level
// (which reaches the alignment and frequency stages).
template <typename T>
void Fill(FuzzedDataProvider& in, T* grid, std::size_t size, std::int32_t n_win_w) {
  if (size == 0) return;
  switch (in.ConsumeIntegralInRange<int>(0, 3)) {
    case 0:
      for (std::size_t i = 0; i < size; ++i) grid[i] = in.ConsumeIntegral<T>();
      break;
    case 1: {
      static constexpr T kExtremes[] = {
          0, 1, -1, 1023, std::numeric_limits<T>::max(), std::numeric_limits<T>::min()};
      const T v = in.PickValueInArray(kExtremes);
      std::fill(grid, grid + size, v);
      break;
    }
    default: {
      const double level = in.ConsumeIntegralInRange<std::int32_t>(-100, 1 << 20);
      const double depth = in.ConsumeProbability<double>();
      const double period = 2.0 + in.ConsumeIntegralInRange<int>(0, 400);
      const double phase = in.ConsumeProbability<double>() * 6.283185307179586;
      const std::size_t cols = n_win_w > 0 ? static_cast<std::size_t>(n_win_w) : 1;
      // One sine per row, the same value across the row's columns.
      for (std::size_t row = 0; row * cols < size; ++row) {
        const T v = static_cast<T>(
            level * (1.0 + depth * std::sin(6.283185307179586 * row / period + phase)));
        std::fill(grid + row * cols, grid + std::min(size, (row + 1) * cols), v);
      }
      break;
    }
  }
}

template <typename T>
void DetectWith(FuzzedDataProvider& in, FlkDetectPara& para, std::int64_t values) {
  const std::size_t n =
      values >= 0 && values <= kMaxGridValues ? static_cast<std::size_t>(values) : 1;
  // new T[0] is a distinct allocation of no bytes: any access to it is caught.
  const std::unique_ptr<T[]> prev(new T[n]);
  const std::unique_ptr<T[]> cur(new T[n]);
  Fill(in, prev.get(), n, para.n_win_w);
  if (in.ConsumeBool()) {
    std::copy(prev.get(), prev.get() + n, cur.get());
  } else {
    Fill(in, cur.get(), n, para.n_win_w);
  }
  para.prev_stats = prev.get();
  para.cur_stats = cur.get();
  switch (in.ConsumeIntegralInRange<int>(0, 15)) {
    case 0:
      para.prev_stats = nullptr;
      break;
    case 1:
      para.cur_stats = nullptr;
      break;
    default:
      break;
  }
  std::int32_t result = -7;
  switch (in.ConsumeIntegralInRange<int>(0, 31)) {
    case 0:
      SendCmdFlk(CMD_DETECT, nullptr, &result);
      break;
    case 1:
      SendCmdFlk(CMD_DETECT, &para, nullptr);
      break;
    default:
      SendCmdFlk(CMD_DETECT, &para, &result);
      // Every DETECT that reaches a detector answers with a result code.
      if (result != 0 && result != 2 && result != 3) __builtin_trap();
      break;
  }
}

void Detect(FuzzedDataProvider& in) {
  FlkDetectPara para{};
  para.type = PickType(in);
  para.n_win_h = PickInt(in, 0, 12);
  para.n_win_w = PickInt(in, 0, 12);
  para.win_wd = PickInt(in, 0, 64);
  para.win_ht = PickInt(in, 0, 2100);
  para.cur_freq = in.ConsumeIntegral<std::int32_t>();
  // The grid's size follows the DETECT's type, whatever INIT said.
  const std::int64_t h = para.n_win_h, w = para.n_win_w, ht = para.win_ht;
  const bool negative = h < 0 || w < 0 || ht < 0;
  std::int64_t values = 0;
  if (__builtin_mul_overflow(ht * w, para.type == FLK_SENSOR_2X5 ? 1 : h, &values)) values = -1;
  switch (para.type) {
    case FLK_SENSOR_STANDARD:
      DetectWith<std::int64_t>(in, para, negative ? -1 : values);
      break;
    case FLK_SENSOR_2X5:
      DetectWith<std::int32_t>(in, para, negative ? -1 : values);
      break;
    default:  // SONY, and unknown types (which must not read the grid at all)
      DetectWith<std::int32_t>(in, para, para.type == FLK_SENSOR_SONY && !negative ? values : 0);
      break;
  }
}

std::int32_t Extreme(FuzzedDataProvider& in, std::int32_t current) {
  static constexpr std::int32_t kValues[] = {0,
                                             1,
                                             -1,
                                             8,
                                             9,
                                             150,
                                             151,
                                             256,
                                             -256,
                                             1000,
                                             1 << 16,
                                             std::numeric_limits<std::int32_t>::max(),
                                             std::numeric_limits<std::int32_t>::min()};
  switch (in.ConsumeIntegralInRange<int>(0, 3)) {
    case 0:
      return current;
    case 1:
      return in.PickValueInArray(kValues);
    case 2:
      return current + in.ConsumeIntegralInRange<std::int32_t>(-16, 16);
    default:
      return in.ConsumeIntegral<std::int32_t>();
  }
}

void SetExtPara(FuzzedDataProvider& in) {
  FlkExtPara para = FlkDefaultExtPara();
  if (in.ConsumeIntegralInRange<int>(0, 15) == 0) {
    SendCmdFlk(CMD_SET_EXT_PARA, nullptr, nullptr);
    return;
  }
  for (std::int32_t& f : para.flicker_freq) f = Extreme(in, f);
  para.flicker_grad_threshold = Extreme(in, para.flicker_grad_threshold);
  para.flicker_search_range = Extreme(in, para.flicker_search_range);
  para.min_past_frames = Extreme(in, para.min_past_frames);
  para.max_past_frames = Extreme(in, para.max_past_frames);
  for (std::int32_t* table : {para.ev50_l50, para.ev50_l60, para.ev60_l50, para.ev60_l60}) {
    for (int i = 0; i < 4; ++i) table[i] = Extreme(in, table[i]);
  }
  for (int i = 0; i < 2; ++i) {
    para.ev50_thresholds[i] = Extreme(in, para.ev50_thresholds[i]);
    para.ev60_thresholds[i] = Extreme(in, para.ev60_thresholds[i]);
    para.freq_feature_index[i] = Extreme(in, para.freq_feature_index[i]);
  }
  para.is_zhdr = in.ConsumeIntegral<std::uint8_t>() & 1;
  para.zhdr_se_small = in.ConsumeIntegral<std::uint8_t>() & 1;
  para.zhdr_gle_first = in.ConsumeIntegral<std::uint8_t>() & 1;
  if (in.ConsumeIntegralInRange<int>(0, 7) == 0) {
    para.is_zhdr = in.ConsumeIntegral<std::uint8_t>();
    para.zhdr_se_small = in.ConsumeIntegral<std::uint8_t>();
    para.zhdr_gle_first = in.ConsumeIntegral<std::uint8_t>();
  }
  SendCmdFlk(CMD_SET_EXT_PARA, &para, nullptr);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  SetLogSinkFlk(DiscardLog);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider in(data, size);
  // Every input starts from the same library state (short of the result code, which only a
  // state change sets).
  FlkLogPara quiet = 0;
  SendCmdFlk(CMD_SET_LOG_LEVEL, &quiet, nullptr);
  SendCmdFlk(CMD_UNINIT, nullptr, nullptr);
  FlkExtPara defaults = FlkDefaultExtPara();
  SendCmdFlk(CMD_SET_EXT_PARA, &defaults, nullptr);
  SendCmdFlk(CMD_RESET_QUEUE, nullptr, nullptr);

  for (int n = 0; n < kMaxCommands && in.remaining_bytes() > 0; ++n) {
    switch (in.ConsumeIntegralInRange<int>(0, 8)) {
      case 0:
        Init(in);
        break;
      case 1:
        SendCmdFlk(CMD_UNINIT, nullptr, nullptr);
        break;
      case 2:
      case 3:
        Detect(in);
        break;
      case 4:
        SetExtPara(in);
        break;
      case 5: {
        std::int32_t state = in.ConsumeBool() ? in.ConsumeIntegralInRange<std::int32_t>(0, 1)
                                              : in.ConsumeIntegral<std::int32_t>();
        SendCmdFlk(CMD_SET_STATE, in.ConsumeIntegralInRange<int>(0, 15) == 0 ? nullptr : &state,
                   nullptr);
        break;
      }
      case 6:
        SendCmdFlk(CMD_RESET_QUEUE, nullptr, nullptr);
        break;
      case 7: {
        FlkLogPara level = in.ConsumeIntegral<std::uint32_t>();
        SendCmdFlk(CMD_SET_LOG_LEVEL, in.ConsumeIntegralInRange<int>(0, 15) == 0 ? nullptr : &level,
                   nullptr);
        break;
      }
      default: {
        // Codes 7 and up (negative ones included) are unknown and must change nothing.
        std::int32_t word = 0;
        const std::uint32_t code = std::max<std::uint32_t>(7, in.ConsumeIntegral<std::uint32_t>());
        SendCmdFlk(static_cast<FlkCmd>(code), &word, &word);
        break;
      }
    }
  }
  SendCmdFlk(CMD_UNINIT, nullptr, nullptr);
  return 0;
}
