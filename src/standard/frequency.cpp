// SPDX-License-Identifier: Apache-2.0
// Frequency estimation: energies at the nine candidate frequencies, junction interpolation and the
// two-candidate robust estimate.
#include "standard/standard.h"

#include "decision/decision.h"
#include "fixed_point.h"
#include "interface/interface.h"

namespace {
constexpr std::int32_t kExactSumLength = 12000;
}  // namespace

void flicker_partial_sums(const std::int32_t* signal, std::int32_t length, std::int32_t k,
                          std::int32_t column, std::int64_t& re, std::int64_t& im) {
  const std::int32_t* cos_row = g_flkTab1 + k * g_flkTabW + column;
  const std::int32_t* sin_row = g_flkTab2 + k * g_flkTabW + column;
  if (length <= kExactSumLength) {
    // A 32-bit sample times an entry of at most 255 is below 2^39 in size, and up to 12000 of
    // them sum below 2^53: every partial sum, in whatever order, is an integer a double holds
    // exactly, so the sums may be reordered into vectors (the baseline ISA has no 64-bit
    // multiply, but two doubles to a vector).
    double c = 0.0;
    double s = 0.0;
#pragma omp simd reduction(+ : c, s)
    for (std::int32_t n = 0; n < length; ++n) {
      const double x = signal[n];
      c += x * cos_row[n];
      s += x * sin_row[n];
    }
    re = static_cast<std::int64_t>(c);
    im = static_cast<std::int64_t>(s);
    return;
  }
  std::int64_t c = 0;
  std::int64_t s = 0;
  for (std::int32_t n = 0; n < length; ++n) {
    c += std::int64_t{signal[n]} * cos_row[n];
    s += std::int64_t{signal[n]} * sin_row[n];
  }
  re = c;
  im = s;
}

void flicker_energies(const std::int32_t* signal, std::int32_t length, std::int64_t* energies) {
  const std::int32_t b = length < 1 ? 1 : fx::bit_count(static_cast<std::uint64_t>(length));
  for (std::int32_t k = 0; k < 9; ++k) {
    std::int64_t re = 0;
    std::int64_t im = 0;
    if (length >= 1) {
      flicker_partial_sums(signal, length, k, 0, re, im);
      re = fx::rshift_round64(re, b - 1);
      im = fx::rshift_round64(im, b - 1);
    }
    energies[k] = fx::wrap_add64(fx::wrap_mul64(re, re), fx::wrap_mul64(im, im));
  }
}

void flicker_energies_to_features(const std::int64_t* energies, std::int32_t headroom,
                                  std::int32_t* freq_out) {
  std::int64_t largest = -1;
  for (std::int32_t k = 0; k < 9; ++k) {
    if (energies[k] > largest) largest = energies[k];
  }
  const std::uint64_t top = static_cast<std::uint64_t>(largest) >> headroom;
  const std::int32_t p = top == 0 ? 0 : fx::bit_count(top);
  for (std::int32_t k = 0; k < 9; ++k) {
    freq_out[k] = fx::low32(fx::rshift_round64(energies[k], p));
  }
}

void flicker_scale_candidates(std::int64_t* energies, std::int32_t count, std::int64_t max_energy,
                              std::int32_t headroom) {
  const std::int32_t p = flicker_scale_shift(max_energy, headroom);
  if (p <= 0) return;
  for (std::int32_t i = 0; i < count; ++i) energies[i] = fx::rshift_round64(energies[i], p);
}

void flicker_tabulate_choices(const std::int64_t* part_re, const std::int64_t* part_im,
                              std::int32_t stride, std::int32_t first, std::int32_t count,
                              std::uint32_t n, std::int64_t* re_out, std::int64_t* im_out) {
  std::int32_t digit[16] = {};
  for (std::uint32_t a = 0; a < n; ++a) {
    for (std::int32_t k = 0; k < 9; ++k) {
      std::int64_t re = 0;
      std::int64_t im = 0;
      for (std::int32_t i = 0; i < count; ++i) {
        re += part_re[k * stride + 3 * (first + i) + digit[i]];
        im += part_im[k * stride + 3 * (first + i) + digit[i]];
      }
      re_out[k * n + a] = re;
      im_out[k * n + a] = im;
    }
    for (std::int32_t i = 0; i < count; ++i) {
      if (++digit[i] < 3) break;
      digit[i] = 0;
    }
  }
}

void flicker_interpolation(std::int32_t* signal, std::int32_t* segment_lengths,
                           std::int32_t* junction_offsets, std::int32_t segment_count) {
  std::int32_t pos = 0;
  for (std::int32_t i = 0; i + 1 < segment_count; ++i) {
    const std::int32_t len = segment_lengths[i];
    const std::int32_t a = junction_offsets[i];
    const std::int32_t c = junction_offsets[i + 1];
    std::int32_t steps = 0;
    if (a < 0) {
      steps = 1 - a + (c > 0 ? c : 0);
    } else if (c > 0) {
      steps = c + 1;
    }
    const std::int32_t s0 = pos + len - 1 + (a < 0 ? a : 0);  // last good sample before the gap
    // A gap starting before the signal cannot come from the alignment's layout: left alone.
    if (steps >= 2 && s0 >= 0) {
      const std::int64_t left = signal[s0];
      const std::int64_t right = signal[s0 + steps];
      // Q26 reciprocal of the step count, so the line needs no division per sample.
      const std::int64_t step_q26 = (std::uint32_t{1} << 26) / static_cast<std::uint32_t>(steps);
      for (std::int32_t t = 1; t < steps; ++t) {
        const std::int64_t mix = left * (steps - t) + right * t;
        signal[s0 + t] = fx::low32(fx::rshift_round64(mix * step_q26, 26));
      }
    }
    pos += len;
  }
}

namespace {

// Segments of one robust estimate: the alignment splits a frame into at most kMaxWindows, so
// 2^16 version choices is far beyond any real call.
constexpr std::int32_t kMaxRobustSegments = 16;

// True when samples [first, first + length) sit inside the trigonometric tables.
bool inside_tables(std::int32_t first, std::int64_t length) {
  return g_flkTab1 != nullptr && g_flkTab2 != nullptr && first >= 0 && first + length <= g_flkTabW;
}

}  // namespace

void flicker_compute_freq(std::int32_t* signal, std::int32_t length, std::int32_t* freq_out) {
  if (length > 0 && !inside_tables(0, length)) {
    if (g_flkTab1 == nullptr || g_flkTab2 == nullptr) {
      LogRefusalFlk("flicker_compute_freq", "no trigonometric tables");
    } else {
      LogRefusalFlk("flicker_compute_freq", "%d samples beyond the table width %d", length,
                    g_flkTabW);
    }
    return;
  }
  std::int64_t energies[9];
  flicker_energies(signal, length, energies);
  // Largest energy under 2^23 after one shift common to all nine, so their ratios survive.
  flicker_energies_to_features(energies, 23, freq_out);
}

namespace {

// Per-half choice sums of the robust estimate, for up to half of its segment limit each.
struct HalfSums {
  std::int64_t re[9][1 << ((kMaxRobustSegments + 1) / 2)];
  std::int64_t im[9][1 << ((kMaxRobustSegments + 1) / 2)];
};
HalfSums g_robustLow;
HalfSums g_robustHigh;

}  // namespace

void flicker_compute_freq_robust(std::int32_t* version_a, std::int32_t* version_b,
                                 std::int32_t segment_count, std::int32_t* segment_lengths,
                                 std::int32_t* freq_out) {
  // No segments behaves like one empty choice: nine zero energies.
  const std::int32_t segments = segment_count < 0 ? 0 : segment_count;
  if (segments > kMaxRobustSegments) {
    LogRefusalFlk("flicker_compute_freq_robust", "%d segments above %d", segment_count,
                  kMaxRobustSegments);
    return;
  }
  std::int64_t total = 0;  // 64-bit: the bound check below must not wrap
  {
    std::int64_t pos = 0;
    for (std::int32_t i = 0; i < segments; ++i) {
      const std::int32_t len = segment_lengths[i];
      if (len >= 1 && (pos < 0 || !inside_tables(static_cast<std::int32_t>(pos), len))) {
        LogRefusalFlk("flicker_compute_freq_robust",
                      "segment %d at %lld of %d samples beyond the table width %d", i,
                      static_cast<long long>(pos), len, g_flkTabW);
        return;
      }
      // A negative length moves the next segment back, as the alignment's layout says.
      pos += len;
      total += len;
    }
  }
  const std::int32_t total_len = fx::low32(total);
  const std::int32_t b = total_len < 1 ? 1 : fx::bit_count(static_cast<std::uint64_t>(total_len));

  const std::int32_t masks = std::int32_t{1} << segments;
  // Cosine and sine sums of each segment, both versions, every frequency: a choice's energies are
  // rebuilt from them by additions only, so nothing of size 2^segments is stored.
  std::int64_t cos_a[9][kMaxRobustSegments], sin_a[9][kMaxRobustSegments];
  std::int64_t cos_b[9][kMaxRobustSegments], sin_b[9][kMaxRobustSegments];
  for (std::int32_t k = 0; k < 9; ++k) {
    std::int32_t pos = 0;
    for (std::int32_t i = 0; i < segments; ++i) {
      const std::int32_t len = segment_lengths[i];
      cos_a[k][i] = sin_a[k][i] = cos_b[k][i] = sin_b[k][i] = 0;
      if (len >= 1) {
        // The table column is the position in the whole signal: phases run on across segments.
        flicker_partial_sums(version_b + pos, len, k, pos, cos_b[k][i], sin_b[k][i]);
        flicker_partial_sums(version_a + pos, len, k, pos, cos_a[k][i], sin_a[k][i]);
      }
      pos += len;
    }
  }
  // Sums of every choice over the low and the high half of the segments, tabulated once, so a
  // choice q (bit i set: version A for segment i) costs two additions per frequency.
  const std::int32_t low_bits = segments / 2;
  const std::int32_t high_bits = segments - low_bits;
  const auto tabulate = [&](std::int32_t first, std::int32_t bits, HalfSums& half) {
    for (std::int32_t k = 0; k < 9; ++k) {
      for (std::int32_t h = 0; h < (std::int32_t{1} << bits); ++h) {
        std::int64_t re = 0;
        std::int64_t im = 0;
        for (std::int32_t j = 0; j < bits; ++j) {
          const bool a = (h >> j) & 1;
          re += a ? cos_a[k][first + j] : cos_b[k][first + j];
          im += a ? sin_a[k][first + j] : sin_b[k][first + j];
        }
        half.re[k][h] = re;
        half.im[k][h] = im;
      }
    }
  };
  tabulate(0, low_bits, g_robustLow);
  tabulate(low_bits, high_bits, g_robustHigh);
  const std::int32_t low_mask = (std::int32_t{1} << low_bits) - 1;
  const auto choice_energies = [&](std::int32_t q, std::int64_t* energies) {
    const std::int32_t lo = q & low_mask;
    const std::int32_t hi = q >> low_bits;
    for (std::int32_t k = 0; k < 9; ++k) {
      const std::int64_t re =
          fx::rshift_round64(g_robustLow.re[k][lo] + g_robustHigh.re[k][hi], b - 1);
      const std::int64_t im =
          fx::rshift_round64(g_robustLow.im[k][lo] + g_robustHigh.im[k][hi], b - 1);
      energies[k] = fx::wrap_add64(fx::wrap_mul64(re, re), fx::wrap_mul64(im, im));
    }
  };

  std::int64_t energies[9];
  std::int64_t largest = -1;
  for (std::int32_t q = 0; q < masks; ++q) {
    choice_energies(q, energies);
    for (const std::int64_t e : energies) {
      if (e > largest) largest = e;
    }
  }

  std::int32_t best_score = 0;
  std::int32_t scratch[9];
  for (std::int32_t q = 0; q < masks; ++q) {
    choice_energies(q, energies);
    // One shift less than the single estimate's threshold: the largest ends under 2^23 as well.
    flicker_scale_candidates(energies, 9, largest, 22);
    for (std::int32_t k = 0; k < 9; ++k) scratch[k] = fx::low32(energies[k]);
    const std::int32_t score = get_current_llr(scratch, 9);
    // Strictly greater only: the lowest mask (version B everywhere first) wins ties.
    if (q == 0 || score > best_score) {
      best_score = score;
      for (std::int32_t k = 0; k < 9; ++k) freq_out[k] = scratch[k];
    }
  }
}
