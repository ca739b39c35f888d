// SPDX-License-Identifier: Apache-2.0
// SONY frequency features: single-signal energies and the three-candidate search.
#include "sony/sony.h"
