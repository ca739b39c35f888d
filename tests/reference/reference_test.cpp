// SPDX-License-Identifier: Apache-2.0
// Reference comparison: many varied scenes of every sensor family run through SendCmdFlk and
// everything observable (results, logs, tables, every exported working memory, the caller's
// rewritten grids) is folded into one digest per scene, compared with digests.txt.
//
// The frames come from an integer-only generator in this file (a splitmix64 stream and a
// parabolic sine), so the digests depend on nothing but the library: no libm, no host simulator.
// Regenerate after a deliberate behaviour change with
//   KESTREL_REFERENCE_WRITE=1 ctest -R reference
// and review the diff of digests.txt like any other change of behaviour.
//
// KESTREL_REFERENCE_SEED=<n> draws other scenes, 20 times as many, two in three of seven to ten
// bands, and prints their digests instead of comparing: run the test program against two builds
// of the library (LD_LIBRARY_PATH=<build>) and diff the outputs.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "decision/decision.h"
#include "filterbank/filterbank.h"
#include "kestrel/flicker.h"
#include "sony/sony.h"
#include "standard/standard.h"
#include "support.h"
#include "twobyfive/twobyfive.h"

namespace {

std::uint64_t Mix(std::uint64_t& s) {  // splitmix64
  std::uint64_t z = (s += 0x9E3779B97F4A7C15ull);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return z ^ (z >> 31);
}
std::int64_t Pick(std::uint64_t& s, std::int64_t lo, std::int64_t hi) {  // lo..hi inclusive
  return lo + static_cast<std::int64_t>(Mix(s) % static_cast<std::uint64_t>(hi - lo + 1));
}

// FNV-1a 64 over bytes.
struct Digest {
  std::uint64_t h = 0xCBF29CE484222325ull;
  void Bytes(const void* p, std::size_t n) {
    const auto* b = static_cast<const unsigned char*>(p);
    for (std::size_t i = 0; i < n; ++i) h = (h ^ b[i]) * 0x100000001B3ull;
  }
  void Text(const std::string& s) { Bytes(s.c_str(), s.size() + 1); }
  template <typename T>
  void Value(T v) {
    Bytes(&v, sizeof v);
  }
  template <typename T, std::size_t N>
  void Array(const T (&a)[N]) {
    Bytes(a, sizeof a);
  }
};
Digest* g_digest = nullptr;
void Sink(int, const char*, const char* text) {
  g_digest->Text(text);
  if (std::getenv("KESTREL_REFERENCE_TRACE") != nullptr) std::fprintf(stderr, "%s\n", text);
}

// Sine of a phase in 1/2^32 turns, Q14, from the parabola 4x(1 - x) on each half turn.
std::int64_t Sin(std::uint32_t phase) {
  const std::int64_t x = (phase & 0x7FFFFFFFu) >> 15;  // 0..65535 within the half turn
  const std::int64_t y = 4 * x * (65536 - x) >> 18;    // Q14
  return (phase & 0x80000000u) ? -y : y;
}

struct Scene {
  std::string name;
  std::int32_t type = 0;
  bool zhdr = false;
  std::int32_t bands = 3, cols = 4, win_ht = 300;  // type 2: win_ht is the frame's rows
  std::int32_t frames = 8;
  std::uint64_t seed = 1;
};

// Grid row r of frame f as seen through the sensor's timing: textured, banded, noisy, clipped.
struct Light {
  std::uint32_t phase_per_row, phase_per_frame, texture_period, depth_q14, texture_q14, noise;
  std::int32_t base_q16, motion, step_frame, step_q8, dark_frame;
  std::int64_t top;  // full scale of a statistic
  std::int64_t clip;
};

template <typename T>
std::vector<T> Frame(const Scene& sc, const Light& L, std::int32_t rows, std::int32_t f,
                     std::uint64_t noise_seed) {
  std::vector<T> grid(static_cast<std::size_t>(rows) * sc.cols);
  std::int64_t base = L.base_q16;
  if (f >= L.step_frame) base = base * L.step_q8 >> 8;
  if (f == L.dark_frame) base >>= 6;
  for (std::int32_t r = 0; r < rows; ++r) {
    const std::int64_t band =
        16384 + (L.depth_q14 * Sin(L.phase_per_frame * f + L.phase_per_row * r) >> 14);
    for (std::int32_t c = 0; c < sc.cols; ++c) {
      const std::uint32_t tp = static_cast<std::uint32_t>(
          ((r + L.motion * f) * 65536ll / L.texture_period + c * 9000) << 16);
      const std::int64_t tex =
          16384 + (L.texture_q14 * Sin(tp) >> 14) + ((((r + L.motion * f) / 37 + c) & 1) << 11);
      std::int64_t v = (base * tex >> 14) * band >> 14;  // Q16 of full scale
      v = v * L.top >> 16;
      v += L.noise ? static_cast<std::int64_t>(Mix(noise_seed) % (2 * L.noise + 1)) - L.noise : 0;
      v = v < 0 ? 0 : v > L.clip ? L.clip : v;
      if (sc.zhdr) {  // noise and saturation counts above the 24-bit value
        v = (v & 0xFFFFFF) | static_cast<std::int64_t>(Mix(noise_seed) % 64) << 24 |
            static_cast<std::int64_t>(v >= L.clip ? 300 + (r & 31) : 0) << 36;
      }
      grid[static_cast<std::size_t>(r) * sc.cols + c] = static_cast<T>(v);
    }
  }
  return grid;
}

// Every exported working memory after a frame: the contract keeps them identical, not only the
// results.
void WorkingMemories(Digest& d) {
  d.Array(g_scoreQueue);
  d.Array(convolve_analysis_working_memory_32);
  d.Array(convolve_analysis_working_memory_64);
  d.Array(convolve_synthesis_working_memory_32);
  d.Array(convolve_synthesis_working_memory_64);
  d.Array(ovector_out_tmp_working_memory);
  d.Array(cvector_out_tmp_working_memory);
  d.Array(flicker_despike_working_memory_h1_sony);
  d.Array(flicker_despike_working_memory_l1_sony);
  d.Array(flicker_despike_working_memory_h2_sony);
  d.Array(flicker_despike_working_memory_l2_sony);
  d.Array(flicker_despike_working_memory_h2r_sony);
  d.Array(flicker_despike_working_memory_l2r_sony);
  d.Array(flicker_despike_working_memory_l1r_sony);
  d.Array(line_prev_working_memory);
  d.Array(line_curr_working_memory);
  d.Array(cvector_current_full_working_memory);
  d.Array(cvector_prev_full_working_memory);
  d.Array(cvector_current_working_memory);
  d.Array(cvector_prev_working_memory);
  d.Array(grad_current_working_memory);
  d.Array(grad_prev_working_memory);
  d.Array(avector_out_working_memory);
  d.Array(cvector_out_working_memory);
  d.Array(ovector_out_working_memory);
  d.Array(cvector_out1_working_memory);
  d.Array(ovector_out1_working_memory);
  d.Array(cvector_current_down_working_memory);
  d.Array(cvector_prev_down_working_memory);
  d.Array(cvector_out_test_working_memory);
  d.Array(cvector_out_test_length_working_memory);
  d.Array(flicker_despike_working_memory_input1);
  d.Array(flicker_despike_working_memory_h1);
  d.Array(flicker_despike_working_memory_l1);
  d.Array(flicker_despike_working_memory_h2);
  d.Array(flicker_despike_working_memory_l2);
  d.Array(flicker_despike_working_memory_h3);
  d.Array(flicker_despike_working_memory_l3);
  d.Array(flicker_despike_working_memory_h_tmp);
  d.Array(flicker_despike_working_memory_h_mask);
  d.Array(flicker_despike_working_memory_h3r);
  d.Array(flicker_despike_working_memory_h2r);
  d.Array(flicker_despike_working_memory_l3r);
  d.Array(flicker_despike_working_memory_l2r);
  d.Array(flicker_despike_working_memory_l1r);
  d.Array(ZHDR_LE_SAT_PREV);
  d.Array(ZHDR_LE_SAT_CURR);
  d.Array(ZHDR_SE_SAT_PREV);
  d.Array(ZHDR_SE_SAT_CURR);
  d.Array(ZHDR_LE_NOI_PREV);
  d.Array(ZHDR_LE_NOI_CURR);
  d.Array(ZHDR_SE_NOI_PREV);
  d.Array(ZHDR_SE_NOI_CURR);
  d.Array(ZHDR_LE_SE_SELECT);
  d.Array(vec_log_curr_working_memory);
  d.Array(vec_log_prev_working_memory);
  d.Array(vec_laplace_curr_working_memory);
  d.Array(vec_nonAlign_working_memory);
  d.Array(vec_align1_working_memory);
  d.Array(vec_align2_working_memory);
  d.Array(seg_prev_log_shift_working_memory);
  d.Array(seg_laplace_prev_working_memory);
  d.Array(flicker_despike_working_memory_l2r_32bit);
  d.Array(flicker_despike_working_memory_h1r);
}

template <typename T>
std::string RunScene(const Scene& sc, Digest& d) {
  std::uint64_t s = sc.seed * 0x2545F4914F6CDD1Dull;
  const std::int32_t rows = sc.type == 2 ? sc.win_ht : sc.bands * sc.win_ht;
  const std::int32_t block = sc.type == 2 ? static_cast<std::int32_t>(Pick(s, 2, 8)) : 1;
  FlkInitPara init{sc.type,
                   static_cast<std::int32_t>(Pick(s, 900, 3000)),
                   rows * block,
                   static_cast<std::int32_t>(sc.type == 1 ? Pick(s, 100, 600) : Pick(s, 60, 4000)),
                   static_cast<double>(Pick(s, 40, 160)) * 1e6,
                   block,
                   static_cast<std::int32_t>(Pick(s, 0, 1))};
  const std::int32_t hz = Pick(s, 0, 5) == 0 ? 0 : Pick(s, 0, 1) ? 120 : 100;
  const double line = init.line_length / init.pclk * block;
  Light L{};
  L.phase_per_row = static_cast<std::uint32_t>(hz * line * 4294967296.0);
  L.phase_per_frame = static_cast<std::uint32_t>(
      static_cast<std::uint64_t>(hz * line * 4294967296.0 * Pick(s, rows, rows + 400)));
  L.texture_period = static_cast<std::uint32_t>(Pick(s, 17, 700));
  L.depth_q14 = static_cast<std::uint32_t>(Pick(s, 0, 6000));
  L.texture_q14 = static_cast<std::uint32_t>(Pick(s, 0, 9000));
  L.base_q16 = static_cast<std::int32_t>(Pick(s, 2000, 60000));
  L.motion = static_cast<std::int32_t>(Pick(s, -3, 3));
  L.step_frame = static_cast<std::int32_t>(Pick(s, 2, 3 * sc.frames));
  L.step_q8 = static_cast<std::int32_t>(Pick(s, 160, 360));
  L.dark_frame = static_cast<std::int32_t>(Pick(s, 1, 3 * sc.frames));
  d.Value(hz);

  FlkExtPara ext = FlkDefaultExtPara();
  if (Pick(s, 0, 1)) {  // a retuned host
    ext.flicker_grad_threshold = static_cast<std::int32_t>(Pick(s, 10, 80));
    ext.flicker_search_range = static_cast<std::int32_t>(Pick(s, 4, 40));
    ext.min_past_frames = static_cast<std::int32_t>(Pick(s, 1, 4));
    ext.max_past_frames = static_cast<std::int32_t>(Pick(s, 4, 20));
    ext.ev50_thresholds[1] = ext.ev60_thresholds[1] = static_cast<std::int32_t>(Pick(s, 2, 12));
    ext.freq_feature_index[0] = static_cast<std::int32_t>(Pick(s, 3, 4));
    ext.freq_feature_index[1] = static_cast<std::int32_t>(Pick(s, 3, 4));
  }
  ext.is_zhdr = sc.zhdr;
  ext.zhdr_se_small = sc.zhdr && Pick(s, 0, 3) == 0;
  ext.zhdr_gle_first = static_cast<std::uint8_t>(Pick(s, 0, 1));
  FlkLogPara all = FLK_LOG_FLOW | FLK_LOG_LINE_DATA;
  SendCmdFlk(CMD_SET_LOG_LEVEL, &all, nullptr);
  SendCmdFlk(CMD_SET_EXT_PARA, &ext, nullptr);
  SendCmdFlk(CMD_INIT, &init, nullptr);
  // The tables INIT built.
  d.Value(g_flkTabW);
  d.Value(g_valuMax);
  if (g_flkTab1 != nullptr && g_flkTab2 != nullptr && g_flkCompTab != nullptr) {
    d.Bytes(g_flkTab1, 9 * sizeof(std::int32_t) * static_cast<std::size_t>(g_flkTabW));
    d.Bytes(g_flkTab2, 9 * sizeof(std::int32_t) * static_cast<std::size_t>(g_flkTabW));
    // SONY's log table has an entry per statistic, the others one per 4096.
    const std::size_t entries = sc.type == 1 ? static_cast<std::size_t>(g_valuMax) + 2
                                             : static_cast<std::size_t>(g_valuMax + 8192) >> 12;
    d.Bytes(g_flkCompTab, sizeof(std::int32_t) * entries);
  }
  std::int32_t state = static_cast<std::int32_t>(Pick(s, 0, 1));
  SendCmdFlk(CMD_SET_STATE, &state, nullptr);
  if (sc.type == 0) {
    L.top = g_valuMax;
  } else if (sc.type == 1) {
    L.top = 1023;
  } else {
    L.top = static_cast<std::int64_t>(init.window_width) * block * 4095;
  }
  L.top = sc.zhdr && L.top > 0xFFFFFF ? 0xFFFFFF : L.top;
  L.clip = L.top * Pick(s, 70, 100) / 100;
  L.noise = static_cast<std::uint32_t>(L.top * Pick(s, 0, 20) / 4000);

  std::string codes;
  std::vector<T> prev = Frame<T>(sc, L, rows, 0, Mix(s));
  for (std::int32_t f = 1; f <= sc.frames; ++f) {
    std::vector<T> cur = Frame<T>(sc, L, rows, f, Mix(s));
    std::vector<T> p = prev, c = cur;  // the SONY and zHDR stages rewrite the grids
    FlkDetectPara para{sc.type,   p.data(), c.data(), sc.bands, sc.cols, init.window_width,
                       sc.win_ht, state,    {},       {},       {},      nullptr};
    const std::int64_t event = Pick(s, 0, 19);
    if (event == 0) para.cur_stats = nullptr;       // refused: no grid
    if (event == 1) para.type = (sc.type + 1) % 3;  // refused: no tables of that type
    std::int32_t result = -1;
    SendCmdFlk(CMD_DETECT, &para, &result);
    codes += static_cast<char>('0' + (result & 7));
    d.Value(result);
    WorkingMemories(d);
    d.Value(g_queueHead);
    d.Value(g_queueCount);
    d.Bytes(p.data(), p.size() * sizeof(T));
    d.Bytes(c.data(), c.size() * sizeof(T));
    if (event == 2 || event == 3) {  // the host follows a switch, or changes its mind
      state = event == 2 ? (result == FLK_RESULT_60HZ) : !state;
      SendCmdFlk(CMD_SET_STATE, &state, nullptr);
      if (Pick(s, 0, 1)) SendCmdFlk(CMD_RESET_QUEUE, nullptr, nullptr);
    }
    prev = cur;
  }
  SendCmdFlk(CMD_UNINIT, nullptr, nullptr);
  return codes;
}

// Per family a set of drawn geometries, plus the ten-window searches and the largest frames.
std::vector<Scene> Scenes(const char* seed) {
  std::vector<Scene> scenes;
  std::uint64_t s = seed == nullptr ? 20261124 : std::strtoull(seed, nullptr, 10);
  const std::int32_t scale = seed == nullptr ? 1 : 20;
  auto add = [&](const char* family, std::int32_t type, bool zhdr, std::int32_t count) {
    for (std::int32_t i = 0; i < count * scale; ++i) {
      Scene sc;
      sc.name = family + std::to_string(i);
      sc.type = type;
      sc.zhdr = zhdr;
      sc.seed = Mix(s);
      sc.frames = static_cast<std::int32_t>(Pick(s, 4, 14));
      sc.bands =
          static_cast<std::int32_t>(seed != nullptr ? (i % 3 ? Pick(s, 7, 10) : Pick(s, 1, 10))
                                    : i < 2         ? 10
                                                    : Pick(s, 1, 10));
      if (type == 0) {
        // zHDR: even window heights keep one counter group per band.
        sc.cols = static_cast<std::int32_t>(Pick(s, 1, zhdr ? 12 / (sc.bands + 1) : 10));
        const std::int32_t most = std::min({2000, 2400 / sc.bands, 12000 / sc.cols});
        sc.win_ht = static_cast<std::int32_t>(Pick(s, 53, most)) & (zhdr ? ~1 : ~0);
      } else if (type == 1) {
        sc.cols = static_cast<std::int32_t>(Pick(s, 1, 10));
        sc.win_ht = static_cast<std::int32_t>(Pick(s, 4, std::min(1000, 1500 / sc.bands)));
      } else {
        sc.cols = static_cast<std::int32_t>(Pick(s, 1, 8));
        sc.win_ht = static_cast<std::int32_t>(Pick(s, 4 * sc.bands, 1500));
      }
      scenes.push_back(sc);
    }
  };
  add("standard_", 0, false, 18);
  add("zhdr_", 0, true, 12);
  add("sony_", 1, false, 18);
  add("twobyfive_", 2, false, 18);
  return scenes;
}

// The INIT lines on standard output report how long the tables took: the one varying number.
std::string WithoutTimings(std::string text) {
  for (std::size_t at = text.find("time"); at != std::string::npos;
       at = text.find("time", at + 1)) {
    const std::size_t from = text.find_first_not_of(" :=", at + 4);
    if (from == std::string::npos) break;
    const std::size_t end = text.find_first_not_of("0123456789.", from);
    text.erase(from, end == std::string::npos ? std::string::npos : end - from);
  }
  return text;
}

std::string DigestsPath() {
  return std::string(KESTREL_REFERENCE_DIR) + "/digests.txt";
}

TEST(Reference, EveryFamilyMatchesTheRecordedDigests) {
  // At load the fine search's slot pointers already name its ten slots.
  for (std::int32_t i = 0; i < 10; ++i) {
    EXPECT_EQ(cvector_out_test_ptr_array[i], cvector_out_test_working_memory + 1000 * i) << i;
  }
  kestrel_test::ResetLibraryState();
  std::map<std::string, std::string> expected;
  {
    std::ifstream in(DigestsPath());
    std::string name, rest;
    while (in >> name && std::getline(in, rest)) expected[name] = rest.substr(1);
  }
  std::ostringstream written;
  const char* const seed = std::getenv("KESTREL_REFERENCE_SEED");
  for (const Scene& sc : Scenes(seed)) {
    Digest d;
    g_digest = &d;
    SetLogSinkFlk(&Sink);
    testing::internal::CaptureStdout();
    const std::string codes =
        sc.type == 0 ? RunScene<std::int64_t>(sc, d) : RunScene<std::int32_t>(sc, d);
    const std::string out = WithoutTimings(testing::internal::GetCapturedStdout());
    if (std::getenv("KESTREL_REFERENCE_TRACE") != nullptr) std::fprintf(stderr, "%s", out.c_str());
    d.Text(out);
    SetLogSinkFlk(nullptr);
    kestrel_test::ResetLibraryState();
    char hex[17];
    std::snprintf(hex, sizeof hex, "%016llx", static_cast<unsigned long long>(d.h));
    const std::string line = std::string(hex) + " " + codes;
    written << sc.name << " " << line << "\n";
    if (seed != nullptr) {
      std::printf("%s %s\n", sc.name.c_str(), line.c_str());
      continue;
    }
    EXPECT_EQ(expected[sc.name], line)
        << sc.name << " (" << sc.bands << " x " << sc.win_ht << ", " << sc.cols << " columns)";
  }
  if (seed == nullptr && std::getenv("KESTREL_REFERENCE_WRITE") != nullptr) {
    std::ofstream(DigestsPath()) << written.str();
  }
}

}  // namespace
