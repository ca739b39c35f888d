// SPDX-License-Identifier: Apache-2.0
// Frame score: the log-likelihood ratio of one frame's scored frequency feature.
#include "decision/decision.h"

#include "fixed_point.h"

FlkFrameScorer::FlkFrameScorer() : k(flicker_scored_index()) {
  const bool state50 = g_flickerStateIndex == 0;
  const std::int32_t* o = state50 ? ev50_l50 : ev60_l60;
  const std::int32_t* t = state50 ? ev50_l60 : ev60_l50;
  for (std::int32_t i = 0; i < 4; ++i) {
    own[i] = o[i];
    other[i] = t[i];
  }
}

std::int32_t flicker_scored_index() {
  return freq_feature_index[g_flickerStateIndex != 0 ? 1 : 0];
}

std::int32_t flicker_other_mean(const std::int32_t* f, std::uint32_t n, std::int32_t k) {
  return FlkFrameScorer::OtherMean(f, n, k);
}

FlkScoreTerms flicker_score_terms(const std::int32_t* f, std::uint32_t n, std::int32_t k,
                                  std::int32_t m) {
  FlkFrameScorer scorer;
  scorer.k = k;
  return scorer.Terms(f, n, m);
}

std::int32_t get_current_llr(const std::int32_t* f, std::uint32_t n) {
  return FlkFrameScorer()(f, n);
}
