// SPDX-License-Identifier: Apache-2.0
// 2x5 frequency features: single-signal energies, the length-normalised three-candidate search.
#include "twobyfive/twobyfive.h"
