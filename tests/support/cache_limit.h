// The cache of closed tables held to a limit while the object lives, the
// previous limit given back at its end (also when an assertion ends a test
// early). The default, 0, keeps nothing: every open reads the file afresh.
#pragma once

#include <cstdint>

#include "dbase/core/dbf_file.h"

namespace testsupport {

class CacheLimit {
 public:
  explicit CacheLimit(uint64_t bytes = 0) : saved_(dbase::DbfFile::cacheLimit()) {
    dbase::DbfFile::setCacheLimit(bytes);
  }
  ~CacheLimit() { dbase::DbfFile::setCacheLimit(saved_); }
  CacheLimit(const CacheLimit&) = delete;
  CacheLimit& operator=(const CacheLimit&) = delete;

 private:
  uint64_t saved_;
};

}  // namespace testsupport
