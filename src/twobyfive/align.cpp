// SPDX-License-Identifier: Apache-2.0
// 2x5 sub-pixel alignment: eighth-sample shifts over overlapping segments, averaged clipped cost.
#include "twobyfive/twobyfive.h"

std::int32_t vec_log_curr_working_memory[12000];
std::int32_t vec_log_prev_working_memory[12000];
std::int32_t vec_laplace_curr_working_memory[12000];
std::int32_t vec_nonAlign_working_memory[12000];
std::int32_t vec_align1_working_memory[12000];
std::int32_t vec_align2_working_memory[12000];
std::int32_t seg_prev_log_shift_working_memory[2000];
std::int32_t seg_laplace_prev_working_memory[2000];
