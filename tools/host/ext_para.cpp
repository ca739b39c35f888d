// SPDX-License-Identifier: Apache-2.0
// Tuning files: a FlkExtPara record as JSON, one member per field under the field's own name.
#include "host/ext_para.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <limits>
#include <nlohmann/json.hpp>
#include <span>
#include <sstream>
#include <string_view>

#include "host/error.h"

namespace kestrel_host {

namespace {

using Json = nlohmann::ordered_json;

// One field of the record: its name, its values, and the range the detector works with.
struct Field {
  std::string_view name;
  std::span<std::int32_t> values;
  std::int64_t low;
  std::int64_t high;
  std::string_view why;  // what breaks outside the range
};

constexpr std::int64_t kI32Min = std::numeric_limits<std::int32_t>::min();
constexpr std::int64_t kI32Max = std::numeric_limits<std::int32_t>::max();

// The fields of `p` in the record's order (the three zHDR switches are handled apart).
std::vector<Field> Fields(FlkExtPara& p) {
  return {
      {"flicker_freq", p.flicker_freq, 1, 10000, "a candidate frequency in Hz"},
      {"flicker_grad_threshold", {&p.flicker_grad_threshold, 1}, 0, kI32Max, "a threshold"},
      {"flicker_search_range", {&p.flicker_search_range, 1}, 0, kI32Max, "a search range"},
      // Above 150 (the score queue's length) the test never decides.
      {"min_past_frames", {&p.min_past_frames, 1}, 1, 150, "a frame count of the score queue"},
      {"max_past_frames", {&p.max_past_frames, 1}, 1, 150, "a frame count of the score queue"},
      {"ev50_l50", p.ev50_l50, kI32Min, kI32Max, ""},
      {"ev50_l60", p.ev50_l60, kI32Min, kI32Max, ""},
      {"ev60_l50", p.ev60_l50, kI32Min, kI32Max, ""},
      {"ev60_l60", p.ev60_l60, kI32Min, kI32Max, ""},
      {"ev50_thresholds", p.ev50_thresholds, kI32Min, kI32Max, ""},
      {"ev60_thresholds", p.ev60_thresholds, kI32Min, kI32Max, ""},
      {"freq_feature_index", p.freq_feature_index, 0, 8, "an index into the nine energies"},
  };
}

struct Flag {
  std::string_view name;
  std::uint8_t* value;
};

std::vector<Flag> Flags(FlkExtPara& p) {
  return {{"is_zhdr", &p.is_zhdr},
          {"zhdr_se_small", &p.zhdr_se_small},
          {"zhdr_gle_first", &p.zhdr_gle_first}};
}

}  // namespace

FlkExtPara ParseExtPara(const std::string& text, const std::string& source) {
  const auto fail = [&](const std::string& what) { throw HostError(source + ": " + what); };
  Json doc;
  try {
    doc = Json::parse(text);
  } catch (const Json::parse_error& e) {
    fail(std::string("not JSON: ") + e.what());
  }
  if (!doc.is_object()) fail("a tuning is a JSON object of FlkExtPara fields");

  FlkExtPara para = FlkDefaultExtPara();
  std::vector<Field> fields = Fields(para);
  std::vector<Flag> flags = Flags(para);
  for (const auto& [key, value] : doc.items()) {
    if (key.starts_with("//")) continue;  // comments
    bool known = false;
    for (const Field& f : fields) {
      if (key != f.name) continue;
      known = true;
      const bool single = f.values.size() == 1;
      const std::string count = std::to_string(f.values.size());
      if (single ? value.is_array() : !value.is_array() || value.size() != f.values.size()) {
        fail(
            key + ": expected " +
            (single ? std::string("one whole number") : "an array of " + count + " whole numbers"));
      }
      for (std::size_t i = 0; i < f.values.size(); ++i) {
        const Json& v = single ? value : value[i];
        const std::string at = single ? key : key + "[" + std::to_string(i) + "]";
        if (!v.is_number_integer()) fail(at + ": " + v.dump() + " is not a whole number");
        const bool is_unsigned = v.is_number_unsigned();
        const std::int64_t n =
            is_unsigned && v.get<std::uint64_t>() > static_cast<std::uint64_t>(kI32Max)
                ? kI32Max + std::int64_t{1}
                : v.get<std::int64_t>();
        if (n < f.low || n > f.high) {
          fail(at + ": " + v.dump() + " is out of range " + std::to_string(f.low) + ".." +
               std::to_string(f.high) + (f.why.empty() ? "" : " (" + std::string(f.why) + ")"));
        }
        f.values[i] = static_cast<std::int32_t>(n);
      }
    }
    for (const Flag& f : flags) {
      if (key != f.name) continue;
      known = true;
      if (value.is_boolean()) {
        *f.value = value.get<bool>() ? 1 : 0;
      } else if (value.is_number_integer() && (value == 0 || value == 1)) {
        *f.value = static_cast<std::uint8_t>(value.get<int>());
      } else {
        fail(key + ": " + value.dump() + " is not true or false");
      }
    }
    if (!known) fail("unknown field '" + key + "' (FlkExtPara has no such field)");
  }
  return para;
}

std::string ReadTextFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw HostError("cannot read " + path + ": " + std::strerror(errno));
  std::ostringstream text;
  text << in.rdbuf();
  if (in.bad()) throw HostError("cannot read " + path + ": " + std::strerror(errno));
  return text.str();
}

FlkExtPara LoadExtPara(const std::string& path) {
  return ParseExtPara(ReadTextFile(path), path);
}

std::string FormatExtPara(const FlkExtPara& para) {
  FlkExtPara copy = para;
  // One line per field: the arrays are short, and a tuning reads best as a table.
  std::string out = "{\n";
  for (const Field& f : Fields(copy)) {
    Json values = Json::array();
    for (std::int32_t v : f.values) values.push_back(v);
    out += "  \"" + std::string(f.name) +
           "\": " + (f.values.size() == 1 ? values[0] : values).dump() + ",\n";
  }
  const std::vector<Flag> flags = Flags(copy);
  for (std::size_t i = 0; i < flags.size(); ++i) {
    out += "  \"" + std::string(flags[i].name) +
           "\": " + (*flags[i].value != 0 ? "true" : "false") +
           (i + 1 < flags.size() ? ",\n" : "\n");
  }
  return out + "}\n";
}

}  // namespace kestrel_host
