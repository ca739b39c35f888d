// SPDX-License-Identifier: Apache-2.0
// The filter bank's kernels: border extension, dilated correlation, rounding shift.
#include "filterbank/filterbank.h"

#include <type_traits>
#include <utility>

#include "fixed_point.h"

std::int32_t convolve_analysis_working_memory_32[kFilterWorkSize];
std::int64_t convolve_analysis_working_memory_64[kFilterWorkSize];
std::int32_t convolve_synthesis_working_memory_32[kFilterWorkSize];
std::int64_t convolve_synthesis_working_memory_64[kFilterWorkSize];

namespace {

// Border extensions. Analysis always mirrors half-sample symmetrically (the edge sample repeats);
// synthesis does so only for symmetric tap layouts. The antisymmetric synthesis filter at d >= 2
// mirrors with negation on both sides; at d = 1 the two sides differ on purpose: the left side
// inserts a zero before the negated mirror, the right side skips the edge sample instead.
enum class Border { kSymmetric, kAntisymmetric, kZeroInsert };

// Sample arithmetic in the kernel's width: 32-bit wraps deliberately, 64-bit cannot overflow for
// statistics-range inputs but goes through the same wrapping helpers so nothing is undefined.
inline std::int32_t Negate(std::int32_t v) {
  return fx::wrap_neg32(v);
}
inline std::int64_t Negate(std::int64_t v) {
  return fx::wrap_mul64(v, -1);
}
inline std::int32_t MulAdd(std::int32_t acc, std::int32_t tap, std::int32_t v) {
  return fx::wrap_add32(acc, fx::wrap_mul32(tap, v));
}
inline std::int64_t MulAdd(std::int64_t acc, std::int32_t tap, std::int64_t v) {
  return fx::wrap_add64(acc, fx::wrap_mul64(tap, v));
}
inline std::int32_t RoundShift(std::int32_t v, std::int32_t s) {
  return fx::rshift_round32(v, s);
}
inline std::int64_t RoundShift(std::int64_t v, std::int32_t s) {
  return fx::rshift_round64(v, s);
}

struct Layout {
  std::int32_t left_pad;
  std::int32_t right_pad;
  bool centred;  // c = 0: no half-dilation offset of the centre tap
};

// Centre offset c = d >> 1 (negated when R > L) for asymmetric filters; pads P = dL - c and
// Q = dR + c.
Layout LayoutOf(std::int32_t L, std::int32_t R, std::int32_t d) {
  std::int32_t c = 0;
  if (L != R) {
    c = d >> 1;
    if (R > L) c = -c;
  }
  return {d * L - c, d * R + c, c == 0};
}

// An extended copy longer than the working memory, negative tap counts, dilations or shifts are
// never asked for by the pipelines; such calls write nothing.
template <typename W>
bool Acceptable(std::int32_t n, std::int32_t L, std::int32_t R, std::int32_t d, std::int32_t s,
                const Layout& layout) {
  constexpr std::int32_t kMaxShift = static_cast<std::int32_t>(sizeof(W) * 8 - 2);
  if (n < 1 || L < 0 || R < 0 || d < 0 || s < 0 || s > kMaxShift) return false;
  if (layout.left_pad < 0 || layout.right_pad < 0) return false;
  return static_cast<std::int64_t>(layout.left_pad) + n + layout.right_pad <= kFilterWorkSize;
}

// Mirror source index kept inside the signal: only a signal shorter than its pad needs this, and
// there the edge sample is repeated instead of reading past the input.
inline std::int32_t Inside(std::int32_t i, std::int32_t n) {
  return fx::clamp32(i, 0, n - 1);
}

// Fills work[0 .. P + n + Q - 1] with the border-extended input.
template <typename In, typename W>
void Extend(const In* x, std::int32_t n, W* work, const Layout& layout, Border border) {
  const std::int32_t P = layout.left_pad;
  const std::int32_t Q = layout.right_pad;
  if constexpr (std::is_same_v<In, W>) {
    if (work + P != x) fx::copy_forward(x, n, work + P);  // else extended in place
  } else {
#pragma GCC unroll 4
    for (std::int32_t j = 0; j < n; ++j) work[P + j] = static_cast<W>(x[j]);
  }
  switch (border) {
    case Border::kSymmetric:
      if (P <= n && Q <= n) {  // the usual case: no mirror index leaves the signal
        for (std::int32_t m = 0; m < P; ++m) work[P - 1 - m] = static_cast<W>(x[m]);
        for (std::int32_t m = 0; m < Q; ++m) work[P + n + m] = static_cast<W>(x[n - 1 - m]);
        break;
      }
      for (std::int32_t m = 0; m < P; ++m) work[P - 1 - m] = static_cast<W>(x[Inside(m, n)]);
      for (std::int32_t m = 0; m < Q; ++m) {
        work[P + n + m] = static_cast<W>(x[Inside(n - 1 - m, n)]);
      }
      break;
    case Border::kAntisymmetric:
      for (std::int32_t m = 0; m < P; ++m) {
        work[P - 1 - m] = Negate(static_cast<W>(x[Inside(m, n)]));
      }
      for (std::int32_t m = 0; m < Q; ++m) {
        work[P + n + m] = Negate(static_cast<W>(x[Inside(n - 1 - m, n)]));
      }
      break;
    case Border::kZeroInsert:
      if (P >= 1) {
        work[P - 1] = 0;
        for (std::int32_t m = 0; m < P - 1; ++m) {
          work[P - 2 - m] = Negate(static_cast<W>(x[Inside(m, n)]));
        }
      }
      for (std::int32_t m = 0; m < Q; ++m) {
        work[P + n + m] = Negate(static_cast<W>(x[Inside(n - 2 - m, n)]));
      }
      break;
  }
}

// a[i] (+)= tap x v[i] in wrapping 32-bit words, where v[i] is x1[i], or x1[i] +- x2[i] for a
// pair of taps of equal or opposite weight. The filters' taps are mostly +-1 and powers of two,
// and the baseline ISA has no 32-bit vector multiply: those taps add, subtract or shift instead
// (the same words, wrapping included).
enum class Fold { kNone, kSum, kDifference };

template <bool kFirst, Fold kFold, typename Scale>
void AccumulateAs(std::int32_t* __restrict a, const std::int32_t* __restrict x1,
                  const std::int32_t* __restrict x2, std::int32_t n, Scale scale) {
  for (std::int32_t i = 0; i < n; ++i) {
    std::int32_t v = x1[i];
    if constexpr (kFold == Fold::kSum) v = fx::wrap_add32(v, x2[i]);
    if constexpr (kFold == Fold::kDifference) v = fx::wrap_sub32(v, x2[i]);
    a[i] = kFirst ? scale(v) : fx::wrap_add32(a[i], scale(v));
  }
}

template <bool kFirst, Fold kFold>
void Accumulate(std::int32_t* __restrict a, const std::int32_t* x1, const std::int32_t* x2,
                std::int32_t n, std::int32_t tap) {
  if (tap == 0 && !kFirst) return;
  if (tap == 1) return AccumulateAs<kFirst, kFold>(a, x1, x2, n, [](std::int32_t v) { return v; });
  if (tap == -1) {
    return AccumulateAs<kFirst, kFold>(a, x1, x2, n,
                                       [](std::int32_t v) { return fx::wrap_neg32(v); });
  }
  if (tap > 0 && (tap & (tap - 1)) == 0) {
    const int k = fx::bit_count(static_cast<std::uint64_t>(tap)) - 1;
    return AccumulateAs<kFirst, kFold>(a, x1, x2, n,
                                       [k](std::int32_t v) { return fx::wrap_shl32(v, k); });
  }
  AccumulateAs<kFirst, kFold>(a, x1, x2, n,
                              [tap](std::int32_t v) { return fx::wrap_mul32(tap, v); });
}

// The same sums in one pass for a filter known when compiling: the constant taps become shifts
// and adds and the sum stays in a register, where the general form below takes a pass per tap
// pair with a multiply the baseline ISA lacks. The tables are writable, so a call takes this
// form only while its taps still hold these values.
template <std::int32_t... kH, std::int32_t... kT>
void SumsKnownPass(const std::int32_t* __restrict x, std::int32_t n, std::int32_t* __restrict a,
                   std::int32_t d, std::integer_sequence<std::int32_t, kT...>) {
  constexpr std::int32_t kTaps[] = {kH...};
  constexpr std::int32_t kCount = sizeof...(kH);
  constexpr bool kSymmetric = ((kTaps[kT] == kTaps[kCount - 1 - kT]) && ...);
  constexpr bool kAntisymmetric = ((kTaps[kT] == -kTaps[kCount - 1 - kT]) && ...);
  // One pointer per tap keeps every load contiguous in i, and the body straight-line.
  const std::int32_t* __restrict at[] = {(x + kT * d)...};
  for (std::int32_t i = 0; i < n; ++i) {
    std::int32_t acc = 0;
    if constexpr (kSymmetric || kAntisymmetric) {
      // A mirrored pair of taps: one product of the pair's sum or difference (the same word).
      const auto pair = [&](std::int32_t t) {
        return kSymmetric ? fx::wrap_add32(at[t][i], at[kCount - 1 - t][i])
                          : fx::wrap_sub32(at[t][i], at[kCount - 1 - t][i]);
      };
      ((acc = kT < kCount / 2 ? fx::wrap_add32(acc, fx::wrap_mul32(kTaps[kT], pair(kT))) : acc),
       ...);
      if constexpr (kCount % 2 == 1 && kSymmetric) {
        acc = fx::wrap_add32(acc, fx::wrap_mul32(kTaps[kCount / 2], at[kCount / 2][i]));
      }
    } else {
      ((acc = fx::wrap_add32(acc, fx::wrap_mul32(kH, at[kT][i]))), ...);
    }
    a[i] = acc;
  }
}

template <std::int32_t... kH>
bool SumsKnown(const std::int32_t* x, std::int32_t n, std::int32_t* a, const std::int32_t* h,
               std::int32_t taps, std::int32_t d) {
  constexpr std::int32_t kTaps[] = {kH...};
  constexpr std::int32_t kCount = sizeof...(kH);
  if (taps != kCount) return false;
  for (std::int32_t t = 0; t < kCount; ++t) {
    if (h[t] != kTaps[t]) return false;
  }
  SumsKnownPass<kH...>(x, n, a, d, std::make_integer_sequence<std::int32_t, kCount>{});
  return true;
}

// Wrapping sums a[i] = sum_t h[t] * x[i + t * d] over taps >= 1 taps; wrapping sums do not
// depend on their order, so these are the words of a per-output loop. The smoothing filters are
// symmetric and the detail ones antisymmetric: h[t] x (x1 +- x2) for each mirrored pair of taps
// is the same word as the two products summed, in half the passes and multiplies.
void Sums32(const std::int32_t* x, std::int32_t n, std::int32_t* a, const std::int32_t* h,
            std::int32_t taps, std::int32_t d) {
  if (SumsKnown<1, 4, 6, 4, 1>(x, n, a, h, taps, d) ||
      SumsKnown<1, 9, 37, 93, -93, -37, -9, -1>(x, n, a, h, taps, d) ||
      SumsKnown<-1, 1>(x, n, a, h, taps, d) ||
      SumsKnown<1, 1, 1, 1, 1, 1, 1, 1, 1>(x, n, a, h, taps, d)) {
    return;
  }
  bool symmetric = true;
  bool antisymmetric = true;
  for (std::int32_t t = 0; t < taps; ++t) {
    symmetric = symmetric && h[t] == h[taps - 1 - t];
    antisymmetric = antisymmetric && h[t] == fx::wrap_neg32(h[taps - 1 - t]);
  }
  if (taps < 2 || !(symmetric || antisymmetric)) {
    Accumulate<true, Fold::kNone>(a, x, nullptr, n, h[0]);
    for (std::int32_t t = 1; t < taps; ++t) {
      Accumulate<false, Fold::kNone>(a, x + t * d, nullptr, n, h[t]);
    }
    return;
  }
  const std::int32_t last = taps - 1;
  if (symmetric) {
    Accumulate<true, Fold::kSum>(a, x, x + last * d, n, h[0]);
    for (std::int32_t t = 1; t < taps / 2; ++t) {
      Accumulate<false, Fold::kSum>(a, x + t * d, x + (last - t) * d, n, h[t]);
    }
  } else {
    Accumulate<true, Fold::kDifference>(a, x, x + last * d, n, h[0]);
    for (std::int32_t t = 1; t < taps / 2; ++t) {
      Accumulate<false, Fold::kDifference>(a, x + t * d, x + (last - t) * d, n, h[t]);
    }
  }
  // The middle tap of an odd count (0 in an antisymmetric filter, and then skipped).
  if (taps % 2 == 1) Accumulate<false, Fold::kNone>(a, x + (taps / 2) * d, nullptr, n, h[taps / 2]);
}

// y[k] = round(sum_t h[t] * work[i + t * d], s) for i = k * step; a correlation (taps in table
// order on increasing positions).
template <typename W, typename Out>
void Correlate(const W* work, std::int32_t n, Out* y, const std::int32_t* h, std::int32_t taps,
               std::int32_t d, std::int32_t s, std::int32_t step) {
  if constexpr (sizeof(W) == 4) {
    if (step == 1) {
      // Every output at once, tap by tap: contiguous loops the compiler vectorises (32-bit only:
      // the baseline ISA has no 64-bit vector multiply, and the scalar form is cheaper). Wrapping
      // sums do not depend on their order, so the outputs are those of the loop below.
      if constexpr (std::is_same_v<Out, std::int32_t>) {
        // 32-bit outputs are summed in place: y never overlaps the extended copy it reads.
        Sums32(work, n, y, h, taps, d);
        if (s != 0) {
          for (std::int32_t i = 0; i < n; ++i) y[i] = RoundShift(y[i], s);
        }
        return;
      }
      static W acc[kFilterWorkSize];
      W* __restrict a = acc;
      Sums32(work, n, a, h, taps, d);
      if (s == 0) {
        for (std::int32_t i = 0; i < n; ++i) y[i] = static_cast<Out>(a[i]);
      } else {
        for (std::int32_t i = 0; i < n; ++i) y[i] = static_cast<Out>(RoundShift(a[i], s));
      }
      return;
    }
  }
  std::int32_t k = 0;
  for (std::int32_t i = 0; i < n; i += step) {
    W acc = 0;
    const W* window = work + i;
    for (std::int32_t t = 0; t < taps; ++t) acc = MulAdd(acc, h[t], window[t * d]);
    y[k++] = static_cast<Out>(s == 0 ? acc : RoundShift(acc, s));
  }
}

// 64-bit correlation in 32 bits when a range check proves it exact: with every extended sample
// and the sum of the taps' magnitudes bounded so that |sum| <= max|x| * sum|h| < 2^31, no
// product or partial sum leaves 32 bits, and the narrow loop vectorises (the 64-bit one cannot
// on the baseline ISA). Statistics ratios (about 2^12, at most 4096x that in the deepest
// wavelet band) always take it; anything larger keeps the 64-bit loop.
template <typename Out>
bool CorrelateNarrow(const std::int64_t* work, std::int32_t len, std::int32_t n, Out* y,
                     const std::int32_t* h, std::int32_t taps, std::int32_t d, std::int32_t s) {
  std::int64_t gain = 0;
  for (std::int32_t t = 0; t < taps; ++t) gain += h[t] < 0 ? -std::int64_t{h[t]} : h[t];
  // Largest power of two 2^m with gain x 2^m < 2^31; every sample in [-2^m, 2^m) then keeps
  // the sums in 32 bits. The test is an OR over offset samples, which vectorises.
  std::int32_t m = 30;
  while (m > 0 && gain > (INT32_MAX >> m)) --m;
  const std::uint64_t offset = std::uint64_t{1} << m;
  std::uint64_t outside = 0;
  for (std::int32_t i = 0; i < len; ++i) {
    outside |= (static_cast<std::uint64_t>(work[i]) + offset) >> (m + 1);
  }
  if (outside != 0 || gain > (INT32_MAX >> m)) return false;

  static std::int32_t narrow[kFilterWorkSize];
  static std::int32_t acc[kFilterWorkSize];
  std::int32_t* __restrict x = narrow;
  std::int32_t* __restrict a = acc;
  for (std::int32_t i = 0; i < len; ++i) x[i] = static_cast<std::int32_t>(work[i]);
  Sums32(x, n, a, h, taps, d);
  if (s == 0) {
    for (std::int32_t i = 0; i < n; ++i) y[i] = a[i];
  } else {
    for (std::int32_t i = 0; i < n; ++i) y[i] = RoundShift(std::int64_t{a[i]}, s);
  }
  return true;
}

template <typename In, typename W, typename Out>
void Analysis(In* x, std::int32_t n, Out* y, std::int32_t* h, std::int32_t L, std::int32_t R,
              std::int32_t d, std::int32_t s, std::int32_t step, W* work) {
  const Layout layout = LayoutOf(L, R, d);
  if (step < 1 || !Acceptable<W>(n, L, R, d, s, layout)) return;
  Extend(x, n, work, layout, Border::kSymmetric);
  if constexpr (sizeof(W) == 8) {
    const std::int32_t len = layout.left_pad + n + layout.right_pad;
    if (step == 1 && CorrelateNarrow(work, len, n, y, h, L + R + 1, d, s)) return;
  }
  Correlate(work, n, y, h, L + R + 1, d, s, step);
}

template <typename In, typename W, typename Out>
void Synthesis(In* x, std::int32_t n, Out* y, std::int32_t* h, std::int32_t L, std::int32_t R,
               std::int32_t d, std::int32_t s, W* work) {
  const Layout layout = LayoutOf(L, R, d);
  if (!Acceptable<W>(n, L, R, d, s, layout)) return;
  Border border = Border::kSymmetric;
  if (L != R) border = layout.centred ? Border::kZeroInsert : Border::kAntisymmetric;
  Extend(x, n, work, layout, border);
  if constexpr (sizeof(W) == 8) {
    const std::int32_t len = layout.left_pad + n + layout.right_pad;
    if (CorrelateNarrow(work, len, n, y, h, L + R + 1, d, s)) return;
  }
  Correlate(work, n, y, h, L + R + 1, d, s, 1);
}

}  // namespace

void convolve_analysis(std::int32_t* x, std::int32_t n, std::int32_t* y, std::int32_t* h,
                       std::int32_t L, std::int32_t R, std::int32_t d, std::int32_t s,
                       std::int32_t step) {
  Analysis(x, n, y, h, L, R, d, s, step, convolve_analysis_working_memory_32);
}

void convolve_analysis(std::int64_t* x, std::int32_t n, std::int64_t* y, std::int32_t* h,
                       std::int32_t L, std::int32_t R, std::int32_t d, std::int32_t s,
                       std::int32_t step) {
  Analysis(x, n, y, h, L, R, d, s, step, convolve_analysis_working_memory_64);
}

void convolve_synthesis(std::int32_t* x, std::int32_t n, std::int32_t* y, std::int32_t* h,
                        std::int32_t L, std::int32_t R, std::int32_t d, std::int32_t s) {
  Synthesis(x, n, y, h, L, R, d, s, convolve_synthesis_working_memory_32);
}

void convolve_synthesis(std::int64_t* x, std::int32_t n, std::int64_t* y, std::int32_t* h,
                        std::int32_t L, std::int32_t R, std::int32_t d, std::int32_t s) {
  Synthesis(x, n, y, h, L, R, d, s, convolve_synthesis_working_memory_64);
}

namespace {

// The start of the extension around x for a filter of this layout, or null when its pads do not
// fit the room x keeps.
std::int32_t* InPlace(std::int32_t* x, std::int32_t L, std::int32_t R, std::int32_t d) {
  const Layout layout = LayoutOf(L, R, d);
  if (layout.left_pad < 0 || layout.left_pad > kFilterPadRoom || layout.right_pad < 0 ||
      layout.right_pad > kFilterPadRoom) {
    return nullptr;
  }
  return x - layout.left_pad;
}

}  // namespace

void convolve_analysis_into(std::int32_t* x, std::int32_t n, std::int32_t* y, std::int32_t* h,
                            std::int32_t L, std::int32_t R, std::int32_t d, std::int32_t s,
                            std::int32_t step, std::int32_t* work) {
  if (work == nullptr) work = InPlace(x, L, R, d);
  if (work != nullptr) Analysis(x, n, y, h, L, R, d, s, step, work);
}

void convolve_synthesis_into(std::int32_t* x, std::int32_t n, std::int32_t* y, std::int32_t* h,
                             std::int32_t L, std::int32_t R, std::int32_t d, std::int32_t s,
                             std::int32_t* work) {
  if (work == nullptr) work = InPlace(x, L, R, d);
  if (work != nullptr) Synthesis(x, n, y, h, L, R, d, s, work);
}

void convolve_analysis_extend(const std::int64_t* x, std::int32_t n, std::int32_t L, std::int32_t R,
                              std::int32_t d) {
  const Layout layout = LayoutOf(L, R, d);
  if (!Acceptable<std::int64_t>(n, L, R, d, 0, layout)) return;
  Extend(x, n, convolve_analysis_working_memory_64, layout, Border::kSymmetric);
}

void convolve_synthesis_extend(const std::int64_t* x, std::int32_t n, std::int32_t L,
                               std::int32_t R, std::int32_t d) {
  const Layout layout = LayoutOf(L, R, d);
  if (!Acceptable<std::int64_t>(n, L, R, d, 0, layout)) return;
  Border border = Border::kSymmetric;
  if (L != R) border = layout.centred ? Border::kZeroInsert : Border::kAntisymmetric;
  Extend(x, n, convolve_synthesis_working_memory_64, layout, border);
}

// 32-bit bands widened to 64 bits as they are copied (and negated in 64 bits), so the deep rebuild
// of the 2x5 despike loses nothing to 32-bit overflow.
void convolve_synthesis_32_to_64_2x5(std::int32_t* x, std::int32_t n, std::int64_t* y,
                                     std::int32_t* h, std::int32_t L, std::int32_t R,
                                     std::int32_t d, std::int32_t s) {
  Synthesis(x, n, y, h, L, R, d, s, convolve_synthesis_working_memory_64);
}
