// SPDX-License-Identifier: Apache-2.0
// Soak of the command interface: sessions of every family, each an INIT (after a refused INIT or
// a second INIT now and then), a tuning record, SET_STATE, RESET_QUEUE, forty DETECT frames of
// flickering or steady light with a state change half way, and an UNINIT. The session list is
// replayed cycle after cycle; every cycle must answer frame for frame as the reference cycle
// did, and resident memory must not grow.
#ifndef KESTREL_BENCH_SOAK_H
#define KESTREL_BENCH_SOAK_H

#include <kestrel/flicker.h>
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <vector>

namespace kestrel_soak {

struct Session {
  FlkInitPara init;
  FlkInitPara refused;  // sent first when its type is not -1
  bool init_twice;      // INIT again, with the same record, before the frames
  bool zhdr;
  std::int32_t n_win_h, n_win_w, win_ht;
  double rows_per_period;  // of the banding (0: steady light)
  std::int32_t state;      // first state; the other one from frame 20 on
  bool log_flow;           // flow log on, every line into the digest
};

constexpr std::int32_t kFramesPerSession = 40;
constexpr std::int32_t kPhases = 6;  // distinct frames per session, cycled

inline std::vector<Session> Sessions() {
  const FlkInitPara standard{0, 2500, 3000, 64, 200e6, 0, 0};
  const FlkInitPara sony{1, 6000, 1250, 64, 200e6, 0, 0};
  const FlkInitPara twobyfive{2, 2500, 3000, 64, 200e6, 4, 1};
  const FlkInitPara none{-1, 0, 0, 0, 0.0, 0, 0};
  const FlkInitPara bad_length{0, 2500, -1, 64, 200e6, 0, 0};
  const FlkInitPara bad_clock{1, 6000, 1250, 64, std::numeric_limits<double>::quiet_NaN(), 0, 0};
  const FlkInitPara bad_type{7, 2500, 3000, 64, 200e6, 0, 0};
  // Bands: 100 Hz over 12.5 us lines is 800 rows (667 at 120 Hz); SONY lines are 30 us, 2x5 rows
  // four lines of 12.5 us.
  return {
      {standard, none, false, false, 3, 8, 800, 667.0, 0, false},
      {standard, bad_length, false, true, 3, 4, 800, 800.0, 1, false},
      {sony, none, false, false, 3, 8, 300, 278.0, 0, false},
      {twobyfive, bad_type, false, false, 3, 8, 600, 167.0, 0, false},
      {standard, none, true, false, 2, 8, 600, 0.0, 1, false},
      {sony, bad_clock, false, false, 2, 4, 400, 333.0, 1, true},
      {twobyfive, none, true, false, 1, 1, 500, 200.0, 1, false},
      {standard, none, false, false, 4, 6, 500, 800.0, 0, true},
      {sony, none, true, false, 4, 8, 200, 0.0, 0, false},
      {twobyfive, bad_length, false, false, 4, 5, 800, 167.0, 1, false},
      // Geometry each pipeline refuses, between good frames.
      {standard, none, false, false, 11, 8, 800, 667.0, 0, false},
      {twobyfive, none, false, false, 3, 11, 600, 167.0, 1, false},
  };
}

// Resident memory of the process, in bytes: `field` "RssAnon" (heap, stacks, static data; where a
// leak shows) or "VmRSS" (also the library and libc code paged in, which grows when a rare path
// first runs).
inline std::int64_t ResidentBytes(const char* field = "RssAnon") {
  std::int64_t kib = -1;
  if (std::FILE* f = std::fopen("/proc/self/status", "r")) {
    char line[256];
    const std::size_t n = std::strlen(field);
    while (std::fgets(line, sizeof line, f) != nullptr) {
      if (std::strncmp(line, field, n) == 0 && line[n] == ':') {
        kib = std::strtoll(line + n + 1, nullptr, 10);
        break;
      }
    }
    std::fclose(f);
  }
  return kib * 1024;
}

class Soak {
 public:
  Soak() : sessions_(Sessions()) {
    SetLogSinkFlk(&Soak::Sink);
    std::size_t largest = 0;
    for (const Session& s : sessions_) {
      grids_.push_back(Grids(s));
      const SessionGrids& g = grids_.back();
      largest = std::max(largest, g.wide.empty() ? g.narrow[0].size() : g.wide[0].size());
    }
    // The DETECT copies are sized once: the loop itself allocates nothing.
    wide_prev_.reserve(largest);
    wide_cur_.reserve(largest);
    narrow_prev_.reserve(largest);
    narrow_cur_.reserve(largest);
  }
  ~Soak() { SetLogSinkFlk(nullptr); }
  Soak(const Soak&) = delete;
  Soak& operator=(const Soak&) = delete;

  // One pass over every session; the first result list kept is the reference of later cycles.
  // Returns the frames run.
  std::int64_t Cycle(bool keep_as_reference) {
    std::int64_t frames = 0;
    if (keep_as_reference) reference_.assign(sessions_.size(), {});
    for (std::size_t i = 0; i < sessions_.size(); ++i) {
      results_.clear();  // capacity kept: one session's frames
      RunSession(sessions_[i], grids_[i]);
      frames += static_cast<std::int64_t>(results_.size());
      if (keep_as_reference) {
        reference_[i] = results_;
      } else if (!reference_.empty() && results_ != reference_[i]) {
        ++mismatches_;
      }
    }
    return frames;
  }

  std::int64_t mismatches() const { return mismatches_; }
  std::uint64_t digest() const { return digest_; }

 private:
  // Frame f of a session: phase f mod kPhases; SONY rewrites its grids, so each DETECT gets a copy.
  struct SessionGrids {
    std::vector<std::vector<std::int64_t>> wide;
    std::vector<std::vector<std::int32_t>> narrow;
  };

  static SessionGrids Grids(const Session& s) {
    const std::int64_t rows = s.init.type == 2 ? s.win_ht : std::int64_t{s.n_win_h} * s.win_ht;
    const std::int64_t values = rows * s.n_win_w;
    SessionGrids g;
    for (std::int32_t p = 0; p < kPhases; ++p) {
      std::vector<std::int64_t> v(static_cast<std::size_t>(values));
      for (std::int64_t r = 0; r < rows; ++r) {
        const double band =
            s.rows_per_period > 0.0
                ? 0.2 * std::cos(6.283185307179586 * (r + p * 1234.0) / s.rows_per_period)
                : 0.0;
        for (std::int32_t c = 0; c < s.n_win_w; ++c) {
          const double scene = 1.0 + 0.3 * std::sin(0.05 * r + c) + 0.05 * ((r * 7 + c * 3) % 5);
          const double level = s.init.type == 1 ? 300.0 : (s.init.type == 2 ? 2000.0 : 400000.0);
          v[static_cast<std::size_t>(r * s.n_win_w + c)] =
              static_cast<std::int64_t>(level * scene * (1.0 + band));
        }
      }
      if (s.init.type == 0) {
        g.wide.push_back(std::move(v));
      } else {
        g.narrow.emplace_back(v.begin(), v.end());
      }
    }
    return g;
  }

  void RunSession(const Session& s, const SessionGrids& g) {
    FlkLogPara level = s.log_flow ? FLK_LOG_FLOW : 0u;
    SendCmdFlk(CMD_SET_LOG_LEVEL, &level, nullptr);
    if (s.refused.type != -1) {
      FlkInitPara refused = s.refused;
      SendCmdFlk(CMD_INIT, &refused, nullptr);
    }
    FlkInitPara init = s.init;
    SendCmdFlk(CMD_INIT, &init, nullptr);
    if (s.init_twice) SendCmdFlk(CMD_INIT, &init, nullptr);
    FlkExtPara ext = FlkDefaultExtPara();
    ext.is_zhdr = s.zhdr ? 1 : 0;
    SendCmdFlk(CMD_SET_EXT_PARA, &ext, nullptr);

    for (std::int32_t f = 0; f < kFramesPerSession; ++f) {
      if (f == 0 || f == kFramesPerSession / 2) {
        EvTable state = static_cast<EvTable>(f == 0 ? s.state : 1 - s.state);
        SendCmdFlk(CMD_SET_STATE, &state, nullptr);
        SendCmdFlk(CMD_RESET_QUEUE, nullptr, nullptr);
      }
      FlkDetectPara d{};
      d.type = s.init.type;
      d.n_win_h = s.n_win_h;
      d.n_win_w = s.n_win_w;
      d.win_wd = s.init.window_width;
      d.win_ht = s.win_ht;
      d.cur_freq = s.state;
      const std::size_t prev = static_cast<std::size_t>((f + kPhases - 1) % kPhases);
      const std::size_t cur = static_cast<std::size_t>(f % kPhases);
      if (s.init.type == 0) {
        wide_prev_ = g.wide[prev];
        wide_cur_ = g.wide[cur];
        d.prev_stats = wide_prev_.data();
        d.cur_stats = wide_cur_.data();
      } else {
        narrow_prev_ = g.narrow[prev];
        narrow_cur_ = g.narrow[cur];
        d.prev_stats = narrow_prev_.data();
        d.cur_stats = narrow_cur_.data();
      }
      std::int32_t result = -1;
      SendCmdFlk(CMD_DETECT, &d, &result);
      results_.push_back(static_cast<std::int8_t>(result));
      Mix(&result, sizeof result);
    }
    SendCmdFlk(CMD_UNINIT, nullptr, nullptr);
  }

  static void Mix(const void* data, std::size_t size) {
    const auto* p = static_cast<const unsigned char*>(data);
    for (std::size_t i = 0; i < size; ++i) digest_ = (digest_ ^ p[i]) * 1099511628211ull;
  }
  static void Sink(int, const char*, const char* text) { Mix(text, std::strlen(text)); }

  std::vector<Session> sessions_;
  std::vector<SessionGrids> grids_;
  std::vector<std::vector<std::int8_t>> reference_;
  std::vector<std::int8_t> results_;
  std::vector<std::int64_t> wide_prev_, wide_cur_;
  std::vector<std::int32_t> narrow_prev_, narrow_cur_;
  std::int64_t mismatches_ = 0;
  static inline std::uint64_t digest_ = 14695981039346656037ull;
};

}  // namespace kestrel_soak

#endif  // KESTREL_BENCH_SOAK_H
