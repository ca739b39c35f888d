// SPDX-License-Identifier: Apache-2.0
// Shared by the SONY tests: a fixture with the type-1 tables of a 1080-line sensor (3000 clocks
// a line at 180 MHz, window width 2: log entries 0..1024, 1280 table columns).
#ifndef KESTREL_TESTS_SONY_TEST_H
#define KESTREL_TESTS_SONY_TEST_H

#include <cstdint>
#include <vector>

#include "sony/sony.h"
#include "standard/standard.h"
#include "support.h"

namespace sony_test {

using Vec = std::vector<std::int32_t>;

inline Vec Head(const std::int32_t* values, std::size_t n) {
  return Vec(values, values + n);
}

class SonyTest : public kestrel_test::LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    flicker_init_SONY(3000, 1080, 2, 180e6);
  }
  void TearDown() override {
    flicker_uninit();
    LibraryTest::TearDown();
  }
};

}  // namespace sony_test

#endif  // KESTREL_TESTS_SONY_TEST_H
