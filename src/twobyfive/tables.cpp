// SPDX-License-Identifier: Apache-2.0
// 2x5 tables: one statistics sample per block of lines, pure-logarithm log table.
#include "twobyfive/twobyfive.h"

// Placeholder until the 2x5 tables land.
void flicker_init_2x5(std::int32_t, std::int32_t, std::int32_t, std::int32_t, std::int32_t,
                      double) {}
