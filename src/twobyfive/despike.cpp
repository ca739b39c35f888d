// SPDX-License-Identifier: Apache-2.0
// 2x5 adaptive despike: none, clip, delete or multiscale-product test by level count.
#include "twobyfive/twobyfive.h"

std::int32_t flicker_despike_working_memory_l2r_32bit[2000];
std::int32_t flicker_despike_working_memory_h1r[2000];
