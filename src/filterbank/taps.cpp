// SPDX-License-Identifier: Apache-2.0
// Tap tables of the filter bank.
#include "filterbank/filterbank.h"

std::int32_t flicker_filter_s[5] = {1, 4, 6, 4, 1};
std::int32_t flicker_filter_s1[13] = {1, 4, 10, 20, 31, 40, 44, 40, 31, 20, 10, 4, 1};
std::int32_t flicker_filter_s2[9] = {1, 1, 1, 1, 1, 1, 1, 1, 1};
std::int32_t flicker_filter_h[2] = {-1, 1};
std::int32_t flicker_filter_h1[3] = {1, 0, -1};
std::int32_t flicker_filter_q[8] = {1, 9, 37, 93, -93, -37, -9, -1};
