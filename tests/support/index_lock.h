// The index file's lock byte, as a test playing another dBase program asks
// for it or about it (fcntl with F_OFD_SETLK, F_OFD_SETLKW or F_OFD_GETLK).
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "dbase/core/dbase_locks.h"

namespace testsupport {

inline struct flock indexLockByte(short type = F_WRLCK) {
  struct flock lock {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = off_t(dbase::kIndexLockOffset);
  lock.l_len = 1;
  return lock;
}

// Whether a writer holds the index file's lock, asked as another program
// would ask (through a description of the file of its own).
inline bool indexLockHeld(const std::string& mdxPath) {
  const int fd = ::open(mdxPath.c_str(), O_RDONLY);
  struct flock probe = indexLockByte();
  const bool held = fd >= 0 && fcntl(fd, F_OFD_GETLK, &probe) == 0 && probe.l_type != F_UNLCK;
  if (fd >= 0) ::close(fd);
  return held;
}

}  // namespace testsupport
