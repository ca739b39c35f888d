// SPDX-License-Identifier: Apache-2.0
// Rolling-shutter scene simulator: integrates a flickering light over each sensor line's exposure
// and packs the result into the statistics grids of one sensor family.
#include "host/scene.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <numbers>

namespace kestrel_host {

namespace {

// Pixel groups per window row: a statistic sums many pixels, and texture inside a window (some
// of them clipped, some dark) is what makes the sum differ from the level of the mean.
constexpr int kGroups = 4;  // the window sums below add them pairwise
// Sensor noise at the default multiplier, as fractions of full scale: read noise of one pixel and
// the shot noise of a pixel at full scale (a 4000-electron well).
constexpr double kReadNoise = 0.002;
constexpr double kFullWell = 4000.0;
// zHDR counts: a pixel at or below this level counts as noisy.
constexpr double kNoiseFloor = 0.004;

// Range shift of the standard statistics: wide windows are scaled down so the sums stay within
// 24 bits.
int RangeShift(std::int32_t window_width) {
  if (window_width > 4095) return 4;
  if (window_width > 2047) return 3;
  if (window_width > 1023) return 2;
  if (window_width > 511) return 1;
  return 0;
}

// Smoothed white texture, one value per sensor line, zero mean, standard deviation about `amp`.
std::vector<double> Texture(std::mt19937& rng, std::int32_t length, double amp) {
  std::normal_distribution<double> normal(0.0, 1.0);
  std::vector<double> white(static_cast<std::size_t>(length) + 2);
  for (double& w : white) w = normal(rng);
  std::vector<double> out(static_cast<std::size_t>(length));
  // [1 2 1] / 4 keeps a little correlation between neighbouring lines, as optics do; the factor
  // restores the standard deviation the smoothing takes away.
  const double gain = amp / std::sqrt(6.0 / 16.0);
  for (std::size_t i = 0; i < out.size(); ++i) {
    out[i] = gain * (white[i] + 2.0 * white[i + 1] + white[i + 2]) / 4.0;
  }
  return out;
}

// The sensor lines the scene covers: every line any frame looks at, whatever the motion, with a
// margin for the interpolation.
struct Span {
  double origin;
  std::int64_t length;
};

Span ProfileSpan(const SensorSetup& sensor, const SceneSetup& scene, std::int32_t frames) {
  const double active = static_cast<double>(sensor.StatRows()) * sensor.LinesPerRow();
  const double travel = scene.motion * std::max(frames, 1);
  const double origin = std::floor(std::min(0.0, travel) - 16.0);
  const double high = active + std::max(0.0, travel) + 16.0;
  return {origin, static_cast<std::int64_t>(std::ceil(high - origin)) + 1};
}

}  // namespace

std::int64_t SceneSize(const SensorSetup& sensor, const SceneSetup& scene, std::int32_t frames) {
  return static_cast<std::int64_t>(sensor.n_win_w) * kGroups *
         ProfileSpan(sensor, scene, frames).length;
}

namespace {

// A header's factors reach 2^31 each: the product in 64 bits.
std::int64_t Rows(const SensorSetup& s) {
  return s.type == 2 ? s.win_ht : static_cast<std::int64_t>(s.n_win_h) * s.win_ht;
}

}  // namespace

// Saturates for geometries CheckSensorSetup refuses, which the rest never sees.
std::int32_t SensorSetup::StatRows() const {
  return static_cast<std::int32_t>(std::min<std::int64_t>(Rows(*this), INT32_MAX));
}

std::int32_t SensorSetup::LinesPerRow() const {
  return type == 2 ? block_height : 1;
}

std::int64_t SensorSetup::FullScale() const {
  if (type == 1) return 1023;
  if (type == 2) {
    const std::int64_t pixels = static_cast<std::int64_t>(block_height) * window_width;
    return 4095 * std::max<std::int64_t>(green_only != 0 ? pixels / 2 : pixels, 1);
  }
  const std::int64_t sum =
      (static_cast<std::int64_t>(window_width >> 1) * 65535) >> RangeShift(window_width);
  return std::clamp<std::int64_t>(sum, 1, 0xFFFFFF);
}

std::int64_t SensorSetup::GridSize() const {
  return Rows(*this) * n_win_w;
}

double SensorSetup::LineTime() const {
  return line_length / pclk;
}

double SensorSetup::FramePeriod() const {
  return column_length * LineTime();
}

SensorSetup DefaultSensor(std::int32_t type, bool zhdr) {
  SensorSetup s;
  s.type = type;
  // 200 MHz pixel clock, 37.5 ms frames (26.7 frames/s): 4.5 periods of 120 Hz and 3.75 of
  // 100 Hz, so the bands of either mains move between frames.
  s.pclk = 200e6;
  switch (type) {
    case 1:  // one statistic per line, 900 of 1250 lines analysed
      s.line_length = 6000;
      s.column_length = 1250;
      s.window_width = 64;
      s.n_win_h = 3;
      s.n_win_w = 8;
      s.win_ht = 300;
      break;
    case 2:  // one statistic per 4 lines, green only, 600 rows in 3 bands
      s.line_length = 2500;
      s.column_length = 3000;
      s.window_width = 64;
      s.block_height = 4;
      s.green_only = 1;
      s.n_win_h = 3;
      s.n_win_w = 8;
      s.win_ht = 600;
      break;
    default:  // one statistic per line, 2400 of 3000 lines in 3 bands
      s.type = 0;
      s.line_length = 2500;
      s.column_length = 3000;
      s.window_width = 64;
      s.n_win_h = 3;
      s.n_win_w = zhdr ? 4 : 8;  // the zHDR counts hold 12 windows
      s.win_ht = 800;
      s.zhdr = zhdr;
      break;
  }
  return s;
}

double MeanLight(double flicker_hz, double depth, double phase, double t_end, double exposure) {
  if (flicker_hz <= 0.0 || depth == 0.0) return 1.0;
  const double w = 2.0 * std::numbers::pi * flicker_hz;
  if (exposure <= 0.0) return 1.0 + depth * std::cos(w * t_end + phase);
  // Integral of cos over the exposure, divided by its length.
  const double integral =
      (std::sin(w * t_end + phase) - std::sin(w * (t_end - exposure) + phase)) / w;
  return 1.0 + depth * integral / exposure;
}

double CompandStandard(double linear) {
  // Knots of the sensor's tone curve: each step of about the square root of two in the code
  // doubles the linear level (16-bit linear scale).
  static constexpr double kCode[9] = {0, 20, 29, 42, 62, 88, 126, 180, 255};
  static constexpr double kLinear[9] = {0, 512, 1024, 2048, 4096, 8192, 16384, 32768, 65536};
  const double y = std::clamp(linear, 0.0, 1.0) * 65536.0;
  for (int i = 0; i < 8; ++i) {
    if (y <= kLinear[i + 1]) {
      return kCode[i] +
             (y - kLinear[i]) * (kCode[i + 1] - kCode[i]) / (kLinear[i + 1] - kLinear[i]);
    }
  }
  return 255.0;
}

SceneSimulator::SceneSimulator(const SensorSetup& sensor, const SceneSetup& scene,
                               std::int32_t frames)
    : sensor_(sensor), scene_(scene) {
  std::mt19937 rng(scene.seed);
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  phase_ = 2.0 * std::numbers::pi * unit(rng);

  const Span span = ProfileSpan(sensor_, scene_, frames);
  profile_origin_ = span.origin;
  profile_length_ = static_cast<std::int32_t>(span.length);
  const double active = static_cast<double>(sensor_.StatRows()) * sensor_.LinesPerRow();
  const std::size_t length = static_cast<std::size_t>(profile_length_);
  const std::size_t cols = static_cast<std::size_t>(std::max(sensor_.n_win_w, 0));
  const std::size_t stride = cols * kGroups;

  const auto uniform = [&](double a, double b) { return a + (b - a) * unit(rng); };
  std::vector<double> level_at(length * stride);
  for (std::size_t c = 0; c < cols; ++c) {
    // A column of windows: a base level, a gentle gradient, bars with sharp edges (the structure
    // the alignment registers on) and fine texture shared by the column.
    const double base = scene_.brightness * uniform(0.6, 1.4);
    const double slope = uniform(-0.3, 0.3);
    std::vector<double> bars(length);
    double level = uniform(0.6, 1.5);
    double next_edge = uniform(20.0, 160.0);
    for (std::size_t i = 0; i < length; ++i) {
      if (static_cast<double>(i) >= next_edge) {
        level = uniform(0.55, 1.6);
        next_edge += uniform(30.0, 200.0);
      }
      bars[i] = level;
    }
    const std::vector<double> shared = Texture(rng, profile_length_, 0.04 * scene_.texture);
    for (int g = 0; g < kGroups; ++g) {
      const double group_gain = uniform(0.8, 1.2);
      const std::vector<double> own = Texture(rng, profile_length_, 0.08 * scene_.texture);
      for (std::size_t i = 0; i < length; ++i) {
        const double y = (profile_origin_ + static_cast<double>(i)) / std::max(active, 1.0) - 0.5;
        level_at[i * stride + c * kGroups + static_cast<std::size_t>(g)] = std::max(
            0.0, base * bars[i] * (1.0 + slope * y) * group_gain * (1.0 + shared[i] + own[i]));
      }
    }
  }

  // A statistic of several lines sees their mean: average once here, so that a frame reads one
  // value per group whatever the block height (interpolating the means between lines is the
  // mean of the interpolated lines).
  const std::size_t lines = static_cast<std::size_t>(std::max(sensor_.LinesPerRow(), 1));
  if (lines == 1) {
    profiles_ = std::move(level_at);
  } else {
    profiles_.assign(length * stride, 0.0);
    for (std::size_t i = 0; i < length; ++i) {
      for (std::size_t l = 0; l < lines; ++l) {
        const std::size_t from = std::min(i + l, length - 1) * stride;
        for (std::size_t k = 0; k < stride; ++k) profiles_[i * stride + k] += level_at[from + k];
      }
      for (std::size_t k = 0; k < stride; ++k) profiles_[i * stride + k] /= lines;
    }
  }
}

double SceneSimulator::RowLight(std::int32_t index, std::int32_t row, double exposure_s) const {
  const std::int32_t lines = std::max(sensor_.LinesPerRow(), 1);
  const double t_frame = index * sensor_.FramePeriod();
  double sum = 0.0;
  for (std::int32_t l = 0; l < lines; ++l) {
    const double t_end = t_frame + (static_cast<double>(row) * lines + l) * sensor_.LineTime();
    sum += MeanLight(2.0 * scene_.mains_hz, scene_.depth, phase_, t_end, exposure_s);
  }
  return sum / lines;
}

namespace {

// The light of a row in closed form. With a = w t + phase at the end of the first line's exposure,
// the mean over the exposure e of 1 + depth cos(w t + phase) is
//   1 + depth Im(exp(i a) (1 - exp(-i w e))) / (w e),
// and the mean over the L lines of a statistic multiplies exp(i a) by the mean of exp(i w l dt).
// So one complex factor per exposure, and exp(i a) of consecutive rows advances by one rotation.
std::complex<double> LightFactor(double w, double depth, double exposure, double line_dt,
                                 std::int32_t lines) {
  std::complex<double> across{0.0, 0.0};
  for (std::int32_t l = 0; l < lines; ++l) across += std::polar(1.0, w * line_dt * l);
  across /= static_cast<double>(lines);
  if (exposure <= 0.0) {
    // An instant: 1 + depth cos(a) = 1 + Im(exp(i a) i depth).
    return across * std::complex<double>(0.0, depth);
  }
  return across * (1.0 - std::polar(1.0, -w * exposure)) * (depth / (w * exposure));
}

// The standard normal quantile at p in (0, 1): Acklam's rational approximation, relative error
// below 1.2e-9.
double NormalQuantile(double p) {
  static constexpr double a[] = {-3.969683028665376e+01, 2.209460984245205e+02,
                                 -2.759285104469687e+02, 1.383577518672690e+02,
                                 -3.066479806614716e+01, 2.506628277459239e+00};
  static constexpr double b[] = {-5.447609879822406e+01, 1.615858368580409e+02,
                                 -1.556989798598866e+02, 6.680131188771972e+01,
                                 -1.328068155288572e+01};
  static constexpr double c[] = {-7.784894002430293e-03, -3.223964580411365e-01,
                                 -2.400758277161838e+00, -2.549732539343734e+00,
                                 4.374664141464968e+00,  2.938163982698783e+00};
  static constexpr double d[] = {7.784695709041462e-03, 3.224671290700398e-01,
                                 2.445134137142996e+00, 3.754408661907416e+00};
  constexpr double kLow = 0.02425;
  if (p < kLow || p > 1.0 - kLow) {
    const double q = std::sqrt(-2.0 * std::log(p < kLow ? p : 1.0 - p));
    const double x = (((((c[0] * q + c[1]) * q + c[2]) * q + c[3]) * q + c[4]) * q + c[5]) /
                     ((((d[0] * q + d[1]) * q + d[2]) * q + d[3]) * q + 1.0);
    return p < kLow ? x : -x;
  }
  const double q = p - 0.5;
  const double r = q * q;
  return (((((a[0] * r + a[1]) * r + a[2]) * r + a[3]) * r + a[4]) * r + a[5]) * q /
         (((((b[0] * r + b[1]) * r + b[2]) * r + b[3]) * r + b[4]) * r + 1.0);
}

// The quantile at 4096 steps of p; between them a draw interpolates, beyond the outer steps
// (one draw in 2048) it takes the exact quantile.
struct QuantileTable {
  static constexpr int kSteps = 4096;
  // The quantile at a step and the difference to the next one, side by side: a draw reads one
  // pair.
  struct Step {
    double at, rise;
  };
  Step step[kSteps + 1];
  QuantileTable() {
    double at[kSteps + 1];
    for (int i = 1; i < kSteps; ++i) at[i] = NormalQuantile(static_cast<double>(i) / kSteps);
    at[0] = at[1];
    at[kSteps] = at[kSteps - 1];
    for (int i = 0; i < kSteps; ++i) step[i] = {at[i], at[i + 1] - at[i]};
    step[kSteps] = {at[kSteps], 0.0};
  }
};

// Sensor noise of one frame: a counter-based generator, so a frame's noise depends only on the
// seed and the frame's index.
class FrameNoise {
 public:
  FrameNoise(std::uint32_t seed, std::int32_t index)
      : table_(Table()),
        state_((static_cast<std::uint64_t>(seed) << 32) ^ static_cast<std::uint32_t>(index)) {
    Next();
  }

  // A standard normal value, by inverting its distribution function.
  double Normal() {
    const double p = (static_cast<double>(Next() >> 11) + 0.5) * 0x1p-53;
    const double x = p * QuantileTable::kSteps;
    const int i = static_cast<int>(x);
    if (i < 1 || i >= QuantileTable::kSteps - 1) return NormalQuantile(p);
    const QuantileTable::Step& s = table_.step[i];
    return s.at + s.rise * (x - i);
  }

 private:
  // splitmix64
  std::uint64_t Next() {
    std::uint64_t z = (state_ += 0x9E3779B97F4A7C15u);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9u;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBu;
    return z ^ (z >> 31);
  }

  static const QuantileTable& Table() {
    static const QuantileTable table;
    return table;
  }

  const QuantileTable& table_;
  std::uint64_t state_;
};

// CompandStandard as a line per octave of the linear level: the segment of a level is looked up
// from its 1/128 of full scale (the knots sit at powers of two from 1/128 on).
struct CompandLines {
  struct Line {
    double offset, slope, slope2;  // slope2 = slope x slope, the noise's scale
    double unused;                 // a power-of-two stride
  };
  Line line[8];
  std::uint8_t segment[129];

  CompandLines() {
    static constexpr double kCode[9] = {0, 20, 29, 42, 62, 88, 126, 180, 255};
    static constexpr double kLinear[9] = {0, 512, 1024, 2048, 4096, 8192, 16384, 32768, 65536};
    for (int i = 0; i < 8; ++i) {
      const double slope = (kCode[i + 1] - kCode[i]) / (kLinear[i + 1] - kLinear[i]) * 65536.0;
      line[i] = {kCode[i] - slope * kLinear[i] / 65536.0, slope, slope * slope, 0.0};
    }
    for (int q = 0; q <= 128; ++q) {
      int seg = 0;
      while (seg < 7 && q * 512 >= kLinear[seg + 1]) ++seg;
      segment[q] = static_cast<std::uint8_t>(seg);
    }
  }

  // The line of a level in 0..1 from its 128ths (truncated).
  const Line& At(int q) const { return line[segment[q]]; }
};

}  // namespace

void SceneSimulator::FillRowLight(std::int32_t index, double exposure_s) {
  const std::int32_t rows = sensor_.StatRows();
  light_.assign(static_cast<std::size_t>(std::max(rows, 0)), 1.0);
  const double flicker_hz = 2.0 * scene_.mains_hz;
  if (flicker_hz <= 0.0 || scene_.depth == 0.0) return;
  const std::int32_t lines = std::max(sensor_.LinesPerRow(), 1);
  const double w = 2.0 * std::numbers::pi * flicker_hz;
  const double dt = sensor_.LineTime();
  // zHDR rows alternate between the long exposure and the short one.
  const bool zhdr = sensor_.type == 0 && sensor_.zhdr;
  const std::complex<double> factor[2] = {
      LightFactor(w, scene_.depth, exposure_s, dt, lines),
      LightFactor(w, scene_.depth, zhdr ? exposure_s / scene_.hdr_ratio : exposure_s, dt, lines)};
  const double t_frame = index * sensor_.FramePeriod();
  const std::complex<double> step = std::polar(1.0, w * dt * lines);
  std::complex<double> at;
  for (std::int32_t r = 0; r < rows; ++r) {
    // Rotating accumulates rounding: start again from the exact phase every 64 rows.
    if (r % 64 == 0) {
      at = std::polar(1.0, w * (t_frame + static_cast<double>(r) * lines * dt) + phase_);
    } else {
      at *= step;
    }
    const bool short_row = zhdr && ((r % 2 == 0) != sensor_.zhdr_gle_first);
    light_[static_cast<std::size_t>(r)] = 1.0 + (at * factor[short_row ? 1 : 0]).imag();
  }
}

Frame SceneSimulator::Generate(std::int32_t index, double exposure_s) {
  Frame frame;
  Generate(index, exposure_s, frame);
  return frame;
}

void SceneSimulator::Generate(std::int32_t index, double exposure_s, Frame& frame) {
  static const CompandLines compand;
  frame.exposure_s = exposure_s;
  const std::int32_t rows = sensor_.StatRows();
  const std::size_t cols = static_cast<std::size_t>(sensor_.n_win_w);
  const std::int32_t lines = std::max(sensor_.LinesPerRow(), 1);
  frame.grid.assign(static_cast<std::size_t>(sensor_.GridSize()), 0);
  FillRowLight(index, exposure_s);

  double level = 1.0;
  for (const BrightnessStep& step : scene_.steps) {
    if (step.frame <= index) level *= step.factor;
  }

  const double short_level = level / scene_.hdr_ratio;  // zHDR's short rows

  // Pixels summed into one statistic, and so the noise of one pixel group's mean.
  double pixels = 1.0;
  if (sensor_.type == 0) pixels = sensor_.window_width >> 1;
  if (sensor_.type == 1) pixels = sensor_.window_width;
  if (sensor_.type == 2) {
    pixels = static_cast<double>(sensor_.block_height) * sensor_.window_width;
    if (sensor_.green_only != 0) pixels /= 2.0;
  }
  const double group_pixels = std::max(pixels / kGroups, 1.0);
  // Variance of a group's mean level: read noise plus shot noise proportional to the level.
  const double noise2 = scene_.noise * scene_.noise / group_pixels;
  const double read2 = noise2 * kReadNoise * kReadNoise;
  const double shot2 = noise2 / kFullWell;
  FrameNoise noise(scene_.seed, index);

  const int shift = RangeShift(sensor_.window_width);
  const double half = sensor_.window_width >> 1;
  const double sum_scale = sensor_.type == 2 ? 4095.0 * std::max(pixels, 1.0) : 1.0;
  const std::int64_t group_width = sensor_.window_width / kGroups;
  const double code_scale = half * 257.0 / kGroups / std::ldexp(1.0, shift);

  // Every row is displaced by the same motion: one interpolation weight for the whole frame.
  const double position = scene_.motion * index - profile_origin_;
  const double whole = std::floor(position);
  const double frac = position - whole;
  const std::size_t stride = cols * kGroups;
  const double last = static_cast<double>(profile_length_ - 1);
  const bool noisy = scene_.noise > 0.0;

  // A block of statistics rows in passes over contiguous arrays: every group's level and noise
  // variance, each window's code sum and spread, its noise (drawn in row and window order) and its
  // statistic. A block's arrays stay in the first-level cache and its windows are consecutive in
  // the grid, so only the first pass pays anything per row. The family is a template argument to
  // keep the loops branch-free.
  constexpr std::int32_t kBlockRows = 32;
  const std::size_t groups = cols * kGroups;
  const std::size_t block_groups = groups * kBlockRows;
  const std::size_t block_windows = cols * kBlockRows;
  std::vector<double> level_of(block_groups), variance(block_groups);
  // Standard: each group's clamped level in 128ths (Q7, truncated), the compand curve's index.
  std::vector<std::int32_t> level_q7(block_groups);
  std::vector<double> sum(block_windows), sd(block_windows);
  // zHDR: the pixels of each window at full scale and at the noise floor.
  std::vector<std::int64_t> clipped(block_windows), dim(block_windows);
  const auto render = [&]<int kType, bool kZhdr>(std::int32_t first, std::int32_t count) {
    double* __restrict lv_out = level_of.data();
    double* __restrict var_out = variance.data();
    std::int32_t* __restrict q_out = level_q7.data();
    // The noise of a window's sum is drawn once from the sum's distribution: independent groups
    // add their variances; through the compand curve each group's noise is scaled by the curve's
    // slope at its level; a clipped group has none. Levels and variances first (vectorised),
    // then the compand curve's table lookups.
    for (std::int32_t b = 0; b < count; ++b) {
      const std::int32_t r = first + b;
      // zHDR: every other row is the short exposure, darker by the ratio (its light integrates
      // over the shorter time, see FillRowLight).
      const bool short_row = kZhdr && ((r % 2 == 0) != sensor_.zhdr_gle_first);
      const double gain = (short_row ? short_level : level) * light_[static_cast<std::size_t>(r)];
      const double x = std::clamp(static_cast<double>(r) * lines + whole, 0.0, last);
      const std::size_t i0 = static_cast<std::size_t>(x);
      const double* __restrict p0 = profiles_.data() + i0 * stride;
      const double* __restrict p1 =
          i0 + 1 < static_cast<std::size_t>(profile_length_) ? p0 + stride : p0;
      const std::size_t at = static_cast<std::size_t>(b) * groups;
      const auto group_levels = [&](auto level_at) {
        for (std::size_t g = 0; g < groups; ++g) {
          const double v = level_at(g);
          const double lv = std::min(v, 1.0);
          // Both sides computed, then selected: a branch-free loop.
          const double sigma2 = read2 + shot2 * lv;
          lv_out[at + g] = lv;
          var_out[at + g] = v >= 1.0 ? 0.0 : sigma2;
          if constexpr (kType == 0) q_out[at + g] = static_cast<std::int32_t>(lv * 128.0);
        }
      };
      if (frac == 0.0) {
        // Whole lines of motion (or none): the interpolation adds a zero to a non-negative
        // profile, so reading the line itself gives the same level.
        group_levels([&](std::size_t g) { return p0[g] * gain; });
      } else {
        group_levels([&](std::size_t g) { return (p0[g] + (p1[g] - p0[g]) * frac) * gain; });
      }
    }
    const std::size_t windows = static_cast<std::size_t>(count) * cols;
    // Pairwise sums: the groups are independent, the additions need not wait on each other.
    if constexpr (kType == 0) {
      // The compand curve's line is a lookup per group: sum the codes as they come.
      for (std::size_t c = 0; c < windows; ++c) {
        const double* k = lv_out + c * kGroups;
        const double* v = var_out + c * kGroups;
        const std::int32_t* q = q_out + c * kGroups;
        const CompandLines::Line& l0 = compand.At(q[0]);
        const CompandLines::Line& l1 = compand.At(q[1]);
        const CompandLines::Line& l2 = compand.At(q[2]);
        const CompandLines::Line& l3 = compand.At(q[3]);
        sum[c] = ((l0.offset + l0.slope * k[0]) + (l1.offset + l1.slope * k[1])) +
                 ((l2.offset + l2.slope * k[2]) + (l3.offset + l3.slope * k[3]));
        sd[c] = std::sqrt((l0.slope2 * v[0] + l1.slope2 * v[1]) +
                          (l2.slope2 * v[2] + l3.slope2 * v[3]));
        if constexpr (kZhdr) {
          // The clamped level is 1 exactly when the group clips, and equals the level below the
          // noise floor.
          const int saturated = (k[0] >= 1.0) + (k[1] >= 1.0) + (k[2] >= 1.0) + (k[3] >= 1.0);
          const int dark = (k[0] <= kNoiseFloor) + (k[1] <= kNoiseFloor) + (k[2] <= kNoiseFloor) +
                           (k[3] <= kNoiseFloor);
          clipped[c] = saturated * group_width;
          dim[c] = dark * group_width;
        }
      }
    } else {
      for (std::size_t c = 0; c < windows; ++c) {
        const double* k = lv_out + c * kGroups;
        const double* v = var_out + c * kGroups;
        sum[c] = (k[0] + k[1]) + (k[2] + k[3]);
        sd[c] = std::sqrt((v[0] + v[1]) + (v[2] + v[3]));
      }
    }
    if (noisy) {
      for (std::size_t c = 0; c < windows; ++c) sum[c] += sd[c] * noise.Normal();
    }
    std::int64_t* out = frame.grid.data() + static_cast<std::size_t>(first) * cols;
    for (std::size_t c = 0; c < windows; ++c) {
      // Values are non-negative: adding a half and truncating rounds to nearest.
      if constexpr (kType == 0) {
        // Half a window of 16-bit codes (257 x the 8-bit code), scaled down for wide windows.
        std::int64_t value =
            static_cast<std::int64_t>(code_scale * std::clamp(sum[c], 0.0, 255.0 * kGroups) + 0.5);
        value = std::min<std::int64_t>(value, 0xFFFFFF);
        if constexpr (kZhdr) {
          value |= std::min<std::int64_t>(dim[c], 4095) << 24;
          value |= std::min<std::int64_t>(clipped[c], 4095) << 36;
        }
        out[c] = value;
      } else if constexpr (kType == 1) {
        // Mean 10-bit linear level of the window's line.
        out[c] = static_cast<std::int64_t>(
            std::clamp(sum[c], 0.0, 1.0 * kGroups) / kGroups * 1023.0 + 0.5);
      } else {
        // Sum of 12-bit pixels over the block.
        out[c] = static_cast<std::int64_t>(
            std::clamp(sum[c], 0.0, 1.0 * kGroups) / kGroups * sum_scale + 0.5);
      }
    }
  };
  for (std::int32_t first = 0; first < rows; first += kBlockRows) {
    const std::int32_t count = std::min(kBlockRows, rows - first);
    if (sensor_.type == 1) {
      render.template operator()<1, false>(first, count);
    } else if (sensor_.type == 2) {
      render.template operator()<2, false>(first, count);
    } else if (sensor_.zhdr) {
      render.template operator()<0, true>(first, count);
    } else {
      render.template operator()<0, false>(first, count);
    }
  }
}

}  // namespace kestrel_host
