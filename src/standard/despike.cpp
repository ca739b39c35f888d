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

// Multiscale product: an edge is large at both levels, a ripple is not. The 32-bit product wraps
// for large details, and the spike measure is defined on the wrapped value. At a spike the two
// coarser details are deleted.
template <typename T>
void mark_spikes(const T* h1, T* h2, T* h3, std::int32_t n) {
  std::int32_t* product = flicker_despike_working_memory_h_tmp;
  std::int32_t* measure = flicker_despike_working_memory_h_mask;
  for (std::int32_t i = 0; i < n; ++i)
    product[i] = fx::wrap_mul32(fx::low32(h1[i]), fx::low32(h2[i]));
  convolve_analysis(product, n, measure, flicker_filter_s2, 4, 4, 1, 9, 1);
  // Every entry rewritten, the kept ones unchanged: the loop then vectorises.
  for (std::int32_t i = 0; i < n; ++i) {
    const T keep = fx::wrap_abs32(measure[i]) >= kSpikeThreshold ? 0 : -1;
    h2[i] &= keep;
    h3[i] &= keep;
  }
}

// Largest input magnitude, 2^13, for which no band leaves 32 bits: the deepest rebuild sums the
// smooth band's synthesis (16 x 4096 x the input) and the detail's (280 x 512 x the input), at
// most 208896 x 2^13 < 2^31 before its rounding shift. Log-ratio inputs are about 2^12.
constexpr std::int32_t kNarrowBits = 13;

bool NarrowRange(const std::int32_t* x, std::int32_t n) {
  std::uint32_t outside = 0;  // an OR over offset samples vectorises, a running maximum does not
  for (std::int32_t i = 0; i < n; ++i) {
    outside |= (static_cast<std::uint32_t>(x[i]) + (1u << kNarrowBits)) >> (kNarrowBits + 1);
  }
  return outside == 0;
}

void Widen(const std::int32_t* __restrict from, std::int32_t n, std::int64_t* __restrict to) {
#pragma GCC unroll 2
  for (std::int32_t i = 0; i < n; ++i) to[i] = from[i];
}

// The same despike with every band in 32 bits, for inputs NarrowRange admits: no sum can wrap, so
// each band holds the 64-bit path's values, and each is widened into its working memory once.
// The 64-bit kernels' extension buffers are left as the last calls of that path leave them.
// Without kMemories only the output is produced (the 64-bit working memories are not written).
template <bool kMemories>
void DespikeNarrow(const std::int32_t* input, std::int32_t* output, std::int32_t n) {
  // The bands that are filtered again keep room for their border extensions around them, so
  // the filters extend them in place instead of copying each into a scratch buffer.
  constexpr std::int32_t kRoom = kFilterPadRoom;
  constexpr std::int32_t kRoomy = kRoom + kDespikeSize + kRoom;
  static std::int32_t roomy[7][kRoomy];
  std::int32_t* const l1 = roomy[0] + kRoom;
  std::int32_t* const l2 = roomy[1] + kRoom;
  std::int32_t* const h2 = roomy[2] + kRoom;
  std::int32_t* const h3 = roomy[3] + kRoom;
  std::int32_t* const l3 = roomy[4] + kRoom;
  std::int32_t* const l3r = roomy[5] + kRoom;
  std::int32_t* const l2r = roomy[6] + kRoom;
  static std::int32_t h1[kDespikeSize], smooth[kDespikeSize], detail[kDespikeSize];
  static std::int32_t work[kFilterWorkSize];  // the input's extension
  std::int32_t* x = const_cast<std::int32_t*>(input);
  const auto keep = [n]([[maybe_unused]] const std::int32_t* band,
                        [[maybe_unused]] std::int64_t* memory) {
    if constexpr (kMemories) Widen(band, n, memory);
  };

  keep(input, flicker_despike_working_memory_input1);
  convolve_analysis_into(x, n, h1, flicker_filter_h, 0, 1, 1, 0, 1, work);
  convolve_analysis_into(x, n, l1, flicker_filter_s, 2, 2, 1, 0, 1, work);
  convolve_analysis_into(l1, n, h2, flicker_filter_h, 0, 1, 2, 0, 1, nullptr);
  convolve_analysis_into(l1, n, l2, flicker_filter_s, 2, 2, 2, 0, 1, nullptr);
  convolve_analysis_into(l2, n, h3, flicker_filter_h, 0, 1, 4, 0, 1, nullptr);
  convolve_analysis_into(l2, n, l3, flicker_filter_s, 2, 2, 4, 0, 1, nullptr);
  keep(h1, flicker_despike_working_memory_h1);
  keep(l1, flicker_despike_working_memory_l1);
  keep(l2, flicker_despike_working_memory_l2);
  keep(l3, flicker_despike_working_memory_l3);

  mark_spikes(h1, h2, h3, n);
  keep(h2, flicker_despike_working_memory_h2);
  keep(h3, flicker_despike_working_memory_h3);

  convolve_synthesis_into(l3, n, smooth, flicker_filter_s, 2, 2, 4, 0, nullptr);
  convolve_synthesis_into(h3, n, detail, flicker_filter_q, 4, 3, 4, 0, nullptr);
  for (std::int32_t i = 0; i < n; ++i) l3r[i] = fx::round8_32(smooth[i] + detail[i]);
  keep(detail, flicker_despike_working_memory_h3r);
  keep(l3r, flicker_despike_working_memory_l3r);
  convolve_synthesis_into(l3r, n, smooth, flicker_filter_s, 2, 2, 2, 0, nullptr);
  convolve_synthesis_into(h2, n, detail, flicker_filter_q, 4, 3, 2, 0, nullptr);
  for (std::int32_t i = 0; i < n; ++i) l2r[i] = fx::round8_32(smooth[i] + detail[i]);
  keep(detail, flicker_despike_working_memory_h2r);
  keep(l2r, flicker_despike_working_memory_l2r);
  convolve_synthesis_into(l2r, n, smooth, flicker_filter_s, 2, 2, 1, 0, nullptr);
  keep(smooth, flicker_despike_working_memory_l1r);
  for (std::int32_t i = 0; i < n; ++i) output[i] = fx::round8_32(smooth[i]);

  // The 64-bit path's last analysis extends l2 at dilation 4; its last synthesis calls extend h3
  // and h2 (the longest pads, whose tails outlast the shorter ones) and then l2r.
  if constexpr (kMemories) {
    convolve_analysis_extend(flicker_despike_working_memory_l2, n, 2, 2, 4);
    convolve_synthesis_extend(flicker_despike_working_memory_h3, n, 4, 3, 4);
    convolve_synthesis_extend(flicker_despike_working_memory_h2, n, 4, 3, 2);
    convolve_synthesis_extend(flicker_despike_working_memory_l2r, n, 2, 2, 1);
  }
}

}  // namespace

void flicker_despike(std::int32_t* input, std::int32_t* output, std::int32_t n) {
  if (n < 1) return;
  if (n < kMinDespikeLen || n > kDespikeSize) {
    LogRefusalFlk("flicker_despike", "%d samples outside %d..%d", n, kMinDespikeLen, kDespikeSize);
    return;
  }
  if (NarrowRange(input, n)) return DespikeNarrow<true>(input, output, n);
  std::int64_t* x = flicker_despike_working_memory_input1;
  std::int64_t* h1 = flicker_despike_working_memory_h1;
  std::int64_t* l1 = flicker_despike_working_memory_l1;
  std::int64_t* h2 = flicker_despike_working_memory_h2;
  std::int64_t* l2 = flicker_despike_working_memory_l2;
  std::int64_t* h3 = flicker_despike_working_memory_h3;
  std::int64_t* l3 = flicker_despike_working_memory_l3;

  // The input is read here only, so output may alias it.
  for (std::int32_t i = 0; i < n; ++i) x[i] = input[i];

  // Scales: l1 16x, l2 256x, l3 4096x the input; h1 1x, h2 16x, h3 256x. 64-bit: at most
  // 2^31 x 16^4 in the rebuild, far inside the range.
  split(x, n, 1, h1, l1);
  split(l1, n, 2, h2, l2);
  split(l2, n, 4, h3, l3);

  mark_spikes(h1, h2, h3, n);

  std::int64_t* l3r = flicker_despike_working_memory_l3r;
  std::int64_t* l2r = flicker_despike_working_memory_l2r;
  std::int64_t* l1r = flicker_despike_working_memory_l1r;
  merge(l3, h3, n, 4, flicker_despike_working_memory_h3r, l3r);   // 256x
  merge(l3r, h2, n, 2, flicker_despike_working_memory_h2r, l2r);  // 16x
  // The finest detail h1 only served the spike measure: it is dropped, not added back.
  convolve_synthesis(l2r, n, l1r, flicker_filter_s, 2, 2, 1, 0);  // 256x
  for (std::int32_t i = 0; i < n; ++i) output[i] = fx::low32(fx::round8_64(l1r[i]));
}

void flicker_despike_output_only(std::int32_t* input, std::int32_t* output, std::int32_t n) {
  if (n >= kMinDespikeLen && n <= kDespikeSize && NarrowRange(input, n)) {
    return DespikeNarrow<false>(input, output, n);
  }
  flicker_despike(input, output, n);
}
