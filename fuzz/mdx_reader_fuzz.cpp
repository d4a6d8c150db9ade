// Whole .MDX files from the fuzzer: written to a scratch file, opened, and
// every usable tag walked and searched, its key expression and FOR condition
// compiled against a small table and evaluated on its rows. A damaged file
// may only ever be refused with a dbase::Error, and never take long or much
// memory.
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "dbase/core/dbf_file.h"
#include "dbase/core/error.h"
#include "dbase/core/key_expression.h"
#include "dbase/core/mdx_file.h"
#include "scratch_file.h"

namespace {

std::string tablePath;
std::shared_ptr<dbase::DbfFile> table;  // the fields expressions are compiled against

// Compiles an expression read from the file and evaluates it on every row.
size_t evaluate(const std::string& text) {
  if (text.empty() || !table) return 0;
  try {
    const dbase::KeyExpression e = dbase::KeyExpression::compile(text, *table);
    std::string key;
    size_t total = e.keyLength() + e.fields().size();
    for (uint32_t r = 1; r <= table->recordCount(); ++r) {
      e.appendKey(table->record(r), key);
      total += e.isTrue(table->record(r));
    }
    for (int f : e.fields()) total += e.span(f).has_value();
    return total + key.size();
  } catch (const dbase::Error&) {
    return 1;
  }
}

void removeTable() {
  if (!tablePath.empty()) ::unlink(tablePath.c_str());
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
  fuzz::scratchPath() = pattern;
  tablePath = pattern + ".DBF";
  std::atexit(fuzz::removeScratch);
  std::atexit(removeTable);
  table = dbase::DbfFile::create(tablePath,
                                 {{"NAME", dbase::FieldType::Character, 20, 0},
                                  {"CITY", dbase::FieldType::Character, 12, 0},
                                  {"NUM", dbase::FieldType::Numeric, 8, 2},
                                  {"DAY", dbase::FieldType::Date, 8, 0},
                                  {"FLAG", dbase::FieldType::Logical, 1, 0}},
                                 0x14, true);
  std::string row = table->blankRecord();
  table->append(row);
  row.replace(1, 20, "Nandu de la Sierra  ");
  row.replace(21, 12, "MADRID      ");
  row.replace(33, 8, "  -12.50");
  row.replace(41, 8, "20240229");
  row[49] = 'T';
  table->append(row);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (!fuzz::writeScratch(data, size)) std::abort();
  try {
    std::unique_ptr<dbase::MdxFile> file = dbase::MdxFile::open(fuzz::scratchPath());
    size_t total = size_t(file->tagIndex("NAME") + 1) + file->changedOnDisk();
    for (size_t t = 0; t < file->tags().size(); ++t) {
      total += file->tags()[t].name.size() + evaluate(file->tags()[t].expression) +
               evaluate(file->tags()[t].forExpression);
      try {
        std::string middle;
        size_t count = 0;
        file->walk(t, [&](std::string_view key, uint32_t recno) {
          if (++count == 7) middle = key;
          total += key.size() + recno;
        });
        total += file->lowerBound(t, middle, bytewise).has_value();
        total += file->lowerBound(t, "", bytewise).has_value();
        // Step by step, both ways, as a cursor walks the tree.
        dbase::MdxFile::Walk walk(*file, t);
        for (int steps = 0, on = walk.last(); on && steps < 4096; on = walk.prior(), ++steps) total += walk.recno();
        if (walk.seek(middle, bytewise))
          for (int steps = 0, on = 1; on && steps < 64; on = steps % 2 ? walk.next() : walk.prior(), ++steps)
            total += walk.key().size();
      } catch (const dbase::Error&) {
        // One bad tag does not spoil the others.
      }
    }
    if (total == size_t(-7)) std::abort();  // keeps the reads from being optimised away
  } catch (const dbase::Error&) {
  }
  return 0;
}
