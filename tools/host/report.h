// SPDX-License-Identifier: Apache-2.0
// What the host tool prints and writes: the per-frame table, the summary line, CSV and JSON.
#ifndef KESTREL_TOOLS_REPORT_H
#define KESTREL_TOOLS_REPORT_H

#include <string>

#include "host/host.h"

namespace kestrel_host {

// The per-frame table; `wide` shows all nine energies instead of 100 Hz, 120 Hz and the mean of
// the other seven. Header and rows apart, for a table printed as the frames are judged.
std::string FormatTable(const RunResult& run, bool wide);
std::string TableHeader(bool wide);
std::string TableRow(const FrameResult& r, bool wide);

// "standard sensor (type 0)".
std::string FamilyName(std::int32_t type);

// The frame timing against the flicker of `mains_hz` (0: none) over a run of `frames`, and the
// statistics' coverage of the frame: the two lines under a run's header.
std::string TimingText(const SensorSetup& sensor, double mains_hz, std::int64_t frames);

// One line: when the host switched, or that it never did and where the test stood.
std::string FormatSummary(const RunResult& run);

// One row per DETECT, every figure, for plotting.
std::string FormatCsv(const RunResult& run);
std::string CsvHeader();
std::string CsvRow(const FrameResult& r);

// What the host did or why the frame did not count: the table's and the CSV's last column.
std::string RowNote(const FrameResult& r);

// A machine-readable summary with the per-frame figures; `command` is "simulate" or "replay".
std::string FormatJson(const RunResult& run, const std::string& command);

// "1 frame", "2 frames".
std::string Count(std::int64_t n, const std::string& noun);

// The family's name: "standard", "SONY" or "2x5".
const char* SensorName(std::int32_t type);

}  // namespace kestrel_host

#endif  // KESTREL_TOOLS_REPORT_H
