// SPDX-License-Identifier: Apache-2.0
// Output files of the host tool: written as the run goes, replaced only when it succeeds, and
// never written over something that is not a plain file.
#include "host/output.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <vector>

#include "host/error.h"

namespace kestrel_host {

namespace {

namespace fs = std::filesystem;

// Bytes gathered before they go to the system: large enough to keep system calls rare, small
// enough that a row-by-row Flush() costs nothing.
constexpr std::size_t kBufferBytes = 64 * 1024;

// The file a path finally names, following symbolic links even when the last one dangles (the
// output then creates the file the link points to).
std::string FollowLinks(const std::string& path) {
  fs::path p = path;
  for (int hops = 0; hops < 40; ++hops) {
    std::error_code ec;
    if (!fs::is_symlink(fs::symlink_status(p, ec))) return p.string();
    const fs::path to = fs::read_symlink(p, ec);
    if (ec) return p.string();
    p = to.is_absolute() ? to : p.parent_path() / to;
  }
  return p.string();
}

mode_t CreationMode() {
  const mode_t mask = ::umask(0);
  ::umask(mask);
  return 0666 & ~mask;
}

}  // namespace

struct OutputSink::Deflate {
  z_stream z{};
  std::vector<unsigned char> out = std::vector<unsigned char>(kBufferBytes);
};

bool WantsGzip(const std::string& path) {
  return path.size() > 3 && path.ends_with(".gz");
}

void CheckStandardOutput(std::ostream& out) {
  errno = 0;
  out.flush();
  if (!out) {
    throw HostError(std::string("cannot write standard output: ") +
                    std::strerror(errno != 0 ? errno : EIO));
  }
}

OutputSink::OutputSink(const std::string& path, std::ostream& standard_output, bool gzip)
    : path_(path), gzip_(gzip) {
  if (gzip_) {
    deflate_ = new Deflate;
    // 15 + 16: a gzip header and trailer around the deflate stream. Level 1: the digits of a
    // recording compress to about half at once; higher levels cost several times the run.
    if (deflateInit2(&deflate_->z, 1, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY) != Z_OK) {
      delete deflate_;
      deflate_ = nullptr;
      throw HostError("cannot write " + path_ + ": zlib refused to start");
    }
  }
  try {
    if (path == "-") {
      stream_ = &standard_output;
      return;
    }
    struct stat st {};
    if (::stat(path.c_str(), &st) == 0) {
      if (S_ISDIR(st.st_mode)) Fail(EISDIR);
      struct stat out {};
      const bool is_stdout =
          ::fstat(STDOUT_FILENO, &out) == 0 && out.st_dev == st.st_dev && out.st_ino == st.st_ino;
      if (is_stdout) {
        // /dev/stdout or the file standard output already writes: one stream, or the two would
        // overwrite each other.
        stream_ = &standard_output;
        return;
      }
      if (!S_ISREG(st.st_mode)) {
        // A device, FIFO or terminal: a rename would put a plain file in its place.
        fd_ = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
        if (fd_ < 0) Fail(errno);
        return;
      }
      // Root may write anything: a file nobody may write is read-only all the same.
      if ((st.st_mode & 0222) == 0) Fail(EACCES);
      if (::access(path.c_str(), W_OK) != 0) Fail(errno);
    } else if (errno != ENOENT) {
      Fail(errno);
    }
    target_ = FollowLinks(path);
    const fs::path target(target_);
    const fs::path dir = target.has_parent_path() ? target.parent_path() : fs::path(".");
    std::string pattern = (dir / ("." + target.filename().string() + ".XXXXXX")).string();
    fd_ = ::mkstemp(pattern.data());
    if (fd_ < 0) {
      const int why = errno;
      // An existing file in a directory we may not write: write the file itself.
      if (st.st_mode != 0 && S_ISREG(st.st_mode)) {
        fd_ = ::open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
        if (fd_ >= 0) return;
      }
      Fail(why);
    }
    temp_ = pattern;
    const mode_t mode = st.st_mode != 0 ? (st.st_mode & 07777) : CreationMode();
    if (::fchmod(fd_, mode) != 0) Fail(errno);
  } catch (...) {
    if (fd_ >= 0) ::close(fd_);
    if (!temp_.empty()) ::unlink(temp_.c_str());
    if (deflate_ != nullptr) {
      deflateEnd(&deflate_->z);
      delete deflate_;
      deflate_ = nullptr;
    }
    throw;
  }
}

OutputSink::~OutputSink() {
  if (fd_ >= 0 && stream_ == nullptr) ::close(fd_);
  if (!committed_ && !temp_.empty()) ::unlink(temp_.c_str());
  if (deflate_ != nullptr) {
    deflateEnd(&deflate_->z);
    delete deflate_;
  }
}

void OutputSink::Fail(int error) {
  if (stream_ != nullptr) {
    throw HostError(std::string("cannot write standard output: ") + std::strerror(error));
  }
  throw HostError("cannot write " + path_ + ": " + std::strerror(error));
}

void OutputSink::WriteRaw(const char* data, std::size_t size) {
  if (stream_ != nullptr) {
    errno = 0;
    stream_->write(data, static_cast<std::streamsize>(size));
    if (!*stream_) Fail(errno != 0 ? errno : EIO);
    return;
  }
  while (size > 0) {
    const ssize_t n = ::write(fd_, data, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      Fail(errno);
    }
    data += n;
    size -= static_cast<std::size_t>(n);
  }
}

void OutputSink::Drain(int deflate_flush) {
  if (deflate_ == nullptr) {
    WriteRaw(pending_.data(), pending_.size());
    pending_.clear();
    return;
  }
  z_stream& z = deflate_->z;
  z.next_in = reinterpret_cast<Bytef*>(pending_.data());
  z.avail_in = static_cast<uInt>(pending_.size());
  int status = Z_OK;
  do {
    z.next_out = deflate_->out.data();
    z.avail_out = static_cast<uInt>(deflate_->out.size());
    status = deflate(&z, deflate_flush);
    if (status == Z_STREAM_ERROR) throw HostError("cannot write " + path_ + ": zlib failed");
    WriteRaw(reinterpret_cast<const char*>(deflate_->out.data()),
             deflate_->out.size() - z.avail_out);
  } while (z.avail_out == 0 || (deflate_flush == Z_FINISH && status != Z_STREAM_END));
  pending_.clear();
}

void OutputSink::Write(std::string_view bytes) {
  pending_.append(bytes);
  if (pending_.size() >= kBufferBytes) Drain(Z_NO_FLUSH);
}

void OutputSink::Flush() {
  // A gzip stream is only worth reading whole: keep its blocks large.
  if (deflate_ != nullptr) return;
  Drain(Z_NO_FLUSH);
  if (stream_ != nullptr) {
    errno = 0;
    stream_->flush();
    if (!*stream_) Fail(errno != 0 ? errno : EIO);
  }
}

void OutputSink::Commit() {
  if (committed_) return;
  Drain(deflate_ != nullptr ? Z_FINISH : Z_NO_FLUSH);
  if (stream_ != nullptr) {
    Flush();
    committed_ = true;
    return;
  }
  const int fd = fd_;
  fd_ = -1;
  if (::close(fd) != 0) Fail(errno);
  if (!temp_.empty() && std::rename(temp_.c_str(), target_.c_str()) != 0) Fail(errno);
  committed_ = true;
}

}  // namespace kestrel_host
