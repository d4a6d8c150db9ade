// The scratch file the file-reading fuzz targets hand each input to the
// engine through: made once, rewritten for every input, removed at exit.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace fuzz {

inline std::string& scratchPath() {
  static std::string path;
  return path;
}

inline void removeScratch() {
  if (!scratchPath().empty()) ::unlink(scratchPath().c_str());
}

// Writes the whole input to the scratch file; false when it cannot.
inline bool writeScratch(const uint8_t* data, size_t size) {
  int fd = ::open(scratchPath().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  size_t done = 0;
  while (done < size) {
    ssize_t n = ::write(fd, data + done, size - done);
    if (n <= 0) break;
    done += size_t(n);
  }
  ::close(fd);
  return done == size;
}

}  // namespace fuzz
