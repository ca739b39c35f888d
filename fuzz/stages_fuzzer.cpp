// SPDX-License-Identifier: Apache-2.0
// Stage fuzzer: the exported stages with a bounded contract, called directly on raw arrays that
// hold exactly what the contract says they read. The first byte picks the stage:
//   despikes      flicker_despike, flicker_despike_SONY, flickerDespikeAdaptive_2x5 (n <= 2000)
//   frequencies   the single-signal and multi-candidate estimators of the three families, on
//                 the trigonometric tables of one fixed INIT
//   shift search  find_peaks, exhaust_search, exhaust_search_fine (len <= 1000, fullLen about
//                 len << preShift, masks one entry a sample, as the alignment passes them)
//   filter bank   the five convolution kernels (any taps, lengths, dilations and shifts)
//   alignment     align_flicker, align_flicker_SONY_subpixel, align_flicker_subpixel_2x5 on
//                 frames of totalLength samples split into any windows
// Lengths outside a contract are still tried where the stage promises to refuse them (n < 1,
// n > 2000, a count past the tables).
#include <fuzzer/FuzzedDataProvider.h>
#include <kestrel/flicker.h>

#include <cstdint>
#include <limits>
#include <vector>

#include "filterbank/filterbank.h"
#include "sony/sony.h"
#include "standard/standard.h"
#include "twobyfive/twobyfive.h"

namespace {

void DiscardLog(int, const char*, const char*) {}

template <typename T>
std::vector<T> Samples(FuzzedDataProvider& in, std::size_t n) {
  std::vector<T> v(n);
  const int mode = in.ConsumeIntegralInRange<int>(0, 2);
  const T bound = static_cast<T>(in.ConsumeIntegralInRange<std::int32_t>(1, 1 << 24));
  for (std::size_t i = 0; i < n; ++i) {
    switch (mode) {
      case 0:
        v[i] = in.ConsumeIntegral<T>();
        break;
      case 1:
        v[i] = in.ConsumeIntegralInRange<T>(-bound, bound);
        break;
      default:
        v[i] = in.ConsumeBool() ? std::numeric_limits<T>::max() : std::numeric_limits<T>::min();
        break;
    }
  }
  return v;
}

std::int32_t Length(FuzzedDataProvider& in, std::int32_t hi) {
  return in.ConsumeBool() ? in.ConsumeIntegralInRange<std::int32_t>(0, hi)
                          : in.ConsumeIntegralInRange<std::int32_t>(-3, 2003);
}

void Despike(FuzzedDataProvider& in, int which) {
  const std::int32_t n = Length(in, 2000);
  std::vector<std::int32_t> x = Samples<std::int32_t>(in, n > 0 ? n : 0);
  std::vector<std::int32_t> y(x.size());
  std::int32_t* out = in.ConsumeBool() ? x.data() : y.data();  // in place is allowed
  if (x.empty()) return;
  if (n > 2000) return;  // the caller's array would have to hold n samples
  switch (which) {
    case 0:
      flicker_despike(x.data(), out, n);
      break;
    case 1:
      flicker_despike_SONY(x.data(), out, n);
      break;
    default:
      flickerDespikeAdaptive_2x5(x.data(), out, n, in.ConsumeIntegralInRange<std::int32_t>(-2, 6),
                                 in.ConsumeIntegral<std::int32_t>());
      break;
  }
}

void Frequency(FuzzedDataProvider& in, int which) {
  std::int32_t freq_out[9] = {};
  switch (which) {
    case 0:
    case 1:
    case 2: {
      const std::int32_t n = in.ConsumeIntegralInRange<std::int32_t>(-2, 1200);
      std::vector<std::int32_t> x = Samples<std::int32_t>(in, n > 0 ? n : 0);
      if (which == 0) flicker_compute_freq(x.data(), n, freq_out);
      if (which == 1) flicker_compute_freq_SONY(x.data(), n, freq_out);
      if (which == 2) flicker_compute_freq_2x5(x.data(), n, freq_out);
      break;
    }
    case 3: {
      const std::int32_t count = in.ConsumeIntegralInRange<std::int32_t>(0, 10);
      std::vector<std::int32_t> lengths(count > 0 ? count : 1);
      std::size_t total = 0;
      for (std::int32_t i = 0; i < count; ++i) {
        lengths[i] = in.ConsumeIntegralInRange<std::int32_t>(0, 250);
        total += lengths[i];
      }
      std::vector<std::int32_t> a = Samples<std::int32_t>(in, total);
      std::vector<std::int32_t> b = Samples<std::int32_t>(in, total);
      flicker_compute_freq_robust(a.data(), b.data(), count, lengths.data(), freq_out);
      break;
    }
    case 4:
    case 5: {
      const std::int32_t count = in.ConsumeIntegralInRange<std::int32_t>(0, 10);
      const std::int32_t length = in.ConsumeIntegralInRange<std::int32_t>(0, 250);
      const std::size_t total = static_cast<std::size_t>(count) * length;
      std::vector<std::int32_t> a = Samples<std::int32_t>(in, total);
      std::vector<std::int32_t> b = Samples<std::int32_t>(in, total);
      std::vector<std::int32_t> c = Samples<std::int32_t>(in, total);
      if (which == 4) {
        flicker_compute_freq_3x_SONY(a.data(), b.data(), c.data(), count, length, freq_out);
      } else {
        flicker_compute_freq_3x_2x5(a.data(), b.data(), c.data(), count, length, freq_out);
      }
      break;
    }
    default: {
      const std::int32_t count = in.ConsumeIntegralInRange<std::int32_t>(0, 10);
      std::vector<std::int32_t> lengths[3];
      std::vector<std::int32_t> signals[3];
      std::int32_t* versions[3];
      std::int32_t* version_lengths[3];
      for (int v = 0; v < 3; ++v) {
        lengths[v].resize(count > 0 ? count : 1);
        std::size_t total = 0;
        for (std::int32_t i = 0; i < count; ++i) {
          lengths[v][i] = in.ConsumeIntegralInRange<std::int32_t>(0, 250);
          total += lengths[v][i];
        }
        signals[v] = Samples<std::int32_t>(in, total);
        versions[v] = signals[v].data();
        version_lengths[v] = lengths[v].data();
      }
      std::int32_t best_score = 0;
      flicker_compute_freq_3x_2x5(versions, count, version_lengths, freq_out, best_score);
      break;
    }
  }
}

void ShiftSearch(FuzzedDataProvider& in, int which) {
  const std::int32_t len = in.ConsumeIntegralInRange<std::int32_t>(0, 1000);
  std::vector<std::int32_t> cur = Samples<std::int32_t>(in, len);
  std::vector<std::int32_t> prev = Samples<std::int32_t>(in, len);
  std::vector<std::int64_t> cur_mask(len), prev_mask(len);
  if (which == 0) {
    find_peaks(cur.data(), len, in.ConsumeIntegral<std::int32_t>(), cur_mask.data());
    return;
  }
  // Masks as find_peaks leaves them (0 or 1), or any stale value.
  const bool stale = in.ConsumeIntegralInRange<int>(0, 7) == 0;
  for (std::int32_t i = 0; i < len; ++i) {
    cur_mask[i] = stale ? in.ConsumeIntegral<std::int64_t>() : in.ConsumeBool();
    prev_mask[i] = stale ? in.ConsumeIntegral<std::int64_t>() : in.ConsumeBool();
  }
  const std::int32_t pre_shift = in.ConsumeIntegralInRange<std::int32_t>(0, 2);
  // fullLen is the window at statistics resolution; now and then anything at all.
  const std::int32_t full_len =
      in.ConsumeIntegralInRange<int>(0, 15) == 0
          ? in.ConsumeIntegral<std::int32_t>()
          : (len << pre_shift) + in.ConsumeIntegralInRange<std::int32_t>(0, (1 << pre_shift) - 1);
  const std::int32_t range = in.ConsumeBool() ? in.ConsumeIntegralInRange<std::int32_t>(0, 64)
                                              : in.ConsumeIntegral<std::int32_t>();
  if (which == 1) {
    std::int32_t unreliable = 0;
    exhaust_search(cur.data(), prev.data(), cur_mask.data(), prev_mask.data(), len, range,
                   pre_shift, in.ConsumeIntegralInRange<std::int32_t>(0, 3), full_len, unreliable);
    return;
  }
  std::int32_t best_index = 0;
  exhaust_search_fine(cur.data(), prev.data(), cur_mask.data(), prev_mask.data(), len, 0, pre_shift,
                      in.ConsumeIntegralInRange<std::int32_t>(0, pre_shift),
                      in.ConsumeBool() ? in.ConsumeIntegralInRange<std::int32_t>(-1, 3)
                                       : in.ConsumeIntegral<std::int32_t>(),
                      full_len,
                      in.ConsumeBool() ? in.ConsumeIntegralInRange<std::int32_t>(-80, 80)
                                       : in.ConsumeIntegral<std::int32_t>(),
                      best_index, cvector_out_test_ptr_array,
                      cvector_out_test_length_working_memory);
}

void FilterBank(FuzzedDataProvider& in, int which) {
  const std::int32_t n = in.ConsumeIntegralInRange<std::int32_t>(-1, 2100);
  const std::int32_t L = in.ConsumeIntegralInRange<std::int32_t>(-1, 8);
  const std::int32_t R = in.ConsumeIntegralInRange<std::int32_t>(-1, 8);
  const std::int32_t d = in.ConsumeIntegralInRange<std::int32_t>(-1, 16);
  const std::int32_t s = in.ConsumeIntegralInRange<std::int32_t>(-1, 64);
  const std::int32_t step = in.ConsumeIntegralInRange<std::int32_t>(-1, 8);
  std::vector<std::int32_t> taps = Samples<std::int32_t>(in, L + R + 1 > 0 ? L + R + 1 : 0);
  const std::size_t size = n > 0 ? n : 0;
  if (which < 2) {
    std::vector<std::int32_t> x = Samples<std::int32_t>(in, size), y(size);
    if (which == 0) convolve_analysis(x.data(), n, y.data(), taps.data(), L, R, d, s, step);
    if (which == 1) convolve_synthesis(x.data(), n, y.data(), taps.data(), L, R, d, s);
  } else if (which < 4) {
    std::vector<std::int64_t> x = Samples<std::int64_t>(in, size), y(size);
    if (which == 2) convolve_analysis(x.data(), n, y.data(), taps.data(), L, R, d, s, step);
    if (which == 3) convolve_synthesis(x.data(), n, y.data(), taps.data(), L, R, d, s);
  } else {
    std::vector<std::int32_t> x = Samples<std::int32_t>(in, size);
    std::vector<std::int64_t> y(size);
    convolve_synthesis_32_to_64_2x5(x.data(), n, y.data(), taps.data(), L, R, d, s);
  }
}

// The tables of one family's INIT (the standard ones serve every stage but the sub-pixel
// alignments, whose log table has its own family's size), rebuilt only when the family changes.
void TablesOf(std::int32_t type) {
  static std::int32_t built = FLK_SENSOR_STANDARD;  // LLVMFuzzerInitialize's INIT
  if (built == type) return;
  FlkInitPara para{type, 2000, type == FLK_SENSOR_STANDARD ? 1000 : 2000,
                   64,   24e6, type == FLK_SENSOR_2X5 ? 4 : 0,
                   0};
  SendCmdFlk(CMD_INIT, &para, nullptr);
  built = type;
}

// The alignment stages read totalLength samples of each frame; a frame past what a stage
// accepts gets a one-sample array, and must be refused without being read.
void Alignment(FuzzedDataProvider& in, int which) {
  const std::int32_t windows = in.ConsumeBool() ? in.ConsumeIntegralInRange<std::int32_t>(-1, 12)
                                                : in.ConsumeIntegral<std::int32_t>();
  const std::int32_t length = in.ConsumeBool() ? in.ConsumeIntegralInRange<std::int32_t>(-2, 2100)
                                               : in.ConsumeIntegral<std::int32_t>();
  const std::int32_t total = in.ConsumeBool() ? in.ConsumeIntegralInRange<std::int32_t>(0, 2100)
                                              : in.ConsumeIntegral<std::int32_t>();
  const std::size_t size = total >= 0 && total <= 20000 ? static_cast<std::size_t>(total) : 1;
  // Statistics of a plausible level with fuzzed detail, or raw values.
  const bool raw = in.ConsumeBool();
  std::vector<std::int32_t> cur = Samples<std::int32_t>(in, size);
  std::vector<std::int32_t> prev = Samples<std::int32_t>(in, size);
  if (!raw) {
    for (std::size_t i = 0; i < size; ++i) {
      cur[i] = 4000 + (cur[i] & 1023);
      prev[i] = 4000 + (prev[i] & 1023);
    }
  }
  std::int32_t freq_out[9] = {};
  std::int32_t ae = 0, flag = 0;
  TablesOf(which);  // FLK_SENSOR_STANDARD, FLK_SENSOR_SONY, FLK_SENSOR_2X5
  if (which == 0) {
    align_flicker(cur.data(), prev.data(), windows, length, total, freq_out, ae, flag);
  } else if (which == 1) {
    align_flicker_SONY_subpixel(cur.data(), prev.data(), windows, length, 0, total, freq_out, ae,
                                flag);
  } else {
    align_flicker_subpixel_2x5(cur.data(), prev.data(), windows, length, 0, total, freq_out, ae,
                               flag);
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  SetLogSinkFlk(DiscardLog);
  // The estimators read the trigonometric tables: one typical INIT (1000 rows) builds them once,
  // for every family's estimator (a table build per input would cost more than the stage).
  FlkInitPara para{FLK_SENSOR_STANDARD, 2000, 1000, 64, 24e6, 0, 0};
  SendCmdFlk(CMD_INIT, &para, nullptr);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider in(data, size);
  const int stage = in.ConsumeIntegralInRange<int>(0, 20);
  if (stage < 18) TablesOf(FLK_SENSOR_STANDARD);
  if (stage < 3) {
    Despike(in, stage);
  } else if (stage < 10) {
    Frequency(in, stage - 3);
  } else if (stage < 13) {
    ShiftSearch(in, stage - 10);
  } else if (stage < 18) {
    FilterBank(in, stage - 13);
  } else {
    Alignment(in, stage - 18);
  }
  return 0;
}
