// A table opened as a killed writer left it, the way the engine opens it:
// when the mark of a cut write stands beside its index, the index is written
// anew and the engine says so; otherwise it says nothing. Checked with gtest.
#pragma once

#include <cstdint>
#include <string>

namespace testsupport {

struct TrasUnCorte {
  uint32_t filas = 0;      // rows of the table once open
  bool reparado = false;   // the mark was there and the index written anew
};

// Opens `dbf` (with its production index `mdx`) and checks what the engine
// did: the index present, one warning that it was written anew exactly when
// the mark stood, no warning of the table's own but that of whole rows a
// killed append left past the header's count, and the mark gone after.
TrasUnCorte abreTrasUnCorte(const std::string& dbf, const std::string& mdx);

}  // namespace testsupport
