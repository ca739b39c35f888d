// SPDX-License-Identifier: Apache-2.0
// Frequency estimation: energies at the nine candidate frequencies, junction interpolation and the
// two-candidate robust estimate.
#include "standard/standard.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <utility>

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

namespace {

// Rows [table][k] and up to three signals, 16-bit. 72 KB and 12 KB.
std::int16_t g_packedRows[2][9][kFlkPackedColumns];
std::int16_t g_packedSignals[3][kFlkPackedColumns];

// The table rows change only when a host writes them, but they are writable: the packed rows are
// kept with the 32-bit entries they came from and reused while the tables compare equal to those
// over the columns asked for (a comparison the C library vectorises, several times cheaper than
// narrowing again). 144 KB.
struct PackedRowsSource {
  const std::int32_t* tables[2] = {};
  std::int32_t width = 0;
  std::int64_t columns = 0;  // columns the packed rows hold, 0: none
  std::int32_t entries[2][9][kFlkPackedColumns];
};
PackedRowsSource g_packedFrom;

bool PackTableRows(std::int64_t columns) {
  const std::int32_t* const tables[2] = {g_flkTab1, g_flkTab2};
  PackedRowsSource& from = g_packedFrom;
  const auto bytes = static_cast<std::size_t>(columns) * sizeof(std::int32_t);
  bool same = from.tables[0] == tables[0] && from.tables[1] == tables[1] &&
              from.width == g_flkTabW && columns <= from.columns;
  for (std::int32_t t = 0; t < 2 && same; ++t) {
    for (std::int32_t k = 0; k < 9 && same; ++k) {
      same = std::memcmp(tables[t] + std::int64_t{k} * g_flkTabW, from.entries[t][k], bytes) == 0;
    }
  }
  if (same) return true;
  from.columns = 0;
  for (std::int32_t t = 0; t < 2; ++t) {
    for (std::int32_t k = 0; k < 9; ++k) {
      const std::int32_t* row = tables[t] + std::int64_t{k} * g_flkTabW;
      if (!fx::narrow16(row, columns, 9, g_packedRows[t][k])) return false;
      std::memcpy(from.entries[t][k], row, bytes);
    }
  }
  from.tables[0] = tables[0];
  from.tables[1] = tables[1];
  from.width = g_flkTabW;
  from.columns = columns;
  return true;
}

}  // namespace

bool flicker_pack_sums(const std::int32_t* const* signals, const std::int64_t* extents,
                       std::int32_t count) {
  if (g_flkTab1 == nullptr || g_flkTab2 == nullptr || count > 3) return false;
  std::int64_t columns = 0;
  for (std::int32_t v = 0; v < count; ++v) columns = std::max(columns, extents[v]);
  if (columns > kFlkPackedColumns || columns > g_flkTabW) return false;
  bool inside = true;
  for (std::int32_t v = 0; v < count; ++v) {
    inside = inside && fx::narrow16(signals[v], extents[v], 13, g_packedSignals[v]);
  }
  return inside && PackTableRows(columns);
}

namespace {

// Sums of up to three packed signals over the same columns, each table entry read once for all.
// Each product lies within 2^22, so 256 of them sum in 32 bits: pairs of 16-bit products summed
// in 32-bit lanes, eight samples to a vector.
template <std::int32_t N>
void PackedSumsOf(const std::int16_t* const* signals, std::int32_t pos, std::int32_t length,
                  std::int32_t k, std::int64_t* re, std::int64_t* im) {
  const std::int16_t* __restrict cos_row = g_packedRows[0][k] + pos;
  const std::int16_t* __restrict sin_row = g_packedRows[1][k] + pos;
  const std::int16_t* __restrict x0 = signals[0] + pos;
  const std::int16_t* __restrict x1 = N > 1 ? signals[1] + pos : x0;
  const std::int16_t* __restrict x2 = N > 2 ? signals[2] + pos : x0;
  constexpr std::int32_t kChunk = 256;
  std::int64_t c0 = 0, s0 = 0, c1 = 0, s1 = 0, c2 = 0, s2 = 0;
  for (std::int32_t first = 0; first < length; first += kChunk) {
    const std::int32_t end = length - first < kChunk ? length : first + kChunk;
    std::int32_t cc0 = 0, ss0 = 0, cc1 = 0, ss1 = 0, cc2 = 0, ss2 = 0;
    for (std::int32_t n = first; n < end; ++n) {
      cc0 += x0[n] * cos_row[n];
      ss0 += x0[n] * sin_row[n];
      if constexpr (N > 1) {
        cc1 += x1[n] * cos_row[n];
        ss1 += x1[n] * sin_row[n];
      }
      if constexpr (N > 2) {
        cc2 += x2[n] * cos_row[n];
        ss2 += x2[n] * sin_row[n];
      }
    }
    c0 += cc0, s0 += ss0, c1 += cc1, s1 += ss1, c2 += cc2, s2 += ss2;
  }
  const std::int64_t cs[3] = {c0, c1, c2};
  const std::int64_t ss[3] = {s0, s1, s2};
  for (std::int32_t v = 0; v < N; ++v) {
    re[v] = cs[v];
    im[v] = ss[v];
  }
}

}  // namespace

void flicker_packed_sums(std::int32_t signal, std::int32_t pos, std::int32_t length, std::int32_t k,
                         std::int64_t& re, std::int64_t& im) {
  const std::int16_t* const x[1] = {g_packedSignals[signal]};
  PackedSumsOf<1>(x, pos, length, k, &re, &im);
}

void flicker_packed_sums_each(std::int32_t count, std::int32_t pos, std::int32_t length,
                              std::int32_t k, std::int64_t* re, std::int64_t* im) {
  const std::int16_t* const x[3] = {g_packedSignals[0], g_packedSignals[1], g_packedSignals[2]};
  if (count == 3) return PackedSumsOf<3>(x, pos, length, k, re, im);
  if (count == 2) return PackedSumsOf<2>(x, pos, length, k, re, im);
  if (count == 1) return PackedSumsOf<1>(x, pos, length, k, re, im);
}

void flicker_energies(const std::int32_t* signal, std::int32_t length, std::int64_t* energies) {
  const std::int32_t b = length < 1 ? 1 : fx::bit_count(static_cast<std::uint64_t>(length));
  // The packed rows are kept across calls, so packing pays for one signal too.
  const std::int32_t* const signals[1] = {signal};
  const std::int64_t extents[1] = {length};
  const bool packed = length >= 1 && flicker_pack_sums(signals, extents, 1);
  for (std::int32_t k = 0; k < 9; ++k) {
    std::int64_t re = 0;
    std::int64_t im = 0;
    if (length >= 1) {
      if (packed) {
        flicker_packed_sums(0, 0, length, k, re, im);
      } else {
        flicker_partial_sums(signal, length, k, 0, re, im);
      }
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
                              std::int32_t stride, std::int32_t versions, std::int32_t first,
                              std::int32_t count, std::uint32_t n, std::int64_t* re_out,
                              std::int64_t* im_out) {
  if (versions < 2 || versions > 3) return;
  const auto base = static_cast<std::uint32_t>(versions);
  // Segment by segment: the choices of the first m segments, extended by each candidate of the
  // next (n = versions^count). Exact 64-bit sums, so their order is free.
  for (std::int32_t k = 0; k < 9; ++k) {
    std::int64_t* re = re_out + k * n;
    std::int64_t* im = im_out + k * n;
    re[0] = 0;
    im[0] = 0;
    std::uint32_t size = 1;
    for (std::int32_t m = 0; m < count && size * base <= n; ++m) {
      const std::int64_t* pr = part_re + k * stride + versions * (first + m);
      const std::int64_t* pi = part_im + k * stride + versions * (first + m);
      for (std::uint32_t v = base - 1; v >= 1; --v) {
        for (std::uint32_t a = 0; a < size; ++a) {
          re[v * size + a] = re[a] + pr[v];
          im[v * size + a] = im[a] + pi[v];
        }
      }
      for (std::uint32_t a = 0; a < size; ++a) {
        re[a] += pr[0];
        im[a] += pi[0];
      }
      size *= base;
    }
  }
}

namespace {

std::int16_t g_choiceBounds[kFlkBoundBlock * kFlkBoundBlock];
// The low halves the screen keeps against one high choice (off the stack: the search's frames
// already hold several such blocks).
float g_screenedRe[9 * kFlkBoundBlock];
float g_screenedIm[9 * kFlkBoundBlock];

// Scores by z, clamped to 16 bits like the bounds (a clamped bound still bounds the clamped score,
// and a clamped floor the clamped best); z from -256 (a zero scored feature) to the reach of the
// search. Level k at z holds the largest and smallest score over z .. z + 2^k - 1 as
// (top << 16) | (bottom & 0xffff): any span of up to 2^kLevels z takes two entries of one level.
constexpr std::int32_t kZero = 256;
constexpr std::int32_t kReach = 8192;  // z beyond it: left to the exact search
constexpr std::int32_t kLevels = 4;
constexpr std::int32_t kWidest = (1 << kLevels) - 2;  // z pinned to at most 15 neighbours
// Stored z-major, [(z + 256) x kLevels + k]. The level-0 entry at z = kReach stands for no bound:
// it is never filled with a score.
std::int32_t g_scoreSpans[(kReach + kZero + 1) * kLevels];
constexpr std::int32_t kNoBound = (kReach + kZero) * kLevels;

std::int32_t Pack(std::int32_t top, std::int32_t bottom) {
  return fx::wrap_shl32(top, 16) | (bottom & 0xffff);
}
std::int32_t Top(std::int32_t packed) {
  return packed >> 16;
}
std::int32_t Bottom(std::int32_t packed) {
  return static_cast<std::int16_t>(packed & 0xffff);
}

// The largest score over each span into `out`, and the largest of the smallest, from the two
// table entries of each span. Scalar: emulated vector gathers cost more than they save on the
// baseline instruction sets.
#if defined(__GNUC__) && !defined(__clang__)
__attribute__((optimize("no-tree-vectorize")))
#endif
std::int32_t
SpanScores(const std::int32_t* first, const std::int32_t* second, std::uint32_t nl,
           std::int16_t* __restrict out) {
  std::int32_t reached = INT16_MIN;
  for (std::uint32_t i = 0; i < nl; ++i) {
    const std::int32_t a = g_scoreSpans[first[i]];
    const std::int32_t b = g_scoreSpans[second[i]];
    out[i] = static_cast<std::int16_t>(std::max(Top(a), Top(b)));
    reached = std::max(reached, std::min(Bottom(a), Bottom(b)));
  }
  return reached;
}

// The slack of one search (see flicker_choice_score_bounds), in squared component units.
struct BoundTerms {
  float half;   // 1 + 2^(p-1) at the largest p: the feature's rounding, and a unit to spare
  float step;   // 2^p at the largest p: the mean's floor, and its least divisor
  float scale;  // 2^-2s: X in squared units of the rounded components
  float root;   // the factor of sqrt(2 X): 1 for the rounding, 2 e for the sums' conversion
};

// The energies of the sums of low choice i and a high choice (h_re, h_im): the scored feature J's,
// the sum of the other eight, and the largest of the nine. Inlined into the per-row loops so that
// they stay vectorised across choices.
struct ChoiceEnergies {
  float scored;
  float others;
  float most;
};

// The factor that brings a choice's squared sums to X: 2^-2s for the whole search of a rounding
// shift (in BoundTerms::scale), (128 / length)^2 for each choice of a length-normalised search,
// whose lengths (below 2^24, exact in single precision) come as the low choices' and the high
// one's. Within 3 x 2^-24 of itself.
template <bool kNormalised>
[[gnu::always_inline]] inline float ChoiceScale(const float* __restrict low_length, std::size_t i,
                                                float high_length) {
  if constexpr (kNormalised) {
    const float r = 128.0f / (low_length[i] + high_length);
    return r * r;
  } else {
    return 1.0f;
  }
}

template <int J>
[[gnu::always_inline]] inline ChoiceEnergies Energies(const float* __restrict low_re,
                                                      const float* __restrict low_im, std::size_t i,
                                                      const float* h_re, const float* h_im) {
  ChoiceEnergies e{0.0f, 0.0f, 0.0f};
#pragma GCC unroll 9
  for (std::int32_t k = 0; k < 9; ++k) {
    const float re = low_re[k * std::size_t{kFlkBoundBlock} + i] + h_re[k];
    const float im = low_im[k * std::size_t{kFlkBoundBlock} + i] + h_im[k];
    const float x = re * re + im * im;
    e.most = std::max(e.most, x);
    if (k == J) {
      e.scored = x;
    } else {
      e.others += x;
    }
  }
  return e;
}

// The z span of one high choice against nl low ones as the two table entries that cover it
// (both kNoBound: none), and the largest X of each low choice raised in `top`. Returns the last
// z of every span, plus 256 (-1: none). J is the scored feature, left out of the mean.
template <int J, bool kNormalised>
std::int32_t BoundBlock(const float* __restrict low_re, const float* __restrict low_im,
                        const float* __restrict low_length, std::uint32_t nl, const float* hr,
                        const float* him, float high_length, const BoundTerms& t,
                        float* __restrict top, std::int32_t* __restrict first,
                        std::int32_t* __restrict second) {
  constexpr float kUp = 1.0f + 0x1p-16f;
  constexpr float kDown = 1.0f - 0x1p-16f;
  constexpr float kSlack = 0x1p-6f;
  constexpr float kReachF = static_cast<float>(kReach);
  float h_re[9];
  float h_im[9];
  for (std::int32_t k = 0; k < 9; ++k) {
    h_re[k] = hr[k];
    h_im[k] = him[k];
  }
  std::int32_t last = -1;
  for (std::size_t i = 0; i < nl; ++i) {
    const ChoiceEnergies x = Energies<J>(low_re, low_im, i, h_re, h_im);
    const float choice_scale = ChoiceScale<kNormalised>(low_length, i, high_length);
    top[i] = std::max(top[i], x.most * choice_scale);  // as the screen's: before the 2^-2s
    const float scale = t.scale * choice_scale;
    const float a = x.scored * scale;
    const float b = x.others * (scale * 0.125f);
    // sqrt(2 X_j) for the scored feature; sqrt(S) / 2 >= the sum of the other eight's sqrt(2 X_k)
    // over 8, S their sum.
    const float scored_slack = std::sqrt(a * 2.0f) * t.root + t.half;
    const float mean_slack = std::sqrt(b * 8.0f) * (0.5f * t.root) + t.half;
    const float num_high = a * kUp + scored_slack;
    const float den_high = b * kDown - mean_slack - t.step;
    const float num_low = std::max(a * kDown - scored_slack, 0.0f);
    const float den_low = std::max(b * kUp + mean_slack, t.step);
    const float v_high = num_high / den_high * 256.0f - 256.0f + kSlack;
    const float v_low = num_low / den_low * 256.0f - 256.0f - kSlack;
    // Finite or infinite (a divisor bound of 0); clamped before the conversions.
    const std::int32_t zh = static_cast<std::int32_t>(std::max(std::min(v_high, kReachF), -256.0f));
    const std::int32_t zl = static_cast<std::int32_t>(std::min(v_low, kReachF));
    // The divisor's slack at most half of it: its rounding errors stay relative.
    const bool pinned = (den_high >= b * (0.5f * kDown)) & (den_high >= 1.0f) & (v_high < kReachF) &
                        (zh - zl <= kWidest);
    // The level k = floor(log2(zh - zl + 1)) and its two entries, from zl and from zh + 1 - 2^k.
    const std::int32_t w = zh - zl;
    const std::int32_t k1 = static_cast<std::int32_t>(w >= 1);
    const std::int32_t k2 = static_cast<std::int32_t>(w >= 3);
    const std::int32_t k3 = static_cast<std::int32_t>(w >= 7);
    const std::int32_t k = k1 + k2 + k3;
    const std::int32_t span = k1 + 2 * k2 + 4 * k3;              // 2^k - 1
    const std::int32_t on = -static_cast<std::int32_t>(pinned);  // all ones when pinned
    first[i] = ((((zl + kZero) * kLevels + k) ^ kNoBound) & on) ^ kNoBound;
    second[i] = ((((zh - span + kZero) * kLevels + k) ^ kNoBound) & on) ^ kNoBound;
    last = std::max(last, (((zh + kZero) + 1) & on) - 1);
  }
  return last;
}

// The screen of every choice against the best score known so far, before any bound: a choice whose
// z lies surely below `low` (the least z scoring at least that score) or surely between `high`
// (the largest such z) and kReach scores below it and needs no bound. The tests are the bounds'
// (see flicker_choice_score_bounds) with products in place of quotients and, for the roots, the
// line sqrt(2 X) r <= lambda X + r^2 / (2 lambda), true for any lambda > 0.
struct ScreenTerms {
  float num_up;     // scored x num_up + constant >= the numerator's bound
  float num_down;   // scored x num_down - constant <= the numerator's lower bound
  float den_down;   // others x den_down - den_constant <= the divisor's lower bound
  float den_up;     // others x den_up + den_constant >= the divisor's upper bound
  float den_least;  // others x den_least: half the divisor's term, as the bounds require
  float constant;
  float den_constant;
};

// Thresholds of the screen on 256 x the numerator against the divisor. z is the truncation of a
// ratio v (toward zero): z < low when v < low for low >= 1, when v <= low - 1 for low <= 0; z >
// high when v >= high + 1 for high >= 0, when v > high for high <= -1. With the bounds' 1/64 on v,
// and the tests strict (at the ends, the tighter of the two).
struct ScreenWindow {
  float below;
  float above;
};

ScreenWindow MakeScreenWindow(std::int32_t low, std::int32_t high) {
  constexpr float kSlack = 0x1p-6f;
  return {static_cast<float>(low + kZero - (low >= 1 ? 0 : 1)) - kSlack,
          static_cast<float>(high + kZero + (high >= 0 ? 1 : 0)) + kSlack};
}

// keep[i] = 0 for each low choice that the screen settles against high choice (hr, him), 1 for the
// others; the largest X of each low choice raised in `top`. J is the scored feature.
template <int J, bool kNormalised>
void ScreenBlock(const float* __restrict low_re, const float* __restrict low_im,
                 const float* __restrict low_length, std::uint32_t nl, const float* hr,
                 const float* him, float high_length, const ScreenTerms& t, ScreenWindow w,
                 float* __restrict top, std::uint32_t* __restrict keep) {
  constexpr float kReachRatio = static_cast<float>(kReach + kZero) - 0x1p-6f;
  float h_re[9];
  float h_im[9];
  for (std::int32_t k = 0; k < 9; ++k) {
    h_re[k] = hr[k];
    h_im[k] = him[k];
  }
  for (std::size_t i = 0; i < nl; ++i) {
    const ChoiceEnergies x = Energies<J>(low_re, low_im, i, h_re, h_im);
    const float scale = ChoiceScale<kNormalised>(low_length, i, high_length);
    top[i] = std::max(top[i], x.most * scale);
    const float scored = x.scored * scale;
    const float others = x.others * scale;
    const float num_high = scored * t.num_up + t.constant;
    const float den_high = others * t.den_down - t.den_constant;
    const float num_low = scored * t.num_down - t.constant;
    const float den_low = others * t.den_up + t.den_constant;
    const bool bounded = (den_high >= others * t.den_least) & (den_high >= 1.0f);
    const float num_high_z = num_high * 256.0f;
    const bool under = num_high_z < w.below * den_high;
    const bool inside = num_high_z < kReachRatio * den_high;
    const bool over = num_low * 256.0f > w.above * den_low;
    keep[i] = static_cast<std::uint32_t>(!(bounded & (under | (over & inside))));
  }
}

// Both kernels for each scored feature, [normalised][J].
using ScreenBlockFn = void (*)(const float*, const float*, const float*, std::uint32_t,
                               const float*, const float*, float, const ScreenTerms&, ScreenWindow,
                               float*, std::uint32_t*);
using BoundBlockFn = std::int32_t (*)(const float*, const float*, const float*, std::uint32_t,
                                      const float*, const float*, float, const BoundTerms&, float*,
                                      std::int32_t*, std::int32_t*);
template <bool kNormalised, std::size_t... J>
constexpr std::array<ScreenBlockFn, 9> ScreenBlocks(std::index_sequence<J...>) {
  return {ScreenBlock<J, kNormalised>...};
}
template <bool kNormalised, std::size_t... J>
constexpr std::array<BoundBlockFn, 9> BoundBlocks(std::index_sequence<J...>) {
  return {BoundBlock<J, kNormalised>...};
}
constexpr std::array<ScreenBlockFn, 9> kScreenBlocks[2] = {
    ScreenBlocks<false>(std::make_index_sequence<9>()),
    ScreenBlocks<true>(std::make_index_sequence<9>())};
constexpr std::array<BoundBlockFn, 9> kBoundBlocks[2] = {
    BoundBlocks<false>(std::make_index_sequence<9>()),
    BoundBlocks<true>(std::make_index_sequence<9>())};

}  // namespace

std::int16_t* flicker_choice_bound_scratch() {
  return g_choiceBounds;
}

// Units: x = sum / 2^s is a component before its rounding c, X_k = x_re^2 + x_im^2 and
// E_k = c_re^2 + c_im^2; the feature is F_k = round(E_k / 2^p). |c^2 - x^2| <= |x| + 1/4 and
// |x_re| + |x_im| <= sqrt(2 X_k), so F_k 2^p lies within sqrt(2 X_k) + 1/2 + 2^(p-1) of X_k; the
// eight other features' sum within sqrt(16 S) + 4 + 8 x 2^(p-1) of theirs (S), and the divisor
// m = max(1, floor(that sum / 8)) within sqrt(S) / 2 + 1/2 + 2^(p-1) + 2^p of S / 8 (all times
// 2^-p). An upper bound on p (from the halves' largest components) keeps the slack safe before
// the search knows p. The score's z = trunc(256 (F_j - m) / m) is monotone in F_j / m: it lies
// between the truncations of the ratio's bounds. X comes in single precision: each sum is its
// halves converted and added (within e, in units of x, of the true one, which moves X by at most
// 2 e sqrt(2 X) + 2 e^2), and the squares, the sum of eight and the quotient stay within 2^-19
// relative, covered by widening the ratio's terms by 2^-16 and z by 1/64. A choice whose z is
// pinned to at most kWidest + 1 neighbours scores between their least and largest score; any
// other (wider, beyond kReach, or a divisor whose slack is over half of it) is left to the exact
// search. The largest X also brackets M, and with it the common shift p, found when the
// bracket's ends share it (it fails only within a few parts in a million of a power of two).
std::int32_t flicker_choice_score_bounds(const std::int32_t* low_re, const std::int32_t* low_im,
                                         const std::int32_t* low_length, std::uint32_t nl,
                                         const std::int64_t* high_re, const std::int64_t* high_im,
                                         const std::int32_t* high_length, std::uint32_t nh,
                                         std::int32_t s, std::int64_t largest,
                                         std::int32_t headroom, const FlkFrameScorer& scorer,
                                         std::int16_t* ub, std::int32_t& p) {
  const FlkFrameScorer score = scorer;  // a local copy: no store below can alias its tables
  const bool normalised = low_length != nullptr;
  // Normalised: every choice at least min_length long, and x = 128 sum / length.
  float low_length_f[kFlkBoundBlock] = {};
  std::int64_t min_length = 1;
  if (normalised) {
    s = 0;
    const std::int32_t low_min = *std::min_element(low_length, low_length + nl);
    const std::int32_t high_min = *std::min_element(high_length, high_length + nh);
    min_length = std::int64_t{low_min} + high_min;
    for (std::uint32_t i = 0; i < nl; ++i) low_length_f[i] = static_cast<float>(low_length[i]);
  }
  // Upper bounds on every energy (components of the largest sums, |round(v)| = round(|v|), a
  // truncated average no larger than the exact one) and so on the shift; the largest sum bounds
  // the error of its single-precision form.
  std::int64_t top_energy = largest;
  std::int64_t top_sum = 0;
  for (std::int32_t k = 0; k < 9; ++k) {
    std::int64_t reach[2] = {0, 0};
    for (std::int32_t part = 0; part < 2; ++part) {
      const std::int32_t* low = (part == 0 ? low_re : low_im) + k * kFlkBoundBlock;
      const std::int64_t* high = (part == 0 ? high_re : high_im) + k * nh;
      std::int64_t low_top = 0;
      std::int64_t high_top = 0;
      for (std::uint32_t i = 0; i < nl; ++i) {
        low_top = std::max<std::int64_t>(low_top, std::abs(std::int64_t{low[i]}));
      }
      for (std::uint32_t i = 0; i < nh; ++i) high_top = std::max(high_top, std::abs(high[i]));
      reach[part] = normalised ? (low_top + high_top) * 128 / min_length
                               : fx::rshift_round64(low_top + high_top, s);
      top_sum = std::max(top_sum, low_top + high_top);
    }
    top_energy = std::max(top_energy, reach[0] * reach[0] + reach[1] * reach[1]);
  }
  // A sum in single precision, each half converted then added: within 3 x 2^-24 of the halves'
  // magnitudes, e in units of x. Each X then moves by at most 2 e sqrt(2 X) + 2 e^2.
  const double unit = normalised ? 128.0 / static_cast<double>(min_length) : std::ldexp(1.0, -s);
  const double e = 3 * 0x1p-24 * static_cast<double>(top_sum) * unit * 1.001;
  const double step = std::ldexp(1.0, flicker_scale_shift(top_energy, headroom));
  // Truncation toward zero moves a component by less than 1 without raising its magnitude: the
  // square by less than 2 |x|, twice the rounding's |x| + 1/4.
  const double rounding = normalised ? 2.0 : 1.0;
  const BoundTerms terms{static_cast<float>((step / 2 + 1 + 2 * e * e) * 1.001),
                         static_cast<float>(step), std::ldexp(1.0f, -2 * s),
                         static_cast<float>(rounding * 1.001 + 2 * e)};
  float low_re_f[9 * kFlkBoundBlock];
  float low_im_f[9 * kFlkBoundBlock];
  for (std::int32_t k = 0; k < 9; ++k) {
    for (std::uint32_t i = 0; i < nl; ++i) {
      low_re_f[k * kFlkBoundBlock + i] = static_cast<float>(low_re[k * kFlkBoundBlock + i]);
      low_im_f[k * kFlkBoundBlock + i] = static_cast<float>(low_im[k * kFlkBoundBlock + i]);
    }
  }
  const BoundBlockFn block = kBoundBlocks[normalised][score.k];
  const ScreenBlockFn screen = kScreenBlocks[normalised][score.k];
  // lambda = 2^-13 widens the ratio by 2^-12 of itself where the line is loose (a unit of z at
  // z = 4000); the further 2^-17 covers the products' rounding, cancellations included.
  constexpr double kLambda = 0x1p-13;
  constexpr double kUp = 1.0 + 0x1p-16 + kLambda + 0x1p-17;
  constexpr double kDown = 1.0 - 0x1p-16 - kLambda - 0x1p-17;
  const double root = terms.root;
  const double constant = (root * root / (2 * kLambda) + terms.half) * 1.001;
  const double scale = terms.scale;
  const ScreenTerms screen_terms{static_cast<float>(scale * kUp),
                                 static_cast<float>(scale * kDown),
                                 static_cast<float>(scale * 0.125 * kDown),
                                 static_cast<float>(scale * 0.125 * kUp),
                                 static_cast<float>(scale * 0.125 * 0.5 * (1.0 - 0x1p-16)),
                                 static_cast<float>(constant),
                                 static_cast<float>((constant + step) * 1.001)};
  // The scores, clamped as the bounds take them; the window's ends only move inwards as the best
  // known score rises.
  const auto clamped_score = [&score](std::int32_t z) {
    return fx::clamp32(score.ScoreAt(z), INT16_MIN, INT16_MAX);
  };
  std::int32_t window_floor = INT16_MIN;
  std::int32_t window_low = -kZero;
  std::int32_t window_high = kReach - 1;
  ScreenWindow window = MakeScreenWindow(window_low, window_high);

  constexpr std::int32_t kRest = 15;  // rows bounded directly after a screen that keeps most
  std::int32_t rest = 0;

  std::int32_t reached = INT16_MIN;
  std::int32_t filled = 0;  // z = -256 .. filled - 257 in every level for this search
  g_scoreSpans[kNoBound] = Pack(INT16_MAX, INT16_MIN);
  float top[kFlkBoundBlock] = {};  // the largest X of each low choice, over every high one
  float unused_top[kFlkBoundBlock];
  std::uint32_t keep[kFlkBoundBlock];
  // The low choices the screen keeps, compacted in the same layout, and their bounds.
  float* const pick_re = g_screenedRe;
  float* const pick_im = g_screenedIm;
  float pick_length[kFlkBoundBlock];
  std::uint32_t pick_index[kFlkBoundBlock];
  std::int16_t pick_ub[kFlkBoundBlock];
  std::int32_t first[kFlkBoundBlock];
  std::int32_t second[kFlkBoundBlock];
  for (std::uint32_t hi = 0; hi < nh; ++hi) {
    float h_re[9];
    float h_im[9];
    for (std::int32_t k = 0; k < 9; ++k) {
      h_re[k] = static_cast<float>(high_re[k * nh + hi]);
      h_im[k] = static_cast<float>(high_im[k * nh + hi]);
    }
    const float h_length = normalised ? static_cast<float>(high_length[hi]) : 0.0f;
    std::int16_t* const row = ub + hi * nl;
    // Screened rows: the bounds of the low choices the screen keeps only. Until some score is known
    // (the first row) and where the screen keeps most (the best known score still low against the
    // others), every choice is bounded directly; after such a row the screen rests for a while.
    std::uint32_t count = nl;
    const float* bound_re = low_re_f;
    const float* bound_im = low_im_f;
    const float* bound_length = low_length_f;
    float* bound_top = top;  // the same X as the screen's: raising top again changes nothing
    std::int16_t* bound_ub = row;
    if (rest > 0) {
      --rest;
    } else if (window_floor > INT16_MIN) {
      screen(low_re_f, low_im_f, low_length_f, nl, h_re, h_im, h_length, screen_terms, window, top,
             keep);
      std::uint32_t kept = 0;
      for (std::uint32_t i = 0; i < nl; ++i) kept += keep[i];
      if (kept == 0) {
        std::fill_n(row, nl, std::int16_t{INT16_MIN});
        continue;
      }
      if (2 * kept > nl) {
        rest = kRest;
      } else {
        std::fill_n(row, nl, std::int16_t{INT16_MIN});
        count = 0;
        constexpr std::uint32_t kGroup = 16;
        for (std::uint32_t start = 0; start < nl; start += kGroup) {
          const std::uint32_t end = nl - start < kGroup ? nl : start + kGroup;
          std::uint32_t group = 0;
          for (std::uint32_t i = start; i < end; ++i) group |= keep[i];
          if (group == 0) continue;
          for (std::uint32_t i = start; i < end; ++i) {
            if (keep[i] == 0) continue;
            for (std::int32_t k = 0; k < 9; ++k) {
              pick_re[k * kFlkBoundBlock + count] = low_re_f[k * kFlkBoundBlock + i];
              pick_im[k * kFlkBoundBlock + count] = low_im_f[k * kFlkBoundBlock + i];
            }
            pick_length[count] = low_length_f[i];
            pick_index[count++] = i;
          }
        }
        for (std::uint32_t i = 0; i < count; ++i) unused_top[i] = 0.0f;
        bound_re = pick_re;
        bound_im = pick_im;
        bound_length = pick_length;
        bound_top = unused_top;
        bound_ub = pick_ub;
      }
    }
    const std::int32_t last = block(bound_re, bound_im, bound_length, count, h_re, h_im, h_length,
                                    terms, bound_top, first, second);
    if (last >= filled) {
      for (std::int32_t t = filled; t <= last; ++t) {
        const std::int32_t g = clamped_score(t - kZero);
        g_scoreSpans[t * kLevels] = Pack(g, g);
      }
      for (std::int32_t k = 1; k < kLevels; ++k) {
        const std::int32_t half = 1 << (k - 1);
        for (std::int32_t t = std::max(0, filled - 2 * half + 1); t + 2 * half - 1 <= last; ++t) {
          const std::int32_t a = g_scoreSpans[t * kLevels + k - 1];
          const std::int32_t b = g_scoreSpans[(t + half) * kLevels + k - 1];
          g_scoreSpans[t * kLevels + k] =
              Pack(std::max(Top(a), Top(b)), std::min(Bottom(a), Bottom(b)));
        }
      }
      filled = last + 1;
    }
    reached = std::max(reached, SpanScores(first, second, count, bound_ub));
    if (bound_ub == pick_ub) {
      for (std::uint32_t i = 0; i < count; ++i) row[pick_index[i]] = pick_ub[i];
    }
    if (reached > window_floor) {
      window_floor = reached;
      while (window_low < kReach && clamped_score(window_low) < reached) ++window_low;
      while (window_high > window_low && clamped_score(window_high) < reached) --window_high;
      window = MakeScreenWindow(window_low, window_high);
    }
  }
  float top_x = 0.0f;
  for (std::uint32_t i = 0; i < nl; ++i) top_x = std::max(top_x, top[i]);
  // M against the largest X: M >= X - sqrt(2 X) (the choice reaching it), M <= X + sqrt(2 X) + 1/2
  // (twice the root when truncated), with X itself within 2^-18 (the per-choice scale included)
  // and 2 e sqrt(2 X) + 2 e^2 of the largest found.
  const double x_high = static_cast<double>(top_x) * std::ldexp(1.0, -2 * s) * (1 + 0x1p-18);
  const double x_low = static_cast<double>(top_x) * std::ldexp(1.0, -2 * s) * (1 - 0x1p-18);
  const double spread = rounding + 4 * e;
  const double m_low =
      std::max(0.0, (x_low - std::sqrt(2 * x_low) * spread - 2 * e * e - 1) * (1 - 0x1p-40) - 2);
  const double m_high =
      (x_high + std::sqrt(2 * x_high) * spread + 2 * e * e + 1) * (1 + 0x1p-40) + 2;
  p = -1;
  if (m_high < 0x1p62) {
    const std::int32_t p_low =
        flicker_scale_shift(std::max(largest, static_cast<std::int64_t>(m_low)), headroom);
    const std::int32_t p_high =
        flicker_scale_shift(std::max(largest, static_cast<std::int64_t>(m_high)), headroom);
    if (p_low == p_high) p = p_low;
  }
  return reached;
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

// Per-half choice sums of the robust estimate, for up to half of its segment limit each, laid
// out for flicker_pick_choice: choice h of the half at [k * (1 << bits) + h].
constexpr std::int32_t kRobustHalfChoices = 1 << ((kMaxRobustSegments + 1) / 2);
struct HalfSums {
  std::int64_t re[9 * kRobustHalfChoices];
  std::int64_t im[9 * kRobustHalfChoices];
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
  std::int64_t total = 0;   // 64-bit: the bound check below must not wrap
  std::int64_t extent = 0;  // the columns the segments read, [0, extent)
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
      if (len >= 1) extent = std::max(extent, pos + len);
      // A negative length moves the next segment back, as the alignment's layout says.
      pos += len;
      total += len;
    }
  }
  const std::int32_t total_len = fx::low32(total);
  const std::int32_t b = total_len < 1 ? 1 : fx::bit_count(static_cast<std::uint64_t>(total_len));

  // Cosine and sine sums of each segment, both versions, every frequency: a choice's energies are
  // rebuilt from them by additions only, so nothing of size 2^segments is stored.
  // [k][2 i + v]: version B (v = 0) and version A (v = 1) of segment i.
  std::int64_t part_cos[9][2 * kMaxRobustSegments], part_sin[9][2 * kMaxRobustSegments];
  const std::int32_t* const signals[2] = {version_b, version_a};
  const std::int64_t extents[2] = {extent, extent};
  const bool packed = flicker_pack_sums(signals, extents, 2);
  for (std::int32_t k = 0; k < 9; ++k) {
    std::int32_t pos = 0;
    for (std::int32_t i = 0; i < segments; ++i) {
      const std::int32_t len = segment_lengths[i];
      std::int64_t* const re = part_cos[k] + 2 * i;
      std::int64_t* const im = part_sin[k] + 2 * i;
      re[0] = re[1] = im[0] = im[1] = 0;
      if (len >= 1 && packed) {
        flicker_packed_sums_each(2, pos, len, k, re, im);
      } else if (len >= 1) {
        // The table column is the position in the whole signal: phases run on across segments.
        flicker_partial_sums(version_b + pos, len, k, pos, re[0], im[0]);
        flicker_partial_sums(version_a + pos, len, k, pos, re[1], im[1]);
      }
      pos += len;
    }
  }
  // Sums of every choice over the low and the high half of the segments, tabulated once, so a
  // choice q (bit i set: version A for segment i) costs two additions per frequency.
  const std::int32_t low_bits = segments / 2;
  const std::int32_t high_bits = segments - low_bits;
  const auto low_choices = std::uint32_t{1} << low_bits;
  const auto high_choices = std::uint32_t{1} << high_bits;
  constexpr std::int32_t kStride = 2 * kMaxRobustSegments;
  flicker_tabulate_choices(&part_cos[0][0], &part_sin[0][0], kStride, 2, 0, low_bits, low_choices,
                           g_robustLow.re, g_robustLow.im);
  flicker_tabulate_choices(&part_cos[0][0], &part_sin[0][0], kStride, 2, low_bits, high_bits,
                           high_choices, g_robustHigh.re, g_robustHigh.im);
  const auto component = [b](std::int64_t sum, std::int32_t) {
    return fx::rshift_round64(sum, b - 1);
  };
  // One shift less than the single estimate's threshold: the largest ends under 2^23 as well.
  // The lowest mask (version B everywhere) is taken whatever it scores, later ones only when
  // strictly greater: that is the first strictly best unless every choice scores INT32_MIN.
  std::int32_t best_score = INT32_MIN;
  flicker_pick_choice(FlkChoiceHalf{g_robustLow.re, g_robustLow.im, nullptr, low_choices},
                      FlkChoiceHalf{g_robustHigh.re, g_robustHigh.im, nullptr, high_choices},
                      component, b - 1, 0, 22, freq_out, best_score);
  if (best_score > INT32_MIN) return;
  // Every choice scored INT32_MIN: the lowest mask's features, at the common shift of all.
  std::int64_t largest = -1;
  std::int64_t energies[9];
  const auto choice_energies = [&](std::uint32_t lo, std::uint32_t hi) {
    for (std::int32_t k = 0; k < 9; ++k) {
      const std::int64_t re = component(
          g_robustLow.re[k * low_choices + lo] + g_robustHigh.re[k * high_choices + hi], 0);
      const std::int64_t im = component(
          g_robustLow.im[k * low_choices + lo] + g_robustHigh.im[k * high_choices + hi], 0);
      energies[k] = fx::wrap_add64(fx::wrap_mul64(re, re), fx::wrap_mul64(im, im));
    }
  };
  for (std::uint32_t hi = 0; hi < high_choices; ++hi) {
    for (std::uint32_t lo = 0; lo < low_choices; ++lo) {
      choice_energies(lo, hi);
      for (const std::int64_t e : energies) largest = std::max(largest, e);
    }
  }
  choice_energies(0, 0);
  flicker_scale_candidates(energies, 9, largest, 22);
  for (std::int32_t k = 0; k < 9; ++k) freq_out[k] = fx::low32(energies[k]);
}
