// How long after a change a file's times may still not show the next one.
//
// A file's modification time ticks coarsely: a change made in the same tick
// as the last leaves it as it was, so a file changed that recently must be
// looked at byte by byte to know. On a local file system the tick is the
// kernel's clock tick, milliseconds; on a network share or a FAT volume the
// times come in two-second steps, set by another machine's clock.
#pragma once

#include <cstdint>

namespace dbase {

// Nanoseconds after its last change during which a change to the file open
// as `fd` may not show in its times.
int64_t timesSettleNs(int fd);

// The wall clock, in nanoseconds since 1970, as file times are kept.
int64_t wallClockNs();

}  // namespace dbase
