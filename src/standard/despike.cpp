// SPDX-License-Identifier: Apache-2.0
// Standard despike: three-level undecimated wavelet split, multiscale-product spike test, rebuild.
#include "standard/standard.h"

std::int64_t flicker_despike_working_memory_input1[kDespikeSize];
std::int64_t flicker_despike_working_memory_h1[kDespikeSize];
std::int64_t flicker_despike_working_memory_l1[kDespikeSize];
std::int64_t flicker_despike_working_memory_h2[kDespikeSize];
std::int64_t flicker_despike_working_memory_l2[kDespikeSize];
std::int64_t flicker_despike_working_memory_h3[kDespikeSize];
std::int64_t flicker_despike_working_memory_l3[kDespikeSize];
std::int32_t flicker_despike_working_memory_h_tmp[kDespikeSize];
std::int32_t flicker_despike_working_memory_h_mask[kDespikeSize];
std::int64_t flicker_despike_working_memory_h3r[kDespikeSize];
std::int64_t flicker_despike_working_memory_h2r[kDespikeSize];
std::int64_t flicker_despike_working_memory_l3r[kDespikeSize];
std::int64_t flicker_despike_working_memory_l2r[kDespikeSize];
std::int64_t flicker_despike_working_memory_l1r[kDespikeSize];
