// Whole .DBF files from the fuzzer: written to a scratch file, opened, every
// row read and every field decoded. A damaged file may only ever be refused
// with a dbase::Error.
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "dbase/core/codepage.h"
#include "dbase/core/dbf_file.h"
#include "dbase/core/error.h"
#include "dbase/core/field_value.h"
#include "scratch_file.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  const char* tmp = std::getenv("TMPDIR");
  std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/dbf_reader_fuzz-XXXXXX";
  int fd = ::mkstemp(pattern.data());
  if (fd < 0) std::abort();
  ::close(fd);
  fuzz::scratchPath() = pattern;
  std::atexit(fuzz::removeScratch);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (!fuzz::writeScratch(data, size)) std::abort();
  try {
    // Only readers are called: nothing is ever written back to the file.
    std::shared_ptr<dbase::DbfFile> file = dbase::DbfFile::open(fuzz::scratchPath());
    const dbase::CodePage& codePage = file->codePage();
    std::string text;
    size_t total = 0;
    for (uint32_t recno = 1; recno <= file->recordCount(); ++recno) {
      const char* row = file->record(recno);
      total += file->isDeleted(recno);
      for (const dbase::FieldDescriptor& field : file->fields()) {
        text.clear();
        codePage.decode(dbase::fieldBytes(field, row), text);
        total += text.size();
        total += dbase::fieldText(field, row, codePage).size();
        if (field.numeric() || field.type == dbase::FieldType::Character)
          total += dbase::fieldNumber(field, row).has_value();
        if (field.type == dbase::FieldType::Logical) total += dbase::fieldFlag(field, row);
      }
    }
    for (const dbase::FieldDescriptor& field : file->fields()) total += size_t(file->fieldIndex(field.name));
    if (total == size_t(-1)) std::abort();  // keeps the reads from being optimised away
  } catch (const dbase::Error&) {
  }
  return 0;
}
