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

void WriteFileAtomically(const std::string& path, const std::string& content) {
  const std::string temp = path + ".tmp." + std::to_string(::getpid());
  std::FILE* file = std::fopen(temp.c_str(), "wb");
  if (file == nullptr) {
    throw HostError("cannot write " + path + ": " + std::strerror(errno));
  }
  const bool written = std::fwrite(content.data(), 1, content.size(), file) == content.size();
  const int saved = errno;
  const bool closed = std::fclose(file) == 0;
  if (!written || !closed) {
    std::remove(temp.c_str());
    throw HostError("cannot write " + path + ": " + std::strerror(written ? errno : saved));
  }
  if (std::rename(temp.c_str(), path.c_str()) != 0) {
    const int why = errno;
    std::remove(temp.c_str());
    throw HostError("cannot write " + path + ": " + std::strerror(why));
  }
}

std::string ReadWholeFile(const std::string& path) {
  std::error_code ec;
  if (std::filesystem::is_directory(path, ec)) throw HostError("cannot read " + path + ": is a directory");
  std::ifstream in(path, std::ios::binary);
  if (!in) throw HostError("cannot read " + path + ": " + std::strerror(errno));
  std::ostringstream content;
  content << in.rdbuf();
  if (in.bad()) throw HostError("cannot read " + path + ": read error");
  return content.str();
}

}  // namespace kestrel_host
