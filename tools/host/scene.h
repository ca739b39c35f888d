// SPDX-License-Identifier: Apache-2.0
// Rolling-shutter scene simulator: integrates a flickering light over each sensor line's exposure
// and packs the result into the statistics grids of one sensor family.
#ifndef KESTREL_TOOLS_SCENE_H
#define KESTREL_TOOLS_SCENE_H

#include <cstdint>
#include <random>
#include <vector>

namespace kestrel_host {

// What the host tells the library about the sensor (INIT) and its statistics (DETECT), plus the
// zHDR packing switches. Field names follow the library's records.
struct SensorSetup {
  std::int32_t type = 0;              // 0 standard, 1 SONY, 2 "2x5"
  std::int32_t line_length = 2500;    // pixel clocks per sensor line
  std::int32_t column_length = 3000;  // sensor lines per frame, blanking included
  double pclk = 200e6;                // pixel clock, Hz
  std::int32_t window_width = 64;     // INIT window width; also DETECT win_wd
  std::int32_t block_height = 0;      // lines per statistic ("2x5" only)
  std::int32_t green_only = 0;        // "2x5" statistics sum green pixels only
  std::int32_t n_win_h = 3;           // bands of windows
  std::int32_t n_win_w = 8;           // columns of windows
  std::int32_t win_ht = 800;          // rows per band ("2x5": rows of the whole frame)
  bool zhdr = false;                  // type 0: words carry zHDR long/short rows and counts
  bool zhdr_gle_first = true;         // even statistics rows are the long exposure
  bool zhdr_se_small = false;         // the library must not use the short exposure

  // Statistics rows of one frame and sensor lines per statistics row.
  std::int32_t StatRows() const;
  std::int32_t LinesPerRow() const;
  // The value of a statistic at full scale (type 0: the 24-bit statistic field).
  std::int64_t FullScale() const;
  // Values in one frame's grid.
  std::int64_t GridSize() const;
  // Seconds per sensor line and per frame.
  double LineTime() const;
  double FramePeriod() const;
};

// Defaults of each sensor family: timing and windows that the family's INIT covers and that make
// the bands move between frames (the frame period is no whole number of flicker periods).
SensorSetup DefaultSensor(std::int32_t type, bool zhdr = false);

// A change of scene brightness at a frame (the scene's own, not the auto-exposure's).
struct BrightnessStep {
  std::int32_t frame = 0;
  double factor = 1.0;
};

// The physical scene and light.
struct SceneSetup {
  double mains_hz = 60.0;   // 50, 60, or 0 for steady light; the light flickers at twice this
  double depth = 0.25;      // modulation depth of the light at twice the mains frequency
  double brightness = 0.3;  // mean scene level as a fraction of full scale
  double texture = 1.0;     // fine texture strength (0: smooth bars and gradients only)
  double noise = 1.0;       // sensor noise multiplier (0: noise-free)
  double motion = 0.0;      // vertical motion, sensor lines per frame (camera panning)
  double hdr_ratio = 8.0;   // zHDR long / short exposure ratio
  std::vector<BrightnessStep> steps;
  std::uint32_t seed = 1;
};

// One frame of statistics as the sensor delivered it. Grid values are 64-bit for every type so
// that one recording format holds them all; types 1 and 2 hold 32-bit values.
struct Frame {
  double exposure_s = 0.0;
  std::vector<std::int64_t> grid;
};

// The mean of a light I(t) = 1 + depth cos(2 pi f t + phase) over [t_end - exposure, t_end],
// relative to the steady light: 1 exactly when the exposure is a whole number of periods.
double MeanLight(double flicker_hz, double depth, double phase, double t_end, double exposure);

// Standard-sensor compand curve: a linear pixel level (0..1 of full scale) to the 0..255 code
// whose 257-fold sums the standard statistics carry.
double CompandStandard(double linear);

// Values the simulator holds for the scene: columns x pixel groups x the sensor lines any frame
// looks at (the statistics' lines and the panning travel over `frames` frames).
std::int64_t SceneSize(const SensorSetup& sensor, const SceneSetup& scene, std::int32_t frames);

class SceneSimulator {
 public:
  SceneSimulator(const SensorSetup& sensor, const SceneSetup& scene, std::int32_t frames);

  // Frame `index` exposed for `exposure_s` seconds (the auto-exposure keeps the image brightness by
  // gain, so the exposure time changes only the flicker, never the level). A frame depends only on
  // the scene, its index and its exposure, not on the frames rendered before it.
  Frame Generate(std::int32_t index, double exposure_s);
  // The same into `out`, reusing its grid's storage.
  void Generate(std::int32_t index, double exposure_s, Frame& out);

  // Mean light seen by statistics row `row` of frame `index` (no scene, no noise): the banding.
  double RowLight(std::int32_t index, std::int32_t row, double exposure_s) const;

 private:
  // Light of every statistics row of frame `index` into light_.
  void FillRowLight(std::int32_t index, double exposure_s);

  SensorSetup sensor_;
  SceneSetup scene_;
  std::int32_t profile_length_ = 0;
  double profile_origin_ = 0.0;
  // Scene level along the sensor lines, [line][column][pixel group], each value already the mean
  // over the lines of one statistic starting at that line.
  std::vector<double> profiles_;
  std::vector<double> light_;
  double phase_ = 0.0;
};

}  // namespace kestrel_host

#endif  // KESTREL_TOOLS_SCENE_H
