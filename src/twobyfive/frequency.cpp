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

// Per-frequency sums of every choice of each half of the segments (3^5 choices a half), and
// each half-choice's total length, for the split search of flicker_pick_choice.
constexpr std::uint32_t kHalfChoices = 243;
struct ChoiceScratch {
  std::int64_t low_re[9 * kHalfChoices];
  std::int64_t low_im[9 * kHalfChoices];
  std::int64_t high_re[9 * kHalfChoices];
  std::int64_t high_im[9 * kHalfChoices];
  std::int32_t low_length[kHalfChoices];
  std::int32_t high_length[kHalfChoices];
};
ChoiceScratch g_choices;

// Tabulates both halves of `segments` segments from the partial sums; returns the halves. With
// `lengths` (candidate v of segment i lasts lengths[v][i]) each half-choice's length is summed too.
void split_choices(const PartialSums* sums, std::int32_t segments, std::int32_t** lengths,
                   FlkChoiceHalf& low, FlkChoiceHalf& high) {
  const std::int32_t low_segments = segments / 2;
  const std::uint32_t nl = choice_count(low_segments);
  const std::uint32_t nh = choice_count(segments - low_segments);
  constexpr std::int32_t stride = sizeof(PartialSums) / sizeof(std::int64_t);
  flicker_tabulate_choices(sums[0].re, sums[0].im, stride, 3, 0, low_segments, nl, g_choices.low_re,
                           g_choices.low_im);
  flicker_tabulate_choices(sums[0].re, sums[0].im, stride, 3, low_segments, segments - low_segments,
                           nh, g_choices.high_re, g_choices.high_im);
  low = FlkChoiceHalf{g_choices.low_re, g_choices.low_im, nullptr, nl};
  high = FlkChoiceHalf{g_choices.high_re, g_choices.high_im, nullptr, nh};
  if (lengths == nullptr) return;
  const auto tabulate_lengths = [&](std::int32_t first, std::int32_t count, std::uint32_t n,
                                    std::int32_t* out) {
    std::int32_t digit[kMaxSegments] = {};
    for (std::uint32_t a = 0; a < n; ++a) {
      std::int32_t length = 0;
      for (std::int32_t i = 0; i < count; ++i) {
        length = fx::wrap_add32(length, lengths[digit[i]][first + i]);
      }
      out[a] = length;
      for (std::int32_t i = 0; i < count; ++i) {
        if (++digit[i] < 3) break;
        digit[i] = 0;
      }
    }
  };
  tabulate_lengths(0, low_segments, nl, g_choices.low_length);
  tabulate_lengths(low_segments, segments - low_segments, nh, g_choices.high_length);
  low.length = g_choices.low_length;
  high.length = g_choices.high_length;
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
  std::int64_t extents[3] = {};
  for (std::int32_t v = 0; v < 3; ++v) {
    for (std::int32_t i = 0; i < segments; ++i) extents[v] += std::max(version_lengths[v][i], 0);
    span = std::max(span, extents[v]);
  }
  if (!tables_hold(span)) {
    LogRefusalFlk("flicker_compute_freq_3x_2x5", "candidates of %lld samples, tables of %d columns",
                  static_cast<long long>(span), g_flkTabW);
    return;
  }
  const bool packed = flicker_pack_sums(versions, extents, 3);
  PartialSums sums[9];  // 4 KB
  for (std::int32_t k = 0; k < 9; ++k) {
    for (std::int32_t v = 0; v < 3; ++v) {
      std::int32_t pos = 0;
      for (std::int32_t i = 0; i < segments; ++i) {
        const std::int32_t len = version_lengths[v][i];
        std::int64_t re = 0;
        std::int64_t im = 0;
        if (len >= 1 && packed) {
          flicker_packed_sums(v, pos, len, k, re, im);
        } else if (len >= 1) {
          flicker_partial_sums(versions[v] + pos, len, k, pos, re, im);
        }
        sums[k].re[3 * i + v] = re;
        sums[k].im[3 * i + v] = im;
        if (len > 0) pos += len;  // an empty segment neither contributes nor moves back
      }
    }
  }
  // A choice's sums are averaged over its length (the low and the high half's, 32-bit; 0 counts
  // as 1), in Q7 (x 128), so that choices of different total length compare fairly. 64-bit: sums
  // below 2^43 (2000 samples of 17-bit ratios times 255), times 128.
  FlkChoiceHalf low{};
  FlkChoiceHalf high{};
  split_choices(sums, segments, version_lengths, low, high);
  flicker_pick_choice(
      low, high,
      [](std::int64_t sum, std::int32_t length) {
        return fx::div_trunc<std::int64_t>(fx::wrap_mul64(sum, 128), length == 0 ? 1 : length);
      },
      -1, 0, 21, freq_out, best_score);
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
  const std::int32_t total = fx::wrap_mul32(segment_count, segment_length);
  const std::int32_t b =
      fx::bit_count(static_cast<std::uint64_t>(static_cast<std::int64_t>(total)));
  const std::int32_t* const version[3] = {version_a, version_b, version_c};
  PartialSums sums[9];  // 4 KB
  flicker_equal_segment_sums(
      version, segments, segment_length,
      [&](std::int32_t k, std::int32_t i, const std::int64_t* re, const std::int64_t* im) {
        for (std::int32_t v = 0; v < 3; ++v) {
          sums[k].re[3 * i + v] = re[v];
          sums[k].im[3 * i + v] = im[v];
        }
      });
  FlkChoiceHalf low{};
  FlkChoiceHalf high{};
  split_choices(sums, segments, nullptr, low, high);
  std::int32_t best_score = INT32_MIN;
  flicker_pick_choice(
      low, high, [b](std::int64_t sum, std::int32_t) { return fx::rshift_round64(sum, b - 1); },
      b - 1 > 0 ? b - 1 : 0, 0, 21, freq_out, best_score);
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
