// SPDX-License-Identifier: Apache-2.0
// Standard tables: the cosine/sine tables at the statistics rows' instants and the log table.
#include "standard/standard.h"

#include <cstdlib>

std::int32_t* g_flkTab1 = nullptr;
std::int32_t* g_flkTab2 = nullptr;
std::int32_t* g_flkCompTab = nullptr;
std::int32_t g_flkTabW = 0;
std::int32_t g_valuMax = 0;

// Placeholder until the standard tables land.
void flicker_init(std::int32_t, std::int32_t, std::int32_t, double) {}

void flicker_uninit() {
  std::free(g_flkTab1);
  std::free(g_flkTab2);
  std::free(g_flkCompTab);
  g_flkTab1 = nullptr;
  g_flkTab2 = nullptr;
  g_flkCompTab = nullptr;
}
