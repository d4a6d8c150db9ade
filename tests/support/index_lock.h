// The index file's lock byte, as a test playing another dBase program asks
// for it or about it (fcntl with F_OFD_SETLK, F_OFD_SETLKW or F_OFD_GETLK).
#pragma once

#include <fcntl.h>

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

}  // namespace testsupport
