// SPDX-License-Identifier: Apache-2.0
// The host tool's error: a message for the user, and the files it writes all at once or not at all.
#include "host/error.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace kestrel_host {

void WriteFiles(const std::vector<OutputFile>& files) {
  std::vector<std::string> temps;
  const auto fail = [&](const std::string& path, int why) {
    for (const std::string& t : temps) std::remove(t.c_str());
    throw HostError("cannot write " + path + ": " + std::strerror(why));
  };
  for (const OutputFile& f : files) {
    // A rename cannot replace a directory: find out before anything is written.
    std::error_code ec;
    if (std::filesystem::is_directory(f.path, ec)) fail(f.path, EISDIR);
    const std::string temp = f.path + ".tmp." + std::to_string(::getpid());
    std::FILE* file = std::fopen(temp.c_str(), "wb");
    if (file == nullptr) fail(f.path, errno);
    temps.push_back(temp);
    const bool written =
        std::fwrite(f.content.data(), 1, f.content.size(), file) == f.content.size();
    const int saved = errno;
    if (std::fclose(file) != 0 || !written) fail(f.path, written ? errno : saved);
  }
  for (std::size_t i = 0; i < files.size(); ++i) {
    if (std::rename(temps[i].c_str(), files[i].path.c_str()) != 0) fail(files[i].path, errno);
  }
}

std::string Format(const char* fmt, double v) {
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, fmt, v);
  return buffer;
}

std::string Ms(double seconds) {
  return Format("%.3f", seconds * 1e3);
}

std::string ReadWholeFile(const std::string& path) {
  std::error_code ec;
  if (std::filesystem::is_directory(path, ec))
    throw HostError("cannot read " + path + ": is a directory");
  std::ifstream in(path, std::ios::binary);
  if (!in) throw HostError("cannot read " + path + ": " + std::strerror(errno));
  std::ostringstream content;
  content << in.rdbuf();
  if (in.bad()) throw HostError("cannot read " + path + ": read error");
  return content.str();
}

}  // namespace kestrel_host
