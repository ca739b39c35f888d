// SPDX-License-Identifier: Apache-2.0
#include "host/tune.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <optional>
#include <random>

#include "host/host.h"

namespace kestrel_host {
namespace {

// The library's 32-bit two's-complement arithmetic.
std::int32_t Wrap(std::int64_t v) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(v));
}

const std::int32_t* OwnTable(const FlkExtPara& p, std::int32_t state) {
  return state == 0 ? p.ev50_l50 : p.ev60_l60;
}
const std::int32_t* OtherTable(const FlkExtPara& p, std::int32_t state) {
  return state == 0 ? p.ev50_l60 : p.ev60_l50;
}
std::int32_t& Threshold(FlkExtPara& p, std::int32_t state) {
  return state == 0 ? p.ev50_thresholds[1] : p.ev60_thresholds[1];
}

// Sorted samples with prefix sums, to evaluate a knot's two one-sided distance sums quickly.
struct Sorted {
  std::vector<double> x, prefix;  // prefix[i] = x[0] + ... + x[i-1]
  explicit Sorted(std::vector<double> v) : x(std::move(v)) {
    std::sort(x.begin(), x.end());
    prefix.assign(x.size() + 1, 0.0);
    for (std::size_t i = 0; i < x.size(); ++i) prefix[i + 1] = prefix[i] + x[i];
  }
  // Sums of (m - x) over x < m and of (x - m) over x >= m.
  void Sides(double m, double* left, double* right) const {
    const std::size_t i = std::lower_bound(x.begin(), x.end(), m) - x.begin();
    *left = m * static_cast<double>(i) - prefix[i];
    *right = (prefix.back() - prefix[i]) - m * static_cast<double>(x.size() - i);
  }
  // Knot candidates: up to 400 quantiles (the likelihood's maximum lies on a sample).
  std::vector<double> Knots() const {
    std::vector<double> k;
    const std::size_t n = x.size(), step = std::max<std::size_t>(1, n / 400);
    for (std::size_t i = 0; i < n; i += step) k.push_back(x[i]);
    return k;
  }
};

// A distance sum of zero (every sample on one side at the knot) would make a rate infinite: a
// floor of a quarter Q8 unit per sample keeps the slopes within the table's range.
constexpr double kMinSpread = 0.25;

// Log-likelihood of the samples with rates a (below) and b (above) at sides sl, sr.
double LogLikelihood(double n, double sl, double sr, double a, double b) {
  return n * std::log(a * b / (a + b)) - a * sl - b * sr;
}

// Best lower rate for a fixed upper rate b: the root of n b = sl a (a + b).
double LowerRate(double n, double sl, double b) {
  return b * (-1.0 + std::sqrt(1.0 + 4.0 * n / (sl * b))) / 2.0;
}

// The best knot and lower rate with the upper rate held at b.
LaplaceFit FitWithUpperRate(const Sorted& s, double b) {
  LaplaceFit best;
  best.log_likelihood = -INFINITY;
  const double n = static_cast<double>(s.x.size());
  for (double m : s.Knots()) {
    double sl, sr;
    s.Sides(m, &sl, &sr);
    sl = std::max(sl, kMinSpread * n);
    sr = std::max(sr, kMinSpread * n);
    const double a = LowerRate(n, sl, b);
    const double ll = LogLikelihood(n, sl, sr, a, b);
    if (ll > best.log_likelihood) best = {m, a, b, ll};
  }
  return best;
}

LaplaceFit FitSorted(const Sorted& s) {
  LaplaceFit best;
  best.log_likelihood = -INFINITY;
  const double n = static_cast<double>(s.x.size());
  for (double m : s.Knots()) {
    double sl, sr;
    s.Sides(m, &sl, &sr);
    // With mean one-sided distances al, ar the best rates are 1/(al + sqrt(al ar)) and
    // 1/(ar + sqrt(al ar)), and the likelihood -2n log(sqrt(al) + sqrt(ar)) - n.
    const double al = std::max(sl / n, kMinSpread), ar = std::max(sr / n, kMinSpread);
    const double g = std::sqrt(al * ar);
    const double a = 1.0 / (al + g), b = 1.0 / (ar + g);
    const double ll = LogLikelihood(n, al * n, ar * n, a, b);
    if (ll > best.log_likelihood) best = {m, a, b, ll};
  }
  return best;
}

// Frames of one run in one state: a closed-loop run that switched continues in the other state.
bool SameRun(const LabelledFrame& a, const LabelledFrame& b) {
  return a.cell == b.cell && a.seed == b.seed && a.state_hz == b.state_hz;
}

std::int32_t ClampedRound(double v) {
  return static_cast<std::int32_t>(std::lround(std::clamp(v, -1e9, 1e9)));
}

}  // namespace

std::int32_t RelativeDeviationQ8(const std::array<std::int32_t, 9>& f, std::int32_t k,
                                 bool* saturated) {
  std::uint32_t sum = 0;
  for (std::int32_t i = 0; i < 9; ++i) {
    if (i != k) sum += static_cast<std::uint32_t>(std::clamp(f[i], -0x4000000, 0x4000000));
  }
  const std::int32_t mean = static_cast<std::int32_t>(sum / 8u);
  const std::int32_t m = mean > 1 ? mean : 1;
  const std::int32_t d = std::clamp(Wrap(static_cast<std::int64_t>(f[k]) - m), -0x800000, 0x800000);
  if (saturated != nullptr) *saturated = d == 0x800000 || d == -0x800000;
  return Wrap(static_cast<std::int64_t>(static_cast<std::uint32_t>(d) << 8)) / m;
}

std::int32_t ScoreQ8(std::int32_t z, const std::int32_t* own, const std::int32_t* other) {
  auto t = [z](const std::int32_t* x) {
    const std::int32_t slope = z < x[0] ? x[1] : x[2];
    const std::int32_t p = Wrap(static_cast<std::int64_t>(Wrap(std::int64_t{z} - x[0])) * slope);
    const std::int32_t s = p >> 8;  // arithmetic: floor division by 256
    return s < 0 ? -s : s;
  };
  return Wrap(std::int64_t{own[3]} - other[3] + t(own) - t(other));
}

LaplaceFit FitLaplace(std::vector<double> z) {
  if (z.empty()) return {};
  return FitSorted(Sorted(std::move(z)));
}

void FitLaplacePair(const std::vector<double>& own_z, const std::vector<double>& other_z,
                    LaplaceFit* own, LaplaceFit* other) {
  const Sorted so(own_z), sx(other_z);
  *own = FitSorted(so);
  *other = FitSorted(sx);
  if (other->above <= own->above) return;
  // The constraint binds: at the joint optimum both upper rates meet at one rate b between the two
  // free ones. The joint likelihood is unimodal in log b there; golden-section search.
  double lo = std::log(own->above), hi = std::log(other->above);
  const double r = (std::sqrt(5.0) - 1.0) / 2.0;
  auto joint = [&](double lb) {
    return FitWithUpperRate(so, std::exp(lb)).log_likelihood +
           FitWithUpperRate(sx, std::exp(lb)).log_likelihood;
  };
  double c = hi - r * (hi - lo), d = lo + r * (hi - lo);
  double fc = joint(c), fd = joint(d);
  for (int i = 0; i < 40; ++i) {
    if (fc > fd) {
      hi = d, d = c, fd = fc;
      c = hi - r * (hi - lo), fc = joint(c);
    } else {
      lo = c, c = d, fc = fd;
      d = lo + r * (hi - lo), fd = joint(d);
    }
  }
  const double b = std::exp((lo + hi) / 2.0);
  *own = FitWithUpperRate(so, b);
  *other = FitWithUpperRate(sx, b);
}

std::array<std::int32_t, 4> ToTable(const LaplaceFit& fit) {
  // Q8 log-likelihood per Q8 unit of z: rate x 256 (score scale) x 256 (slope format).
  const double norm = fit.below * fit.above / (fit.below + fit.above);
  return {ClampedRound(fit.knot), std::max(1, ClampedRound(fit.below * 65536.0)),
          std::max(1, ClampedRound(fit.above * 65536.0)), ClampedRound(-256.0 * std::log(norm))};
}

TestOutcome ReplayTest(const std::vector<LabelledFrame>& frames, std::int32_t state,
                       const FlkExtPara& para) {
  TestOutcome out;
  const std::int32_t* own = OwnTable(para, state);
  const std::int32_t* other = OtherTable(para, state);
  const std::int32_t threshold = state == 0 ? para.ev50_thresholds[1] : para.ev60_thresholds[1];
  const std::uint32_t max_past = static_cast<std::uint32_t>(para.max_past_frames);
  const std::int32_t k = para.freq_feature_index[state];
  const std::int32_t state_hz = state == 0 ? 50 : 60;
  std::vector<std::int32_t> queue;  // newest last; the host resets it after every switch
  for (std::size_t begin = 0; begin < frames.size();) {
    std::size_t end = begin;
    while (end < frames.size() && SameRun(frames[end], frames[begin])) ++end;
    if (frames[begin].state_hz != state_hz) {
      begin = end;
      continue;
    }
    const bool positive = frames[begin].truth == Truth::kOtherMains;
    if (positive) ++out.positive_runs;
    queue.clear();
    for (std::size_t i = begin; i < end; ++i) {
      const LabelledFrame& f = frames[i];
      if (!f.valid) continue;
      if (!positive) ++out.negative_frames;
      queue.push_back(ScoreQ8(RelativeDeviationQ8(f.freq_out, k), own, other));
      if (static_cast<std::int32_t>(queue.size()) < para.min_past_frames) continue;
      const std::size_t c = std::min<std::size_t>(queue.size(), max_past);
      std::int64_t sum = 0;
      for (std::size_t j = queue.size() - c; j < queue.size(); ++j) sum += queue[j];
      const std::int32_t q = c < 1 ? 0 : Wrap(sum + 128) >> 8;
      if (q <= threshold) continue;
      if (positive) {
        out.Detected(static_cast<std::int32_t>(i - begin) + 1);
        break;
      }
      ++out.false_switches;
      queue.clear();
    }
    begin = end;
  }
  return out;
}

std::int32_t ChooseThreshold(const std::vector<LabelledFrame>& frames, std::int32_t state,
                             FlkExtPara para, double budget) {
  for (std::int32_t t = -64;; t += t < 256 ? 1 : t / 64) {
    Threshold(para, state) = t;
    const TestOutcome o = ReplayTest(frames, state, para);
    if (static_cast<double>(o.false_switches) <= budget * static_cast<double>(o.negative_frames))
      return t;
    if (t > 0x1000000) return t;
  }
}

FlkExtPara Tune(const std::vector<LabelledFrame>& frames, const FlkExtPara& base,
                const TuneOptions& options, TuneReport* report) {
  TuneReport rep;
  std::vector<LabelledFrame> train, held;
  // Whole runs are held out, picked by a hash of their order so that no pattern of the matrix
  // (light, state, exposure cycling with the cell index) is held out alone.
  std::uint32_t runs = 0;
  for (std::size_t i = 0; i < frames.size(); ++i) {
    if (i > 0 && !SameRun(frames[i], frames[i - 1])) ++runs;
    const bool out = ((runs * 0x9E3779B1u) >> 24) % options.holdout_every == 0;
    (out ? held : train).push_back(frames[i]);
  }
  rep.held_out_frames = static_cast<std::int64_t>(held.size());

  FlkExtPara para = base;
  for (std::int32_t state = 0; state < 2; ++state) {
    const std::int32_t k = para.freq_feature_index[state];
    std::vector<double> own_z, other_z;
    for (const LabelledFrame& f : train) {
      if (f.state_hz != (state == 0 ? 50 : 60) || !f.valid) continue;
      bool saturated = false;
      const std::int32_t z = RelativeDeviationQ8(f.freq_out, k, &saturated);
      // A saturated deviation's z is an artefact of the 32-bit shift, not a sample of either
      // density; it still takes part in the threshold choice below.
      if (saturated) {
        ++rep.saturated_frames;
        continue;
      }
      ++rep.fitted_frames;
      (f.truth == Truth::kOtherMains ? other_z : own_z).push_back(z);
    }
    if (own_z.empty() || other_z.empty()) continue;
    LaplaceFit own, other;
    FitLaplacePair(own_z, other_z, &own, &other);
    std::array<std::int32_t, 4> a = ToTable(own), b = ToTable(other);
    b[2] = std::min(b[2], a[2]);  // rounding must not undo the constraint
    std::copy(a.begin(), a.end(), state == 0 ? para.ev50_l50 : para.ev60_l60);
    std::copy(b.begin(), b.end(), state == 0 ? para.ev50_l60 : para.ev60_l50);
  }

  // Frame counts of the sequential test: the pair that detects most training runs within 10
  // frames (then most at all, then the lower sum of latencies), each state at its own threshold.
  std::vector<std::pair<std::int32_t, std::int32_t>> counts = {
      {base.min_past_frames, base.max_past_frames}};
  if (options.search_frame_counts) {
    for (std::int32_t lo : {2, 3, 4, 5})
      for (std::int32_t hi : {4, 6, 8, 10, 14, 20})
        if (hi >= lo) counts.emplace_back(lo, hi);
  }
  std::int64_t best_key = -1;
  FlkExtPara best = para;
  for (auto [lo, hi] : counts) {
    FlkExtPara p = para;
    p.min_past_frames = lo;
    p.max_past_frames = hi;
    std::int64_t key = 0;
    for (std::int32_t state = 0; state < 2; ++state) {
      // The lowest threshold within the budget sits right at the training data's worst steady
      // frames. Part of the way to the highest one that still detects as many runs within 5 and
      // within 10 frames buys a margin for unseen scenes that the training detection does not pay
      // for.
      const std::int32_t low = ChooseThreshold(train, state, p, options.false_switch_budget);
      Threshold(p, state) = low;
      const TestOutcome at_low = ReplayTest(train, state, p);
      auto as_fast = [&] {
        const TestOutcome o = ReplayTest(train, state, p);
        return o.within5 == at_low.within5 && o.within10 == at_low.within10;
      };
      std::int32_t high = low;
      for (std::int32_t step = 64; step > 0; step /= 2) {
        Threshold(p, state) = high + step;
        while (high + step < 0x100000 && as_fast()) {
          high += step;
          Threshold(p, state) = high + step;
        }
      }
      Threshold(p, state) = low +
                            static_cast<std::int32_t>((high - low) * options.threshold_margin) +
                            options.threshold_headroom;
      const TestOutcome o = ReplayTest(train, state, p);
      std::int64_t latency = 0;
      for (std::int32_t l : o.latencies) latency += l;
      key += std::int64_t{o.within10} * 100000000 + std::int64_t{o.detected} * 100000 +
             (99999 - std::min<std::int64_t>(latency, 99999));
    }
    if (key > best_key) best_key = key, best = p;
  }
  for (std::int32_t state = 0; state < 2; ++state) {
    rep.train[state] = ReplayTest(train, state, best);
    rep.held_out[state] = ReplayTest(held, state, best);
    FlkExtPara defaults = FlkDefaultExtPara();
    defaults.is_zhdr = base.is_zhdr;
    defaults.zhdr_se_small = base.zhdr_se_small;
    defaults.zhdr_gle_first = base.zhdr_gle_first;
    rep.held_out_defaults[state] = ReplayTest(held, state, defaults);
  }
  if (report != nullptr) *report = rep;
  return best;
}

namespace {
void PrintOutcome(const char* what, const TestOutcome& o, std::ostream& out) {
  std::vector<std::int32_t> l = o.latencies;
  std::sort(l.begin(), l.end());
  out << "  " << what << ": other mains detected " << o.detected << "/" << o.positive_runs
      << " runs (" << o.within5 << " within 5 frames, " << o.within10 << " within 10)";
  if (!l.empty()) out << ", median latency " << l[l.size() / 2];
  out << "; false switches " << o.false_switches << " in " << o.negative_frames << " frames\n";
}
}  // namespace

void PrintTuneReport(const TuneReport& r, std::ostream& out) {
  out << "fitted " << r.fitted_frames << " frames (" << r.saturated_frames
      << " saturated deviations left out of the fit), " << r.held_out_frames << " held out\n";
  for (std::int32_t state = 0; state < 2; ++state) {
    out << (state == 0 ? "50 Hz state\n" : "60 Hz state\n");
    PrintOutcome("training          ", r.train[state], out);
    PrintOutcome("held out, tuned   ", r.held_out[state], out);
    PrintOutcome("held out, defaults", r.held_out_defaults[state], out);
  }
}

std::vector<std::array<std::int32_t, 9>> FrequencySets(const FlkExtPara& base) {
  std::vector<std::array<std::int32_t, 9>> sets(1);
  std::copy(std::begin(base.flicker_freq), std::end(base.flicker_freq), sets[0].begin());
  for (const std::array<std::int32_t, 9>& s :
       {std::array<std::int32_t, 9>{40, 60, 80, 100, 120, 140, 160, 180, 200},
        {30, 50, 70, 100, 120, 170, 200, 230, 260},
        {20, 40, 60, 100, 120, 180, 220, 260, 300}}) {
    if (s != sets[0]) sets.push_back(s);
  }
  return sets;
}

std::size_t TuneFrequencies(const EvalMatrix& matrix, const FlkExtPara& base,
                            const TuneOptions& options, std::vector<FrequencyTrial>* trials,
                            const EvalProgress& progress) {
  trials->clear();
  std::size_t best = 0;
  std::int64_t budget = 0, best_within10 = -1, best_runs = 1;
  for (const std::array<std::int32_t, 9>& set : FrequencySets(base)) {
    FrequencyTrial trial;
    trial.freq = set;
    FlkExtPara labelled = base;
    std::copy(set.begin(), set.end(), labelled.flicker_freq);
    std::vector<LabelledFrame> frames;
    Evaluate(matrix, &labelled, progress, &frames);
    trial.frames = static_cast<std::int64_t>(frames.size());
    trial.tuning = Tune(frames, labelled, options, &trial.report);
    const TuneReport& r = trial.report;
    const std::int64_t false_switches = r.held_out[0].false_switches + r.held_out[1].false_switches;
    const std::int64_t within10 = r.held_out[0].within10 + r.held_out[1].within10;
    // Sets differ in which frames count, so runs lit by the other mains too: compare shares.
    const std::int64_t runs =
        std::max(r.held_out[0].positive_runs + r.held_out[1].positive_runs, 1);
    if (trials->empty()) {
      budget = r.held_out_defaults[0].false_switches + r.held_out_defaults[1].false_switches;
    }
    if (false_switches <= budget && within10 * best_runs > best_within10 * runs) {
      best = trials->size();
      best_within10 = within10;
      best_runs = runs;
    }
    trials->push_back(std::move(trial));
  }
  return best;
}

std::vector<TrainingRun> TrainingRuns(std::int32_t family, bool zhdr, std::int32_t runs,
                                      std::uint32_t seed) {
  std::mt19937 rng(seed);
  auto uniform = [&rng](double lo, double hi) {
    return std::uniform_real_distribution<double>(lo, hi)(rng);
  };
  auto pick = [&rng](std::initializer_list<double> v) {
    return *(v.begin() + std::uniform_int_distribution<std::size_t>(0, v.size() - 1)(rng));
  };
  std::vector<TrainingRun> out;
  for (std::int32_t r = 0; r < runs; ++r) {
    TrainingRun run;
    // Standard runs: one in four with zHDR statistics (one tuning serves both modes), one in four
    // on the slow sensor with few, tall windows of the README's library example.
    const double geometry = family == 0 && !zhdr ? uniform(0.0, 1.0) : 1.0;
    run.sensor = DefaultSensor(family, zhdr || geometry < 0.25);
    if (geometry >= 0.25 && geometry < 0.5) {
      run.sensor.line_length = 2200;
      run.sensor.pclk = 24e6;
      run.sensor.column_length = 1500;
      run.sensor.n_win_h = 6;
      run.sensor.n_win_w = 4;
      run.sensor.win_ht = 250;
    } else {
      // Frame rates around the family's own, near-whole multiples of a flicker period included.
      run.sensor.column_length =
          static_cast<std::int32_t>(run.sensor.column_length * uniform(0.8, 1.3));
    }
    const std::int32_t light = r % 3;  // 50 Hz, 60 Hz, steady
    run.state = (r / 3) % 2;
    run.scene.mains_hz = light == 0 ? 50.0 : light == 1 ? 60.0 : 0.0;
    run.scene.depth = uniform(0.05, 0.6);
    run.scene.brightness = uniform(0.1, 0.6);
    run.scene.texture = pick({0.0, 0.5, 1.0, 2.0});
    run.scene.noise = pick({0.5, 1.0, 2.0});
    run.scene.motion = uniform(0.0, 1.0) < 0.3 ? uniform(0.0, 3.0) : 0.0;
    run.scene.hdr_ratio = pick({4.0, 8.0, 16.0});
    if (uniform(0.0, 1.0) < 0.2) {
      run.scene.steps.push_back({static_cast<std::int32_t>(uniform(3.0, 25.0)), uniform(0.7, 1.4)});
    }
    run.scene.seed = seed + static_cast<std::uint32_t>(r);
    // The state's exposure: one period of its own flicker, several, or a short one.
    const double period = run.state == 0 ? 0.01 : 1.0 / 120.0;
    const double frame = run.sensor.FramePeriod();
    switch ((r / 6) % 3) {
      case 0:
        run.exposure_s = period;
        break;
      case 1:
        run.exposure_s = period * std::max(1.0, std::floor(std::min(4.0, frame / period)));
        break;
      default:
        run.exposure_s = period * uniform(0.1, 0.9);
        break;
    }
    run.exposure_s = std::min(run.exposure_s, frame);
    out.push_back(run);
  }
  return out;
}

namespace {
Truth RunTruth(const TrainingRun& run) {
  if (run.scene.depth == 0.0) return Truth::kSteady;
  return TruthFor(run.scene.mains_hz, run.state == 1 ? 60 : 50);
}
}  // namespace

std::vector<LabelledFrame> LabelFrames(const std::vector<TrainingRun>& runs,
                                       const FlkExtPara& para) {
  std::vector<LabelledFrame> out;
  for (std::size_t r = 0; r < runs.size(); ++r) {
    const TrainingRun& run = runs[r];
    SceneSimulator sim(run.sensor, run.scene, run.frames);
    // Lifted thresholds keep the state under test: the energies are what is being collected.
    FlkExtPara p = para;
    p.ev50_thresholds[1] = p.ev60_thresholds[1] = INT_MAX;
    LibrarySession session(run.sensor, run.state == 1 ? 60 : 50, run.exposure_s, false, p);
    Frame prev = sim.Generate(0, run.exposure_s);
    for (std::int32_t i = 1; i < run.frames; ++i) {
      Frame cur = sim.Generate(i, run.exposure_s);
      const FrameResult fr = session.Detect(i, prev, cur);
      LabelledFrame f;
      f.type = run.sensor.type;
      f.state_hz = run.state == 1 ? 60 : 50;
      f.truth = RunTruth(run);
      f.freq_out = fr.energies;
      f.valid = fr.counted;
      f.cell = r;
      f.seed = run.scene.seed;
      f.frame = i;
      out.push_back(f);
      prev = std::move(cur);
    }
  }
  return out;
}

TestOutcome RunLibrary(const std::vector<TrainingRun>& runs, std::int32_t state,
                       const FlkExtPara& para) {
  TestOutcome out;
  for (const TrainingRun& run : runs) {
    if (run.state != state) continue;
    const bool positive = RunTruth(run) == Truth::kOtherMains;
    if (positive) ++out.positive_runs;
    SceneSimulator sim(run.sensor, run.scene, run.frames);
    std::optional<LibrarySession> session;
    auto start = [&] {
      session.reset();
      session.emplace(run.sensor, run.state == 1 ? 60 : 50, run.exposure_s, false, para);
    };
    start();
    Frame prev = sim.Generate(0, run.exposure_s);
    for (std::int32_t i = 1; i < run.frames; ++i) {
      Frame cur = sim.Generate(i, run.exposure_s);
      const FrameResult fr = session->Detect(i, prev, cur);
      prev = std::move(cur);
      if (!positive && fr.counted) ++out.negative_frames;
      if (!fr.switched) continue;
      if (positive) {
        out.Detected(i);
        break;
      }
      // A false switch: the host would now expose for the wrong mains; count it and judge the
      // rest of the run afresh in the state under test.
      ++out.false_switches;
      start();
    }
  }
  return out;
}

}  // namespace kestrel_host
