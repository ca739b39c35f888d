// SPDX-License-Identifier: Apache-2.0
// Test support: capture the library's log lines and put its global state back to load time.
#ifndef KESTREL_TESTS_SUPPORT_H
#define KESTREL_TESTS_SUPPORT_H

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "decision/decision.h"
#include "interface/interface.h"
#include "kestrel/flicker.h"

namespace kestrel_test {

// Collects every PrintLogFlk message while alive (one capture at a time).
class LogCapture {
 public:
  LogCapture() {
    lines().clear();
    SetLogSinkFlk(&LogCapture::Sink);
  }
  ~LogCapture() { SetLogSinkFlk(nullptr); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  const std::vector<std::string>& Lines() const { return lines(); }
  void Clear() { lines().clear(); }
  bool Contains(const std::string& line) const {
    return std::find(lines().begin(), lines().end(), line) != lines().end();
  }
  std::size_t Count(const std::string& line) const {
    return static_cast<std::size_t>(std::count(lines().begin(), lines().end(), line));
  }

 private:
  static std::vector<std::string>& lines() {
    static std::vector<std::string> captured;
    return captured;
  }
  static void Sink(int priority, const char* tag, const char* text) {
    EXPECT_EQ(priority, 3);
    EXPECT_STREQ(tag, "[FLICKER Alg] ");
    lines().emplace_back(text);
  }
};

// Log flags off, compiled-in tuning, state 0 with no result yet, an empty zeroed queue.
inline void ResetLibraryState() {
  g_logFlow = 0;
  g_logLineData = 0;
  g_logState = 0;
  FlkExtPara defaults = FlkDefaultExtPara();
  flicker_setExtPara(&defaults);
  g_flickerStateIndex = 0;
  g_flickerResult = 0;
  g_queueHead = 0;
  g_queueCount = 0;
  std::fill(std::begin(g_scoreQueue), std::end(g_scoreQueue), 0);
}

// Fixture for tests that touch the library's globals.
class LibraryTest : public ::testing::Test {
 protected:
  void SetUp() override { ResetLibraryState(); }
  void TearDown() override { ResetLibraryState(); }
};

}  // namespace kestrel_test

#endif  // KESTREL_TESTS_SUPPORT_H
