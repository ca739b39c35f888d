// SPDX-License-Identifier: Apache-2.0
// Exhaustive shift search: peak masks, the coarse decimated search and the fine search.
#include "standard/standard.h"

std::int32_t cvector_current_down_working_memory[2000];
std::int32_t cvector_prev_down_working_memory[2000];
std::int32_t cvector_out_test_working_memory[10 * 1000];
std::int32_t* cvector_out_test_ptr_array[10] = {
    cvector_out_test_working_memory + 0 * 1000, cvector_out_test_working_memory + 1 * 1000,
    cvector_out_test_working_memory + 2 * 1000, cvector_out_test_working_memory + 3 * 1000,
    cvector_out_test_working_memory + 4 * 1000, cvector_out_test_working_memory + 5 * 1000,
    cvector_out_test_working_memory + 6 * 1000, cvector_out_test_working_memory + 7 * 1000,
    cvector_out_test_working_memory + 8 * 1000, cvector_out_test_working_memory + 9 * 1000};
std::int32_t cvector_out_test_length_working_memory[10];
