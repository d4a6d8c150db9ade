// What the index-file units (reading, writing whole, changing in place)
// share to reach the disk: whole reads and writes at an offset, retried on
// interruption, the file name for messages, and a system error's words.
// Internal to the engine.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>

namespace dbase::mdx_io {

// The file's name without its folder.
inline std::string baseName(const std::string& path) {
  auto slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// "what: the system's reason", from errno.
inline std::string systemError(const char* what) { return std::string(what) + ": " + std::strerror(errno); }

// Reads exactly size bytes at offset; false when the file ends first or fails.
inline bool readAt(int fd, uint64_t offset, unsigned char* into, size_t size) {
  size_t done = 0;
  while (done < size) {
    ssize_t n = ::pread(fd, into + done, size - done, off_t(offset + done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += size_t(n);
  }
  return true;
}

// Writes exactly size bytes at offset; false when the system refuses.
inline bool writeAt(int fd, uint64_t offset, const unsigned char* from, size_t size) {
  size_t done = 0;
  while (done < size) {
    ssize_t n = ::pwrite(fd, from + done, size - done, off_t(offset + done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += size_t(n);
  }
  return true;
}

}  // namespace dbase::mdx_io
