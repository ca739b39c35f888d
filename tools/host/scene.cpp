// SPDX-License-Identifier: Apache-2.0
// Rolling-shutter scene simulator: integrates a flickering light over each sensor line's exposure
// and packs the result into the statistics grids of one sensor family.
#include "host/scene.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace kestrel_host {

namespace {

// Pixel groups per window row: a statistic sums many pixels, and texture inside a window (some
// of them clipped, some dark) is what makes the sum differ from the level of the mean.
constexpr int kGroups = 4;
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

std::int32_t SensorSetup::StatRows() const {
  return type == 2 ? win_ht : n_win_h * win_ht;
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
  return static_cast<std::int64_t>(StatRows()) * n_win_w;
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
    : sensor_(sensor), scene_(scene), rng_(scene.seed) {
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  phase_ = 2.0 * std::numbers::pi * unit(rng_);

  const Span span = ProfileSpan(sensor_, scene_, frames);
  profile_origin_ = span.origin;
  profile_length_ = static_cast<std::int32_t>(span.length);
  const double active = static_cast<double>(sensor_.StatRows()) * sensor_.LinesPerRow();

  const auto uniform = [&](double a, double b) { return a + (b - a) * unit(rng_); };
  profiles_.assign(static_cast<std::size_t>(sensor_.n_win_w) * kGroups, {});
  for (std::int32_t c = 0; c < sensor_.n_win_w; ++c) {
    // A column of windows: a base level, a gentle gradient, bars with sharp edges (the structure
    // the alignment registers on) and fine texture shared by the column.
    const double base = scene_.brightness * uniform(0.6, 1.4);
    const double slope = uniform(-0.3, 0.3);
    std::vector<double> bars(static_cast<std::size_t>(profile_length_));
    double level = uniform(0.6, 1.5);
    double next_edge = uniform(20.0, 160.0);
    for (std::int32_t i = 0; i < profile_length_; ++i) {
      if (i >= next_edge) {
        level = uniform(0.55, 1.6);
        next_edge += uniform(30.0, 200.0);
      }
      bars[static_cast<std::size_t>(i)] = level;
    }
    const std::vector<double> shared = Texture(rng_, profile_length_, 0.04 * scene_.texture);
    for (int g = 0; g < kGroups; ++g) {
      const double group_gain = uniform(0.8, 1.2);
      const std::vector<double> own = Texture(rng_, profile_length_, 0.08 * scene_.texture);
      std::vector<double>& p = profiles_[static_cast<std::size_t>(c) * kGroups + g];
      p.resize(static_cast<std::size_t>(profile_length_));
      for (std::int32_t i = 0; i < profile_length_; ++i) {
        const std::size_t k = static_cast<std::size_t>(i);
        const double y = (profile_origin_ + i) / std::max(active, 1.0) - 0.5;
        p[k] = std::max(
            0.0, base * bars[k] * (1.0 + slope * y) * group_gain * (1.0 + shared[k] + own[k]));
      }
    }
  }
}

double SceneSimulator::Scene(std::int32_t column, std::int32_t group, double line) const {
  const std::vector<double>& p = profiles_[static_cast<std::size_t>(column) * kGroups + group];
  const double x =
      std::clamp(line - profile_origin_, 0.0, static_cast<double>(profile_length_ - 1));
  const auto i = static_cast<std::size_t>(x);
  if (i + 1 >= p.size()) return p.back();
  const double f = x - static_cast<double>(i);
  return p[i] * (1.0 - f) + p[i + 1] * f;
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

Frame SceneSimulator::Generate(std::int32_t index, double exposure_s) {
  Frame frame;
  frame.exposure_s = exposure_s;
  const std::int32_t rows = sensor_.StatRows();
  const std::int32_t cols = sensor_.n_win_w;
  const std::int32_t lines = std::max(sensor_.LinesPerRow(), 1);
  frame.grid.assign(static_cast<std::size_t>(sensor_.GridSize()), 0);

  double level = 1.0;
  for (const BrightnessStep& step : scene_.steps) {
    if (step.frame <= index) level *= step.factor;
  }

  // Pixels summed into one statistic, and so the noise of one pixel group's mean.
  double pixels = 1.0;
  if (sensor_.type == 0) pixels = sensor_.window_width >> 1;
  if (sensor_.type == 1) pixels = sensor_.window_width;
  if (sensor_.type == 2) {
    pixels = static_cast<double>(sensor_.block_height) * sensor_.window_width;
    if (sensor_.green_only != 0) pixels /= 2.0;
  }
  const double group_pixels = std::max(pixels / kGroups, 1.0);
  std::normal_distribution<double> normal(0.0, 1.0);

  const int shift = RangeShift(sensor_.window_width);
  const double half = sensor_.window_width >> 1;
  const double sum_scale = sensor_.type == 2 ? 4095.0 * std::max(pixels, 1.0) : 1.0;
  const double motion = scene_.motion * index;

  for (std::int32_t r = 0; r < rows; ++r) {
    // zHDR: every other row is the short exposure, darker by the ratio and integrating the light
    // over a shorter time.
    const bool short_row =
        sensor_.type == 0 && sensor_.zhdr && ((r % 2 == 0) != sensor_.zhdr_gle_first);
    const double exposure = short_row ? exposure_s / scene_.hdr_ratio : exposure_s;
    const double gain = short_row ? level / scene_.hdr_ratio : level;
    const double light = RowLight(index, r, exposure);
    for (std::int32_t c = 0; c < cols; ++c) {
      double code_sum = 0.0;
      double linear_sum = 0.0;
      std::int64_t saturated = 0;
      std::int64_t dark = 0;
      for (int g = 0; g < kGroups; ++g) {
        double scene = 0.0;
        for (std::int32_t l = 0; l < lines; ++l) {
          scene += Scene(c, g, static_cast<double>(r) * lines + l + motion);
        }
        double v = scene / lines * light * gain;
        if (scene_.noise > 0.0) {
          const double sigma =
              scene_.noise * std::sqrt(kReadNoise * kReadNoise + std::max(v, 0.0) / kFullWell);
          v += sigma / std::sqrt(group_pixels) * normal(rng_);
        }
        if (v >= 1.0) saturated += sensor_.window_width / kGroups;
        if (v <= kNoiseFloor) dark += sensor_.window_width / kGroups;
        v = std::clamp(v, 0.0, 1.0);
        linear_sum += v;
        if (sensor_.type == 0) code_sum += CompandStandard(v);
      }
      std::int64_t value = 0;
      if (sensor_.type == 0) {
        // Half a window of 16-bit codes (257 x the 8-bit code), scaled down for wide windows.
        value = std::llround(half * 257.0 * code_sum / kGroups / std::ldexp(1.0, shift));
        value = std::clamp<std::int64_t>(value, 0, 0xFFFFFF);
        if (sensor_.zhdr) {
          value |= std::min<std::int64_t>(dark, 4095) << 24;
          value |= std::min<std::int64_t>(saturated, 4095) << 36;
        }
      } else if (sensor_.type == 1) {
        // Mean 10-bit linear level of the window's line.
        value = std::clamp<std::int64_t>(std::llround(linear_sum / kGroups * 1023.0), 0, 1023);
      } else {
        // Sum of 12-bit pixels over the block.
        value = std::llround(linear_sum / kGroups * sum_scale);
      }
      frame.grid[static_cast<std::size_t>(r) * cols + c] = value;
    }
  }
  return frame;
}

}  // namespace kestrel_host
