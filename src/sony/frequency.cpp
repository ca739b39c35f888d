// SPDX-License-Identifier: Apache-2.0
// SONY frequency features: single-signal energies and the three-candidate search.
#include "sony/sony.h"

#include <vector>

#include "decision/decision.h"
#include "fixed_point.h"
#include "interface/interface.h"
#include "standard/standard.h"

namespace {

// Largest output of the single-signal estimate: under about 2^22, a bit below the standard's.
constexpr std::int32_t kSingleHeadroom = 22;
// Common scale of the three-candidate energies: the maximum is shifted under 2^22 from 2^21.
constexpr std::int32_t kChoiceHeadroom = 21;
// Segments whose partial sums and 3^segments energies fit the fixed scratch (27 choices).
constexpr std::int32_t kFixedSegments = 3;
constexpr std::int32_t kFixedChoices = 27;

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
  const std::int32_t total = segment_count * segment_length;
  const std::int32_t b = fx::bit_count(total < 0 ? 0u : static_cast<std::uint64_t>(total));

  // Partial sums by frequency, then segment and version (index 3 x segment + version).
  std::int64_t fixed_cos[9 * 3 * kFixedSegments];
  std::int64_t fixed_sin[9 * 3 * kFixedSegments];
  std::int64_t fixed_energy[9 * kFixedChoices];
  std::vector<std::int64_t> wide_cos;
  std::vector<std::int64_t> wide_sin;
  std::vector<std::int64_t> wide_energy;
  std::int64_t* part_cos = fixed_cos;
  std::int64_t* part_sin = fixed_sin;
  std::int64_t* energy = fixed_energy;
  if (segments > kFixedSegments) {
    wide_cos.resize(9 * 3 * static_cast<std::size_t>(segments));
    wide_sin.resize(9 * 3 * static_cast<std::size_t>(segments));
    wide_energy.resize(9 * static_cast<std::size_t>(choices));
    part_cos = wide_cos.data();
    part_sin = wide_sin.data();
    energy = wide_energy.data();
  }
  const std::int32_t* versions[3] = {version_a, version_b, version_c};
  const std::int32_t stride = 3 * segments;
  for (std::int32_t k = 0; k < 9; ++k) {
    for (std::int32_t i = 0; i < segments; ++i) {
      const std::int32_t start = i * segment_length;
      for (std::int32_t v = 0; v < 3; ++v) {
        std::int64_t re = 0;
        std::int64_t im = 0;
        if (segment_length >= 1) {
          flicker_partial_sums(versions[v] + start, segment_length, k, start, re, im);
        }
        part_cos[k * stride + 3 * i + v] = re;
        part_sin[k * stride + 3 * i + v] = im;
      }
    }
  }

  // Choice q picks version (digit i of q in base 3) for segment i, segment 0 least significant.
  std::int32_t digit[kSonyMaxWindows] = {};
  std::int64_t largest = 0;
  for (std::uint32_t q = 0; q < choices; ++q) {
    for (std::int32_t k = 0; k < 9; ++k) {
      std::int64_t re = 0;
      std::int64_t im = 0;
      for (std::int32_t i = 0; i < segments; ++i) {
        re += part_cos[k * stride + 3 * i + digit[i]];
        im += part_sin[k * stride + 3 * i + digit[i]];
      }
      re = fx::rshift_round64(re, b - 1);
      im = fx::rshift_round64(im, b - 1);
      const std::int64_t e = fx::wrap_add64(fx::wrap_mul64(re, re), fx::wrap_mul64(im, im));
      energy[q * 9 + k] = e;
      if (e > largest) largest = e;
    }
    for (std::int32_t i = 0; i < segments; ++i) {
      if (++digit[i] < 3) break;
      digit[i] = 0;
    }
  }
  flicker_scale_candidates(energy, static_cast<std::int32_t>(9 * choices), largest,
                           kChoiceHeadroom);

  // The best frame score wins; ties keep the earlier choice (version_a everywhere first).
  std::int32_t best = INT32_MIN;
  for (std::uint32_t q = 0; q < choices; ++q) {
    std::int32_t scratch[9];
    for (std::int32_t k = 0; k < 9; ++k) scratch[k] = fx::low32(energy[q * 9 + k]);
    const std::int32_t score = get_current_llr(scratch, 9);
    if (score > best) {
      for (std::int32_t k = 0; k < 9; ++k) freq_out[k] = scratch[k];
      best = score;
    }
  }
}
