// SPDX-License-Identifier: Apache-2.0
// Command entry: SendCmdFlk and one handler per command.
#include "interface/interface.h"

#include "decision/decision.h"
#include "sony/sony.h"
#include "standard/standard.h"
#include "twobyfive/twobyfive.h"

std::int32_t g_flkTabType = -1;

// Placeholder until the command handlers land.
void SendCmdFlk(FlkCmd, void*, void*) {}
