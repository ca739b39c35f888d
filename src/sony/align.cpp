// SPDX-License-Identifier: Apache-2.0
// SONY sub-pixel alignment: quarter-sample shifts scored on Laplacians of the log vectors.
#include "sony/sony.h"

#include "fixed_point.h"

std::int32_t ovector_out_tmp_working_memory[2000];
std::int32_t cvector_out_tmp_working_memory[2000];

void convolve_Laplacian_filter_SONY(std::int32_t* in, std::int32_t* out, std::int32_t n) {
  using fx::wrap_add32;
  using fx::wrap_mul32;
  if (n < 1) return;
  if (n < 4) {
    // Shorter than the end rows assume: mirror about the ends (x[-1] = x[0], x[-2] = x[1], ...)
    // with the reflected index kept inside the vector.
    auto at = [&](std::int32_t i) {
      if (i < 0) i = -i - 1;
      if (i >= n) i = 2 * n - 1 - i;
      return in[fx::clamp32(i, 0, n - 1)];
    };
    for (std::int32_t i = 0; i < n; ++i) {
      out[i] = wrap_add32(wrap_add32(wrap_add32(at(i - 2), at(i - 1)), wrap_mul32(-4, at(i))),
                          wrap_add32(at(i + 1), at(i + 2)));
    }
    return;
  }
  out[0] = wrap_add32(wrap_add32(wrap_mul32(-3, in[0]), wrap_mul32(2, in[1])), in[2]);
  out[1] = wrap_add32(wrap_add32(wrap_mul32(2, in[0]), wrap_mul32(-4, in[1])),
                      wrap_add32(in[2], in[3]));
  for (std::int32_t i = 2; i < n - 2; ++i) {
    out[i] = wrap_add32(wrap_add32(wrap_add32(in[i - 2], in[i - 1]), wrap_mul32(-4, in[i])),
                        wrap_add32(in[i + 1], in[i + 2]));
  }
  out[n - 2] = wrap_add32(wrap_add32(in[n - 4], in[n - 3]),
                          wrap_add32(wrap_mul32(-4, in[n - 2]), wrap_mul32(2, in[n - 1])));
  out[n - 1] = wrap_add32(wrap_add32(in[n - 3], wrap_mul32(2, in[n - 2])), wrap_mul32(-3, in[n - 1]));
}

void subpixel_shift_vec_SONY(std::int32_t* in, std::int32_t* out, std::int32_t n,
                             std::int32_t shift, std::int32_t den) {
  using fx::wrap_add32;
  using fx::wrap_mul32;
  if (n < 1) return;
  if (shift == 0) {
    for (std::int32_t i = 0; i < n; ++i) out[i] = in[i];
    return;
  }
  const std::int32_t a = fx::wrap_abs32(shift);
  const std::int32_t q_raw = fx::div_trunc(a, den);  // den = 0 divides to 0
  const std::int32_t r = fx::wrap_sub32(a, wrap_mul32(q_raw, den));
  // A whole-vector shift (or a negative quotient from den < 0) only repeats edge samples: keep
  // every index inside the vector.
  const std::int32_t q = fx::clamp32(q_raw, 0, n);
  const std::int32_t half = den / 2;
  if (r != 0) {
    const std::int32_t inner = n - q - 1;  // interpolated outputs
    if (shift > 0) {
      for (std::int32_t k = 0; k < inner; ++k) {
        const std::int32_t mix = wrap_add32(wrap_add32(half, wrap_mul32(in[q + k], den - r)),
                                            wrap_mul32(in[q + k + 1], r));
        out[k] = fx::div_trunc(mix, den);
      }
      for (std::int32_t k = inner < 0 ? 0 : inner; k < n; ++k) out[k] = in[n - 1];
    } else {
      const std::int32_t lead = q + 1 < n ? q + 1 : n;
      for (std::int32_t k = 0; k < lead; ++k) out[k] = in[0];
      for (std::int32_t k = 0; k < inner; ++k) {
        const std::int32_t mix = wrap_add32(wrap_add32(half, wrap_mul32(in[k], r)),
                                            wrap_mul32(in[k + 1], den - r));
        out[q + 1 + k] = fx::div_trunc(mix, den);
      }
    }
    return;
  }
  if (shift > 0) {
    for (std::int32_t k = 0; k < n - q; ++k) out[k] = in[q + k];
    for (std::int32_t k = n - q; k < n; ++k) out[k] = in[n - 1];
  } else {
    for (std::int32_t k = 0; k < q; ++k) out[k] = in[0];
    for (std::int32_t k = q; k < n; ++k) out[k] = in[k - q];
  }
}
