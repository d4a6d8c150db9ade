// Whole .MDX files from the fuzzer: written to a scratch file, opened, and
// every usable tag walked and searched. A damaged file may only ever be
// refused with a dbase::Error, and never take long or much memory.
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "dbase/core/error.h"
#include "dbase/core/mdx_file.h"

namespace {

std::string scratchPath;

void removeScratch() {
  if (!scratchPath.empty()) ::unlink(scratchPath.c_str());
}

bool writeScratch(const uint8_t* data, size_t size) {
  int fd = ::open(scratchPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
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

int bytewise(std::string_view search, std::string_view stored) {
  return -stored.substr(0, search.size()).compare(search);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  const char* tmp = std::getenv("TMPDIR");
  std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/mdx_reader_fuzz-XXXXXX";
  int fd = ::mkstemp(pattern.data());
  if (fd < 0) std::abort();
  ::close(fd);
  scratchPath = pattern;
  std::atexit(removeScratch);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (!writeScratch(data, size)) std::abort();
  try {
    std::unique_ptr<dbase::MdxFile> file = dbase::MdxFile::open(scratchPath);
    size_t total = size_t(file->tagIndex("NAME") + 1) + file->changedOnDisk();
    for (size_t t = 0; t < file->tags().size(); ++t) {
      total += file->tags()[t].name.size() + file->tags()[t].expression.size();
      try {
        std::string middle;
        size_t count = 0;
        file->walk(t, [&](std::string_view key, uint32_t recno) {
          if (++count == 7) middle = key;
          total += key.size() + recno;
        });
        total += file->lowerBound(t, middle, bytewise).has_value();
        total += file->lowerBound(t, "", bytewise).has_value();
      } catch (const dbase::Error&) {
        // One bad tag does not spoil the others.
      }
    }
    if (total == size_t(-7)) std::abort();  // keeps the reads from being optimised away
  } catch (const dbase::Error&) {
  }
  return 0;
}
