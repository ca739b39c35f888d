// SPDX-License-Identifier: Apache-2.0
// Column selection: per band of windows, the steadiest column of the current frame.
#include "standard/standard.h"
