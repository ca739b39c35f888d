// SPDX-License-Identifier: Apache-2.0
// SONY despike: two-level split, first-difference spike test, rebuild with the fine detail.
#include "sony/sony.h"

std::int32_t flicker_despike_working_memory_h1_sony[2000];
std::int32_t flicker_despike_working_memory_l1_sony[2000];
std::int32_t flicker_despike_working_memory_h2_sony[2000];
std::int32_t flicker_despike_working_memory_l2_sony[2000];
std::int32_t flicker_despike_working_memory_h2r_sony[2000];
std::int32_t flicker_despike_working_memory_l2r_sony[2000];
std::int32_t flicker_despike_working_memory_l1r_sony[2000];
