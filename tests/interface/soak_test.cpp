// SPDX-License-Identifier: Apache-2.0
// A short run of the soak program's sessions (bench/soak.h): INIT/UNINIT cycles of every family,
// refused and repeated INITs included, answer frame for frame as the reference cycle did. Under
// the sanitizer build LeakSanitizer checks that the cycles release every table.
#include <gtest/gtest.h>

#include "../../bench/soak.h"
#include "support.h"

namespace {

TEST(Soak, CyclesRepeatTheReferenceAnswers) {
  kestrel_soak::Soak soak;
  EXPECT_EQ(soak.Cycle(false), 480);
  EXPECT_EQ(soak.Cycle(true), 480);
  EXPECT_EQ(soak.Cycle(false), 480);
  EXPECT_EQ(soak.mismatches(), 0);
}

}  // namespace
