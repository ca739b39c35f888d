// SPDX-License-Identifier: Apache-2.0
// Frequency estimation: energies at the nine candidate frequencies, junction interpolation and the
// two-candidate robust estimate.
#include "standard/standard.h"

#include "fixed_point.h"

void flicker_partial_sums(const std::int32_t* signal, std::int32_t length, std::int32_t k,
                          std::int32_t column, std::int64_t& re, std::int64_t& im) {
  const std::int32_t* cos_row = g_flkTab1 + k * g_flkTabW + column;
  const std::int32_t* sin_row = g_flkTab2 + k * g_flkTabW + column;
  // 64-bit: 32-bit samples times entries of at most 255, over at most 12000 samples.
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
  const std::int64_t h = max_energy >> headroom;
  const std::int32_t p = h <= 1 ? 0 : fx::bit_count(static_cast<std::uint64_t>(h)) - 1;
  if (p <= 0) return;
  for (std::int32_t i = 0; i < count; ++i) energies[i] = fx::rshift_round64(energies[i], p);
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
    if (steps >= 2) {
      const std::int32_t s0 = pos + len - 1 + (a < 0 ? a : 0);  // last good sample before the gap
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
