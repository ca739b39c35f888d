// SPDX-License-Identifier: Apache-2.0
// zHDR statistics: unpacking the packed words and choosing a column and exposure per band.
#include "standard/standard.h"

std::int32_t ZHDR_LE_SAT_PREV[12];
std::int32_t ZHDR_LE_SAT_CURR[12];
std::int32_t ZHDR_SE_SAT_PREV[12];
std::int32_t ZHDR_SE_SAT_CURR[12];
std::int32_t ZHDR_LE_NOI_PREV[12];
std::int32_t ZHDR_LE_NOI_CURR[12];
std::int32_t ZHDR_SE_NOI_PREV[12];
std::int32_t ZHDR_SE_NOI_CURR[12];
std::int32_t ZHDR_LE_SE_SELECT[10];
