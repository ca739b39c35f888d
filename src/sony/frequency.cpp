// SPDX-License-Identifier: Apache-2.0
// SONY frequency features: single-signal energies and the three-candidate search.
#include "sony/sony.h"

#include "decision/decision.h"
#include "fixed_point.h"
#include "interface/interface.h"
#include "standard/standard.h"

namespace {

// Largest output of the single-signal estimate: under about 2^22, a bit below the standard's.
constexpr std::int32_t kSingleHeadroom = 22;
// Common scale of the three-candidate energies: the maximum is shifted under 2^22 from 2^21.
constexpr std::int32_t kChoiceHeadroom = 21;
// Scratch of the three-candidate search, sized for the most windows the alignment accepts:
// per-segment sums, and the choice sums of each half of the segments (3^5 choices a half).
constexpr std::int32_t kHalfChoices = 243;
struct SonyChoiceScratch {
  std::int64_t part_cos[9 * 3 * kSonyMaxWindows];
  std::int64_t part_sin[9 * 3 * kSonyMaxWindows];
  std::int64_t low_cos[9 * kHalfChoices];
  std::int64_t low_sin[9 * kHalfChoices];
  std::int64_t high_cos[9 * kHalfChoices];
  std::int64_t high_sin[9 * kHalfChoices];
};
SonyChoiceScratch g_sonyChoices;

}  // namespace

void flicker_compute_freq_SONY(std::int32_t* signal, std::int32_t length, std::int32_t* freq_out) {
  if (g_flkTab1 == nullptr || g_flkTab2 == nullptr || length > g_flkTabW) {
    LogRefusalFlk("flicker_compute_freq_SONY", "%d samples past the tables' %d columns", length,
                  g_flkTab1 == nullptr ? 0 : g_flkTabW);
    return;
  }
  std::int64_t energies[9];
  flicker_energies(signal, length, energies);
  flicker_energies_to_features(energies, kSingleHeadroom, freq_out);
}

void flicker_compute_freq_3x_SONY(std::int32_t* version_a, std::int32_t* version_b,
                                  std::int32_t* version_c, std::int32_t segment_count,
                                  std::int32_t segment_length, std::int32_t* freq_out) {
  const std::int64_t span = std::int64_t{segment_count} * segment_length;
  if (segment_count > kSonyMaxWindows || g_flkTab1 == nullptr || g_flkTab2 == nullptr ||
      span > g_flkTabW) {
    LogRefusalFlk("flicker_compute_freq_3x_SONY",
                  "%d segments of %d samples (at most %d segments within the tables' %d columns)",
                  segment_count, segment_length, kSonyMaxWindows,
                  g_flkTab1 == nullptr ? 0 : g_flkTabW);
    return;
  }
  const std::int32_t segments = segment_count < 1 ? 0 : segment_count;
  std::uint32_t choices = 1;
  for (std::int32_t i = 0; i < segments; ++i) choices *= 3;
  const std::int32_t total =
      fx::wrap_mul32(segment_count, segment_length);  // T, 32-bit as fed to B
  const std::int32_t b = fx::bit_count(total < 0 ? 0u : static_cast<std::uint64_t>(total));

  // Partial sums by frequency, then segment and version (index 3 x segment + version).
  const std::int32_t* const versions[3] = {version_a, version_b, version_c};
  std::int64_t* const part_cos = g_sonyChoices.part_cos;
  std::int64_t* const part_sin = g_sonyChoices.part_sin;
  const std::int32_t stride = 3 * segments;
  flicker_equal_segment_sums(
      versions, segments, segment_length,
      [&](std::int32_t k, std::int32_t i, const std::int64_t* re, const std::int64_t* im) {
        for (std::int32_t v = 0; v < 3; ++v) {
          part_cos[k * stride + 3 * i + v] = re[v];
          part_sin[k * stride + 3 * i + v] = im[v];
        }
      });

  // Choice q picks version (digit i of q in base 3) for segment i, segment 0 least significant.
  // Its sums are those of its low `low_segments` digits plus those of its high digits, each half
  // tabulated once: two additions per choice and frequency instead of one per segment (exact,
  // 64-bit sums of at most ten partial sums).
  const std::int32_t low_segments = segments / 2;
  std::uint32_t low_choices = 1;
  for (std::int32_t i = 0; i < low_segments; ++i) low_choices *= 3;
  const std::uint32_t high_choices = choices / low_choices;
  std::int64_t* const low_cos = g_sonyChoices.low_cos;
  std::int64_t* const low_sin = g_sonyChoices.low_sin;
  std::int64_t* const high_cos = g_sonyChoices.high_cos;
  std::int64_t* const high_sin = g_sonyChoices.high_sin;
  flicker_tabulate_choices(part_cos, part_sin, stride, 3, 0, low_segments, low_choices, low_cos,
                           low_sin);
  flicker_tabulate_choices(part_cos, part_sin, stride, 3, low_segments, segments - low_segments,
                           high_choices, high_cos, high_sin);

  // The best frame score wins; ties keep the earlier choice (version_a everywhere first).
  std::int32_t best = INT32_MIN;
  flicker_pick_choice(
      FlkChoiceHalf{low_cos, low_sin, nullptr, low_choices},
      FlkChoiceHalf{high_cos, high_sin, nullptr, high_choices},
      [b](std::int64_t sum, std::int32_t) { return fx::rshift_round64(sum, b - 1); },
      b - 1 > 0 ? b - 1 : 0, 0, kChoiceHeadroom, freq_out, best);
}
