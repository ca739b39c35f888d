// SPDX-License-Identifier: Apache-2.0
// Flicker state decision: tuning parameters and state, the per-frame score and the sequential
// tests over the shared 150-entry score queue.
#ifndef KESTREL_DECISION_H
#define KESTREL_DECISION_H

#include <cstdint>

#include "fixed_point.h"
#include "kestrel/flicker.h"

// Tuning, replaced as a whole by CMD_SET_EXT_PARA.
extern std::int32_t g_flickerFreq[9];  // candidate frequencies, Hz; freq_out follows this order
extern std::int32_t flicker_grad_threshold;
extern std::int32_t flicker_search_range;
extern std::int32_t min_past_frames;
extern std::int32_t g_maxPastFrames;
// Likelihood tables: [0] knot, [1] slope below the knot (Q8), [2] slope at/above (Q8), [3] offset.
extern std::int32_t ev50_l50[4];
extern std::int32_t ev50_l60[4];
extern std::int32_t ev60_l50[4];
extern std::int32_t ev60_l60[4];
extern std::int32_t ev50_thresholds[2];
extern std::int32_t ev60_thresholds[2];
extern std::int32_t freq_feature_index[2];
extern std::uint8_t is_zhdr;
extern std::uint8_t zhdr_se_small;
extern std::uint8_t zhdr_gle_first;

// Flicker state: the hypothesis under test (0 = 50 Hz, 1 = 60 Hz) and its result code (2 or 3;
// 0 until the first set_flicker_state).
extern std::int32_t g_flickerStateIndex;
extern std::int32_t g_flickerResult;

// Score queue: frame scores in Q8, a ring of 150 with the newest entry at g_queueHead.
constexpr std::int32_t kScoreQueueSize = 150;
extern std::int32_t g_scoreQueue[kScoreQueueSize];
extern std::int32_t g_queueHead;
extern std::int32_t g_queueCount;

void flicker_setExtPara(FlkExtPara* para);
FlkExtPara* flicker_setExtPara_seq(FlkExtPara* para);
void set_flicker_state(EvTable s);
void reset_flicker_queue();

// Frame score in Q8 of n features: positive favours the other mains frequency.
std::int32_t get_current_llr(const std::int32_t* f, std::uint32_t n);

// The scoring steps shared by get_current_llr and test_next_frame.
// Index into freq_out of the feature scored in the current state (any non-zero state is 60 Hz).
std::int32_t flicker_scored_index();
// Mean of the features other than k, each clamped to +-2^26, their 32-bit sum divided unsigned by
// n - 1 (0 when n - 1 is 0): a negative sum gives a large quotient, deliberately.
std::int32_t flicker_other_mean(const std::int32_t* f, std::uint32_t n, std::int32_t k);
struct FlkScoreTerms {
  std::int32_t z;      // relative deviation of the scored feature, Q8
  std::int32_t t_own;  // |likelihood term| of the current hypothesis
  std::int32_t t_other;
  std::int32_t score;  // Q8, positive favours the other hypothesis
};
// Scores feature k against the divisor m (>= 1).
FlkScoreTerms flicker_score_terms(const std::int32_t* f, std::uint32_t n, std::int32_t k,
                                  std::int32_t m);

// get_current_llr for searches that score thousands of candidate feature sets: the state's
// scored index and likelihood tables are read once, and the arithmetic inlines into the search.
// get_current_llr, flicker_other_mean and flicker_score_terms are built on it.
struct FlkFrameScorer {
  static constexpr std::int32_t kFeatureClamp = 0x4000000;   // +-2^26 per feature in the mean
  static constexpr std::int32_t kDeviationClamp = 0x800000;  // +-2^23 before the Q8 shift
  std::int32_t k;
  std::int32_t own[4];    // likelihood table of the current hypothesis
  std::int32_t other[4];  // and of the other one

  FlkFrameScorer();  // snapshot of the current state and tuning

  static std::int32_t OtherMean(const std::int32_t* f, std::uint32_t n, std::int32_t k) {
    std::int32_t sum = 0;
    for (std::uint32_t i = 0; i < n; ++i) {
      if (static_cast<std::int32_t>(i) == k) continue;
      sum = fx::wrap_add32(sum, fx::clamp32(f[i], -kFeatureClamp, kFeatureClamp));
    }
    const std::uint32_t others = n - 1;
    if (others == 0) return 0;
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(sum) / others);
  }
  // |(z - knot) x slope >> 8| of one piecewise-linear likelihood table (32-bit, wrapping).
  static std::int32_t LikelihoodTerm(std::int32_t z, const std::int32_t* table) {
    const std::int32_t slope = z < table[0] ? table[1] : table[2];
    const std::int32_t p = fx::wrap_mul32(fx::wrap_sub32(z, table[0]), slope);
    return fx::wrap_abs32(p >> 8);
  }
  FlkScoreTerms Terms(const std::int32_t* f, std::uint32_t n, std::int32_t m) const {
    const std::uint32_t j =
        static_cast<std::uint32_t>(k) > n - 1 ? n - 1 : static_cast<std::uint32_t>(k);
    return TermsOf(f[j], m);
  }
  // The deviation of fk from m, clamped, in Q8. The shift is 32-bit on purpose: d = +2^23
  // becomes INT32_MIN, so a saturated positive deviation scores as a large negative one.
  static std::int32_t DeviationQ8(std::int32_t fk, std::int32_t m) {
    const std::int32_t d = fx::clamp32(fx::wrap_sub32(fk, m), -kDeviationClamp, kDeviationClamp);
    return fx::wrap_shl32(d, 8);
  }
  std::int32_t ScoreAt(std::int32_t z) const {
    return fx::wrap_sub32(fx::wrap_add32(fx::wrap_sub32(own[3], other[3]), LikelihoodTerm(z, own)),
                          LikelihoodTerm(z, other));
  }
  // Terms of the scored feature's value fk against the divisor m.
  FlkScoreTerms TermsOf(std::int32_t fk, std::int32_t m) const {
    const std::int32_t z = fx::div_trunc(DeviationQ8(fk, m), m);
    FlkScoreTerms terms{};
    terms.z = z;
    terms.t_own = LikelihoodTerm(z, own);
    terms.t_other = LikelihoodTerm(z, other);
    terms.score = ScoreAt(z);
    return terms;
  }
  // TermsOf(fk, m).score for m >= 1, the quotient taken in double precision: the dividend is a
  // 32-bit integer and m < 2^31, so the truncated double quotient is the integer one (an error
  // below 2^-53 of the quotient cannot cross an integer). A loop of these vectorises; integer
  // division does not.
  std::int32_t ScoreOf(std::int32_t fk, std::int32_t m) const {
    return ScoreAt(static_cast<std::int32_t>(static_cast<double>(DeviationQ8(fk, m)) / m));
  }
  std::int32_t operator()(const std::int32_t* f, std::uint32_t n) const {
    const std::int32_t mean = OtherMean(f, n, k);
    return Terms(f, n, mean > 1 ? mean : 1).score;
  }
};

// Scores the frame, queues the score and returns the result code (2, 3 or g_flickerResult).
std::int32_t test_next_frame(const std::int32_t* freq_out, std::uint32_t n, std::int8_t is_valid,
                             std::uint32_t max_past);
// The 2x5 variant: queues the caller's Q8 score; the first three parameters are ignored.
std::int32_t test_next_frame_2x5(const std::int32_t* freq_out, std::uint32_t n,
                                 std::int8_t is_valid, std::uint32_t max_past, std::int32_t score);

#endif  // KESTREL_DECISION_H
