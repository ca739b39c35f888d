// SPDX-License-Identifier: Apache-2.0
// Tuning files: a FlkExtPara record as JSON, one member per field under the field's own name.
#ifndef KESTREL_TOOLS_EXT_PARA_H
#define KESTREL_TOOLS_EXT_PARA_H

#include <string>

#include <kestrel/flicker.h>

namespace kestrel_host {

// The record in `text`. Fields left out keep the compiled-in value (FlkDefaultExtPara); an
// unknown member, an array of the wrong length, a value that is no whole number or one the
// detector cannot work with (a feature index outside 0..8, a frame count below 1, ...) is a
// HostError that names the field. `source` names the text in messages (usually its path).
FlkExtPara ParseExtPara(const std::string& text, const std::string& source);

// The whole of a small text file (a tuning, a matrix), or a HostError naming the file and the
// system's reason.
std::string ReadTextFile(const std::string& path);

// ParseExtPara on the contents of the file at `path`.
FlkExtPara LoadExtPara(const std::string& path);

// Every field of `para` in the record's order, in the form ParseExtPara reads.
std::string FormatExtPara(const FlkExtPara& para);

}  // namespace kestrel_host

#endif  // KESTREL_TOOLS_EXT_PARA_H
