// SPDX-License-Identifier: Apache-2.0
// 2x5 frequency features: single-signal energies, the length-normalised three-candidate search.
#include "twobyfive/twobyfive.h"

#include <algorithm>

#include "decision/decision.h"
#include "fixed_point.h"
#include "interface/interface.h"
#include "standard/standard.h"

namespace {

// The alignment never cuts a frame into more segments than it has windows; 3^10 choices is also
// where the search's cost stops being negligible.
constexpr std::int32_t kMaxSegments = kMaxWindows;

// 3^count in 32-bit unsigned arithmetic (1 for count < 1).
std::uint32_t choice_count(std::int32_t count) {
  std::uint32_t q = 1;
  for (std::int32_t i = 0; i < count; ++i) q *= 3u;
  return q;
}

// Partial sums of one frequency: cosine and sine sums per (segment, candidate) at 3 x i + v.
struct PartialSums {
  std::int64_t re[3 * kMaxSegments];
  std::int64_t im[3 * kMaxSegments];
};

// Brings every choice's nine energies to the common scale of the largest one (from 0; shifted
// under 2^22 from 2^21) and keeps the first choice with the strictly highest frame score.
// `energies_of(q, e)` fills e[0..8]; it runs twice per choice instead of storing 9 x 3^segments
// energies: the additions are cheaper than the memory, and the results are the same.
template <typename EnergiesOf>
void pick_best_choice(std::uint32_t choices, EnergiesOf energies_of, std::int32_t* freq_out,
                      std::int32_t& best_score) {
  std::int64_t largest = 0;
  for (std::uint32_t q = 0; q < choices; ++q) {
    std::int64_t e[9];
    energies_of(q, e);
    for (std::int32_t k = 0; k < 9; ++k) {
      if (e[k] > largest) largest = e[k];
    }
  }
  for (std::uint32_t q = 0; q < choices; ++q) {
    std::int64_t e[9];
    energies_of(q, e);
    flicker_scale_candidates(e, 9, largest, 21);
    std::int32_t features[9];
    for (std::int32_t k = 0; k < 9; ++k) features[k] = fx::low32(e[k]);
    const std::int32_t score = get_current_llr(features, 9);
    if (score > best_score) {
      best_score = score;
      for (std::int32_t k = 0; k < 9; ++k) freq_out[k] = features[k];
    }
  }
}

// The trigonometric tables exist and hold `columns` columns.
bool tables_hold(std::int64_t columns) {
  return g_flkTab1 != nullptr && g_flkTab2 != nullptr && columns <= g_flkTabW;
}

}  // namespace

void flicker_compute_freq_2x5(std::int32_t* signal, std::int32_t length, std::int32_t* freq_out) {
  if (!tables_hold(length)) {
    LogRefusalFlk("flicker_compute_freq_2x5", "%d samples, tables of %d columns", length,
                  g_flkTabW);
    return;
  }
  std::int64_t energies[9];
  flicker_energies(signal, length, energies);
  flicker_energies_to_features(energies, 22, freq_out);
}

void flicker_compute_freq_3x_2x5(std::int32_t** versions, std::int32_t segment_count,
                                 std::int32_t** version_lengths, std::int32_t* freq_out,
                                 std::int32_t& best_score) {
  best_score = INT32_MIN;
  if (segment_count > kMaxSegments) {
    LogRefusalFlk("flicker_compute_freq_3x_2x5", "%d segments, limit %d", segment_count,
                  kMaxSegments);
    return;
  }
  const std::int32_t segments = segment_count < 0 ? 0 : segment_count;
  std::int64_t span = 0;  // table columns read by the longest candidate
  for (std::int32_t v = 0; v < 3; ++v) {
    std::int64_t columns = 0;
    for (std::int32_t i = 0; i < segments; ++i) columns += std::max(version_lengths[v][i], 0);
    span = std::max(span, columns);
  }
  if (!tables_hold(span)) {
    LogRefusalFlk("flicker_compute_freq_3x_2x5", "candidates of %lld samples, tables of %d columns",
                  static_cast<long long>(span), g_flkTabW);
    return;
  }
  const std::uint32_t choices = choice_count(segment_count);
  PartialSums sums[9];  // 4 KB
  for (std::int32_t k = 0; k < 9; ++k) {
    for (std::int32_t v = 0; v < 3; ++v) {
      std::int32_t pos = 0;
      for (std::int32_t i = 0; i < segments; ++i) {
        const std::int32_t len = version_lengths[v][i];
        std::int64_t re = 0;
        std::int64_t im = 0;
        if (len >= 1) flicker_partial_sums(versions[v] + pos, len, k, pos, re, im);
        sums[k].re[3 * i + v] = re;
        sums[k].im[3 * i + v] = im;
        if (len > 0) pos += len;  // an empty segment neither contributes nor moves back
      }
    }
  }
  // E of choice q: the selected sums averaged over the selected length, in Q7 (x 128), so that
  // choices of different total length compare fairly.
  auto energies_of = [&](std::uint32_t q, std::int64_t* e) {
    std::int32_t digits[kMaxSegments];
    std::int32_t length = 0;
    for (std::int32_t i = 0; i < segments; ++i) {
      digits[i] = static_cast<std::int32_t>(q % 3u);
      q /= 3u;
      length = fx::wrap_add32(length, version_lengths[digits[i]][i]);
    }
    if (length == 0) length = 1;
    for (std::int32_t k = 0; k < 9; ++k) {
      // 64-bit: sums below 2^43 (2000 samples of 17-bit ratios times 255), times 128.
      std::int64_t re = 0;
      std::int64_t im = 0;
      for (std::int32_t i = 0; i < segments; ++i) {
        re += sums[k].re[3 * i + digits[i]];
        im += sums[k].im[3 * i + digits[i]];
      }
      re = fx::div_trunc<std::int64_t>(fx::wrap_mul64(re, 128), length);
      im = fx::div_trunc<std::int64_t>(fx::wrap_mul64(im, 128), length);
      e[k] = fx::wrap_add64(fx::wrap_mul64(re, re), fx::wrap_mul64(im, im));
    }
  };
  pick_best_choice(choices, energies_of, freq_out, best_score);
}

void flicker_compute_freq_3x_2x5(std::int32_t* version_a, std::int32_t* version_b,
                                 std::int32_t* version_c, std::int32_t segment_count,
                                 std::int32_t segment_length, std::int32_t* freq_out) {
  if (segment_count > kMaxSegments) {
    LogRefusalFlk("flicker_compute_freq_3x_2x5", "%d segments, limit %d", segment_count,
                  kMaxSegments);
    return;
  }
  const std::int64_t span = std::int64_t{segment_count} * segment_length;
  if (!tables_hold(span)) {
    LogRefusalFlk("flicker_compute_freq_3x_2x5", "%d segments of %d samples, tables of %d columns",
                  segment_count, segment_length, g_flkTabW);
    return;
  }
  const std::int32_t segments = segment_count < 0 ? 0 : segment_count;
  const std::uint32_t choices = choice_count(segment_count);
  const std::int32_t total = fx::wrap_mul32(segment_count, segment_length);
  const std::int32_t b =
      fx::bit_count(static_cast<std::uint64_t>(static_cast<std::int64_t>(total)));
  std::int32_t* const version[3] = {version_a, version_b, version_c};
  PartialSums sums[9];  // 4 KB
  for (std::int32_t k = 0; k < 9; ++k) {
    for (std::int32_t i = 0; i < segments; ++i) {
      const std::int32_t pos = i * segment_length;
      for (std::int32_t v = 0; v < 3; ++v) {
        std::int64_t re = 0;
        std::int64_t im = 0;
        if (segment_length >= 1) {
          flicker_partial_sums(version[v] + pos, segment_length, k, pos, re, im);
        }
        sums[k].re[3 * i + v] = re;
        sums[k].im[3 * i + v] = im;
      }
    }
  }
  auto energies_of = [&](std::uint32_t q, std::int64_t* e) {
    std::int32_t digits[kMaxSegments];
    for (std::int32_t i = 0; i < segments; ++i) {
      digits[i] = static_cast<std::int32_t>(q % 3u);
      q /= 3u;
    }
    for (std::int32_t k = 0; k < 9; ++k) {
      std::int64_t re = 0;
      std::int64_t im = 0;
      for (std::int32_t i = 0; i < segments; ++i) {
        re += sums[k].re[3 * i + digits[i]];
        im += sums[k].im[3 * i + digits[i]];
      }
      re = fx::rshift_round64(re, b - 1);
      im = fx::rshift_round64(im, b - 1);
      e[k] = fx::wrap_add64(fx::wrap_mul64(re, re), fx::wrap_mul64(im, im));
    }
  };
  std::int32_t best_score = INT32_MIN;
  pick_best_choice(choices, energies_of, freq_out, best_score);
}

std::int32_t compute_noiseness_2x5(const std::int32_t* values, std::int32_t count) {
  // A negative count sums nothing but still divides its own half by itself: -1 gives 1.
  const std::int32_t half = count >> 1;
  std::int32_t sum = 0;
  for (std::int32_t i = 0; i < count; ++i) sum = fx::wrap_add32(sum, values[i]);
  const std::int32_t mean = fx::div_trunc(fx::wrap_add32(sum, half), count);
  std::int32_t deviation = 0;
  for (std::int32_t i = 0; i < count; ++i) {
    deviation = fx::wrap_add32(deviation, fx::wrap_abs32(fx::wrap_sub32(values[i], mean)));
  }
  return fx::div_trunc(fx::wrap_add32(deviation, half), count);
}
