// SPDX-License-Identifier: Apache-2.0
// Runs one sensor family's INIT and a fixed number of DETECTs on textured frames under moving
// 120 Hz banding, for instruction counting under callgrind (bench/callgrind.sh). Instruction
// counts are stable on a shared machine where wall time is not.
//   detect_cost <case> [detects]    cases: see kCases
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "kestrel/flicker.h"

namespace {

struct Case {
  const char* name;
  std::int32_t type, bands, rows, cols;  // type 2: rows is the frame's total
  bool zhdr;
};
constexpr Case kCases[] = {
    {"t0_4x600_5c", 0, 4, 600, 5, false},      {"t0_6x250_4c", 0, 6, 250, 4, false},
    {"t0z_3x800_4c", 0, 3, 800, 4, true},      {"t1_3x300_4c", 1, 3, 300, 4, false},
    {"t1_4x270_4c", 1, 4, 270, 4, false},      {"t1_10x100_4c", 1, 10, 100, 4, false},
    {"t2_3b_300_5c", 2, 3, 300, 5, false},     {"t2_3b_540_5c", 2, 3, 540, 5, false},
    {"t2_10b_1000_5c", 2, 10, 1000, 5, false},
};

void Discard(int, const char*, const char*) {}

// Parabolic sine of a phase in 1/2^32 turns, Q14.
std::int64_t Sin(std::uint32_t phase) {
  const std::int64_t x = (phase & 0x7FFFFFFFu) >> 15;
  const std::int64_t y = 4 * x * (65536 - x) >> 18;
  return (phase & 0x80000000u) ? -y : y;
}

// Statistic of grid row r, column c in frame f, as a fraction (Q16) of full scale: shaded,
// edged content times 1 + 0.25 sin of a 120 Hz band moving 0.3 period a frame, with grain.
std::int64_t Level(std::int32_t f, std::int32_t r, std::int32_t c, std::int32_t rows,
                   std::uint32_t& grain) {
  const std::uint32_t band_phase = static_cast<std::uint32_t>(
      (static_cast<std::uint64_t>(r) << 32) / (rows / 4 + 1) + f * 1288490189ull);
  const std::int64_t band = 16384 + (4096 * Sin(band_phase) >> 14);
  const std::int64_t tex =
      16384 + (5000 * Sin(static_cast<std::uint32_t>(r * 24837193u + c * 0x30000000u)) >> 14) +
      (((r / 53 + c) & 1) << 11);
  grain = grain * 1664525u + 1013904223u;
  return ((30000 * tex >> 14) * band >> 14) + (grain >> 26);
}

}  // namespace

int main(int argc, char** argv) {
  const Case* sc = nullptr;
  for (const Case& c : kCases) {
    if (argc > 1 && std::strcmp(argv[1], c.name) == 0) sc = &c;
  }
  if (sc == nullptr) {
    for (const Case& c : kCases) std::printf("%s\n", c.name);
    return argc > 1 ? 1 : 0;
  }
  const std::int32_t detects = argc > 2 ? std::atoi(argv[2]) : 10;
  SetLogSinkFlk(&Discard);
  const std::int32_t rows = sc->type == 2 ? sc->rows : sc->bands * sc->rows;
  const std::int32_t block = sc->type == 2 ? 4 : 1;
  const std::int32_t width = sc->type == 1 ? 300 : sc->type == 2 ? 100 : 4000;
  if (sc->zhdr) {
    FlkExtPara ext = FlkDefaultExtPara();
    ext.is_zhdr = 1;
    SendCmdFlk(CMD_SET_EXT_PARA, &ext, nullptr);
  }
  FlkInitPara init{sc->type, 2200, rows * block, width, 74.25e6, block, 0};
  SendCmdFlk(CMD_INIT, &init, nullptr);
  EvTable state = EV_TABLE_50HZ;
  SendCmdFlk(CMD_SET_STATE, &state, nullptr);
  const std::int64_t top = sc->type == 0   ? 4000 * 1000
                           : sc->type == 1 ? 1023
                                           : width * block * 4095;
  std::vector<std::int64_t> frames[2];
  std::uint32_t grain = 7;
  for (std::int32_t f = 0; f < 2; ++f) {
    frames[f].resize(static_cast<std::size_t>(rows) * sc->cols);
    for (std::int32_t r = 0; r < rows; ++r) {
      for (std::int32_t c = 0; c < sc->cols; ++c) {
        frames[f][static_cast<std::size_t>(r) * sc->cols + c] =
            Level(f, r, c, rows, grain) * top >> 16;
      }
    }
  }
  std::vector<std::int64_t> p64, c64;
  std::vector<std::int32_t> p32, c32;
  std::int32_t result = 0;
  for (std::int32_t i = 0; i < detects; ++i) {
    // Fresh copies every time: the SONY and zHDR stages rewrite their grids.
    const std::vector<std::int64_t>& prev = frames[i & 1];
    const std::vector<std::int64_t>& cur = frames[(i + 1) & 1];
    FlkDetectPara para{sc->type, nullptr, nullptr, sc->bands, sc->cols, width,
                       sc->rows, 0,       {},      {},        {},       nullptr};
    if (sc->type == 0) {
      p64 = prev;
      c64 = cur;
      para.prev_stats = p64.data();
      para.cur_stats = c64.data();
    } else {
      p32.assign(prev.begin(), prev.end());
      c32.assign(cur.begin(), cur.end());
      para.prev_stats = p32.data();
      para.cur_stats = c32.data();
    }
    SendCmdFlk(CMD_DETECT, &para, &result);
    SendCmdFlk(CMD_RESET_QUEUE, nullptr, nullptr);
  }
  SendCmdFlk(CMD_UNINIT, nullptr, nullptr);
  SetLogSinkFlk(nullptr);
  std::printf("%s: last result %d\n", sc->name, result);
  return 0;
}
