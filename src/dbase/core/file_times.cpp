#include "dbase/core/file_times.h"

#include <sys/vfs.h>

#include <ctime>

namespace dbase {

namespace {

constexpr int64_t kLocalSettleNs = 20'000'000;        // many clock ticks
constexpr int64_t kUnknownSettleNs = 2'000'000'000;  // FAT's two seconds, and a share's clock

// File systems of this machine's own disks and memory, whose times the
// kernel sets from its own clock.
bool isLocal(int64_t type) {
  switch (uint32_t(type)) {
    case 0xEF53:      // ext2, ext3, ext4
    case 0x01021994:  // tmpfs
    case 0x58465342:  // xfs
    case 0x9123683E:  // btrfs
    case 0x794C7630:  // overlayfs
    case 0x2FC12FC1:  // zfs
    case 0xF2F52010:  // f2fs
      return true;
    default:
      return false;
  }
}

}  // namespace

int64_t timesSettleNs(int fd) {
  struct statfs fs {};
  if (fstatfs(fd, &fs) != 0) return kUnknownSettleNs;
  return isLocal(int64_t(fs.f_type)) ? kLocalSettleNs : kUnknownSettleNs;
}

int64_t wallClockNs() {
  struct timespec now {};
  clock_gettime(CLOCK_REALTIME, &now);
  return int64_t(now.tv_sec) * 1000000000 + now.tv_nsec;
}

}  // namespace dbase
