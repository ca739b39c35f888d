// SPDX-License-Identifier: Apache-2.0
// Frame alignment: exposure check, per-window registration and the log-ratio vectors.
#include "standard/standard.h"

std::int32_t cvector_current_full_working_memory[2000];
std::int32_t cvector_prev_full_working_memory[2000];
std::int32_t cvector_current_working_memory[1000];
std::int32_t cvector_prev_working_memory[1000];
std::int32_t grad_current_working_memory[1500];
std::int32_t grad_prev_working_memory[1500];
std::int32_t avector_out_working_memory[12000];
std::int32_t cvector_out_working_memory[12000];
std::int32_t ovector_out_working_memory[12000];
std::int32_t cvector_out1_working_memory[2000];
std::int32_t ovector_out1_working_memory[2000];

bool flicker_exposure_stable(const std::int32_t* cur, const std::int32_t* prev, std::int32_t n) {
  // 64-bit: at most 12000 samples of 32 bits, times 10.
  std::int64_t sum_cur = 0;
  std::int64_t sum_prev = 0;
  for (std::int32_t i = 0; i < n; ++i) {
    sum_cur += cur[i];
    sum_prev += prev[i];
  }
  return !(5 * sum_cur > 7 * sum_prev || sum_prev == 0 || sum_cur == 0 ||
           10 * sum_cur < 7 * sum_prev);
}
