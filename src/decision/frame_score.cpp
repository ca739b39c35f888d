// SPDX-License-Identifier: Apache-2.0
// Frame score: the log-likelihood ratio of one frame's scored frequency feature.
#include "decision/decision.h"

#include "fixed_point.h"

namespace {

constexpr std::int32_t kFeatureClamp = 0x4000000;   // +-2^26 per feature in the mean
constexpr std::int32_t kDeviationClamp = 0x800000;  // +-2^23 before the Q8 shift

// |(z - knot) x slope >> 8| of one piecewise-linear likelihood table (32-bit, wrapping).
std::int32_t LikelihoodTerm(std::int32_t z, const std::int32_t* table) {
  const std::int32_t slope = z < table[0] ? table[1] : table[2];
  const std::int32_t p = fx::wrap_mul32(fx::wrap_sub32(z, table[0]), slope);
  return fx::wrap_abs32(p >> 8);
}

}  // namespace

std::int32_t flicker_scored_index() {
  return freq_feature_index[g_flickerStateIndex != 0 ? 1 : 0];
}

std::int32_t flicker_other_mean(const std::int32_t* f, std::uint32_t n, std::int32_t k) {
  std::int32_t sum = 0;
  for (std::uint32_t i = 0; i < n; ++i) {
    if (static_cast<std::int32_t>(i) == k) continue;
    sum = fx::wrap_add32(sum, fx::clamp32(f[i], -kFeatureClamp, kFeatureClamp));
  }
  const std::uint32_t others = n - 1;
  if (others == 0) return 0;
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(sum) / others);
}

FlkScoreTerms flicker_score_terms(const std::int32_t* f, std::uint32_t n, std::int32_t k,
                                  std::int32_t m) {
  const bool state50 = g_flickerStateIndex == 0;
  const std::int32_t* own = state50 ? ev50_l50 : ev60_l60;
  const std::int32_t* other = state50 ? ev50_l60 : ev60_l50;

  const std::uint32_t j =
      static_cast<std::uint32_t>(k) > n - 1 ? n - 1 : static_cast<std::uint32_t>(k);
  const std::int32_t d = fx::clamp32(fx::wrap_sub32(f[j], m), -kDeviationClamp, kDeviationClamp);
  // The shift is 32-bit on purpose: d = +2^23 becomes INT32_MIN, so a saturated positive
  // deviation scores as a large negative one.
  const std::int32_t z = fx::div_trunc(fx::wrap_shl32(d, 8), m);

  FlkScoreTerms terms{};
  terms.z = z;
  terms.t_own = LikelihoodTerm(z, own);
  terms.t_other = LikelihoodTerm(z, other);
  terms.score =
      fx::wrap_sub32(fx::wrap_add32(fx::wrap_sub32(own[3], other[3]), terms.t_own), terms.t_other);
  return terms;
}

std::int32_t get_current_llr(const std::int32_t* f, std::uint32_t n) {
  const std::int32_t k = flicker_scored_index();
  const std::int32_t mean = flicker_other_mean(f, n, k);
  return flicker_score_terms(f, n, k, mean > 1 ? mean : 1).score;
}
