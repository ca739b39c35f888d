// SPDX-License-Identifier: Apache-2.0
// Standard despike: three-level undecimated wavelet split, multiscale-product spike test, rebuild.
#include "standard/standard.h"

#include "filterbank/filterbank.h"
#include "fixed_point.h"
#include "interface/interface.h"

std::int64_t flicker_despike_working_memory_input1[kDespikeSize];
std::int64_t flicker_despike_working_memory_h1[kDespikeSize];
std::int64_t flicker_despike_working_memory_l1[kDespikeSize];
std::int64_t flicker_despike_working_memory_h2[kDespikeSize];
std::int64_t flicker_despike_working_memory_l2[kDespikeSize];
std::int64_t flicker_despike_working_memory_h3[kDespikeSize];
std::int64_t flicker_despike_working_memory_l3[kDespikeSize];
std::int32_t flicker_despike_working_memory_h_tmp[kDespikeSize];
std::int32_t flicker_despike_working_memory_h_mask[kDespikeSize];
std::int64_t flicker_despike_working_memory_h3r[kDespikeSize];
std::int64_t flicker_despike_working_memory_h2r[kDespikeSize];
std::int64_t flicker_despike_working_memory_l3r[kDespikeSize];
std::int64_t flicker_despike_working_memory_l2r[kDespikeSize];
std::int64_t flicker_despike_working_memory_l1r[kDespikeSize];

namespace {

// The level-3 detail synthesis mirrors 14 samples at each end (dilation 4 of the 8-tap
// antisymmetric filter); a shorter signal has no such mirror.
constexpr std::int32_t kMinDespikeLen = 14;
// |smoothed h1 x h2| at or above this marks a spike: a nine-sample product sum of 114944.
constexpr std::int32_t kSpikeThreshold = 225;

// Undecimated split of x at dilation d: detail h = x[i + d/2] - x[i - d/2] (first difference
// at d = 1), smooth l = (1 4 6 4 1) at spacing d, gain 16, no shift.
void split(std::int64_t* x, std::int32_t n, std::int32_t d, std::int64_t* h, std::int64_t* l) {
  convolve_analysis(x, n, h, flicker_filter_h, 0, 1, d, 0, 1);
  convolve_analysis(x, n, l, flicker_filter_s, 2, 2, d, 0, 1);
}

// One rebuild step: smooth (gain 16) plus the synthesised detail, back down by 256 so the band
// ends 16 x below its smooth input's scale.
void merge(std::int64_t* smooth, std::int64_t* detail, std::int32_t n, std::int32_t d,
           std::int64_t* detail_r, std::int64_t* out) {
  convolve_synthesis(smooth, n, out, flicker_filter_s, 2, 2, d, 0);
  convolve_synthesis(detail, n, detail_r, flicker_filter_q, 4, 3, d, 0);
  for (std::int32_t i = 0; i < n; ++i) out[i] = fx::round8_64(out[i] + detail_r[i]);
}

}  // namespace

void flicker_despike(std::int32_t* input, std::int32_t* output, std::int32_t n) {
  if (n < 1) return;
  if (n < kMinDespikeLen || n > kDespikeSize) {
    LogRefusalFlk("flicker_despike", "%d samples outside %d..%d", n, kMinDespikeLen, kDespikeSize);
    return;
  }
  std::int64_t* x = flicker_despike_working_memory_input1;
  std::int64_t* h1 = flicker_despike_working_memory_h1;
  std::int64_t* l1 = flicker_despike_working_memory_l1;
  std::int64_t* h2 = flicker_despike_working_memory_h2;
  std::int64_t* l2 = flicker_despike_working_memory_l2;
  std::int64_t* h3 = flicker_despike_working_memory_h3;
  std::int64_t* l3 = flicker_despike_working_memory_l3;
  std::int32_t* product = flicker_despike_working_memory_h_tmp;
  std::int32_t* measure = flicker_despike_working_memory_h_mask;

  // The input is read here only, so output may alias it.
  for (std::int32_t i = 0; i < n; ++i) x[i] = input[i];

  // Scales: l1 16x, l2 256x, l3 4096x the input; h1 1x, h2 16x, h3 256x. 64-bit: at most
  // 2^31 x 16^4 in the rebuild, far inside the range.
  split(x, n, 1, h1, l1);
  split(l1, n, 2, h2, l2);
  split(l2, n, 4, h3, l3);

  // Multiscale product: an edge is large at both levels, a ripple is not. The 32-bit product
  // wraps for large details, and the spike measure is defined on the wrapped value.
  for (std::int32_t i = 0; i < n; ++i) {
    product[i] = fx::wrap_mul32(fx::low32(h1[i]), fx::low32(h2[i]));
  }
  convolve_analysis(product, n, measure, flicker_filter_s2, 4, 4, 1, 9, 1);
  for (std::int32_t i = 0; i < n; ++i) {
    if (fx::wrap_abs32(measure[i]) >= kSpikeThreshold) {
      h2[i] = 0;
      h3[i] = 0;
    }
  }

  std::int64_t* l3r = flicker_despike_working_memory_l3r;
  std::int64_t* l2r = flicker_despike_working_memory_l2r;
  std::int64_t* l1r = flicker_despike_working_memory_l1r;
  merge(l3, h3, n, 4, flicker_despike_working_memory_h3r, l3r);   // 256x
  merge(l3r, h2, n, 2, flicker_despike_working_memory_h2r, l2r);  // 16x
  // The finest detail h1 only served the spike measure: it is dropped, not added back.
  convolve_synthesis(l2r, n, l1r, flicker_filter_s, 2, 2, 1, 0);  // 256x
  for (std::int32_t i = 0; i < n; ++i) output[i] = fx::low32(fx::round8_64(l1r[i]));
}
