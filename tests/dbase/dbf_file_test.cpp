// The table file: format, code pages on write, crash safety and bad input.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "dbase/core/codepage.h"
#include "dbase/core/dbf_file.h"
#include "dbase/core/error.h"
#include "dbase/core/field_value.h"
#include "support/cache_limit.h"
#include "support/tables.h"
#include "support/temp_dir.h"

using namespace dbase;
using namespace testsupport;

namespace {

std::vector<FieldSpec> cityFields() {
  return {charField("NOMBRE", 20), numField("HABITANTES", 8), numField("SUPERFICIE", 8, 2), logicalField("CAPITAL"),
          dateField("FUNDACION")};
}

std::string text(const DbfFile& f, uint32_t recno, const char* field) {
  return fieldText(f.field(field), f.record(recno), f.codePage());
}

void expectError(ErrorKind kind, const std::string& fragment, const std::function<void()>& action) {
  try {
    action();
    FAIL() << "no error raised; expected one containing: " << fragment;
  } catch (const Error& e) {
    EXPECT_EQ(int(e.kind()), int(kind)) << e.what();
    EXPECT_NE(std::string(e.what()).find(fragment), std::string::npos) << e.what();
  }
}

}  // namespace

TEST(DbfFile, WrittenRowsReadBackWithEveryFieldType) {
  TempDir dir;
  makeTable(dir.path(), "CIUDADES.DBF", cityFields(),
            {{"ÑORA", "1234", "12.5", "T", "20260115"}, {"CORUÑA (A)", "", "", "F", ""}});
  auto file = DbfFile::open(dir.file("CIUDADES.DBF"));
  ASSERT_EQ(file->recordCount(), 2u);
  EXPECT_EQ(text(*file, 1, "NOMBRE"), "ÑORA");
  EXPECT_EQ(text(*file, 1, "HABITANTES"), "1234");
  EXPECT_EQ(text(*file, 1, "SUPERFICIE"), "12.50");
  EXPECT_TRUE(fieldFlag(file->field("CAPITAL"), file->record(1)));
  EXPECT_EQ(text(*file, 1, "FUNDACION"), "20260115");
  EXPECT_EQ(text(*file, 2, "NOMBRE"), "CORUÑA (A)");
  EXPECT_FALSE(fieldNumber(file->field("HABITANTES"), file->record(2)).has_value());
  EXPECT_FALSE(fieldFlag(file->field("CAPITAL"), file->record(2)));
}

TEST(DbfFile, HeaderKeepsCountDateLengthsAndEndMarker) {
  TempDir dir;
  makeTable(dir.path(), "T.DBF", cityFields(), {{"A"}, {"B"}, {"C"}});
  std::string bytes = readFile(dir.file("T.DBF"));
  auto* h = reinterpret_cast<const unsigned char*>(bytes.data());
  EXPECT_EQ(h[0], 0x03);
  EXPECT_EQ(getU32(h + 4), 3u);
  const uint16_t headerLength = getU16(h + 8), recordLength = getU16(h + 10);
  EXPECT_EQ(headerLength, 32 + 32 * 5 + 1);
  EXPECT_EQ(recordLength, 1 + 20 + 8 + 8 + 1 + 8);
  EXPECT_EQ(bytes.size(), size_t(headerLength) + 3 * recordLength + 1);
  EXPECT_EQ(uint8_t(bytes.back()), 0x1A);
  EXPECT_EQ(h[29], 0x14);
  std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  EXPECT_EQ(h[1], local.tm_year);
  EXPECT_EQ(h[2], local.tm_mon + 1);
}

TEST(DbfFile, CodePageComesFromTheLanguageDriver) {
  TempDir dir;
  auto ansi = makeTable(dir.path(), "ANSI.DBF", {charField("N", 5)}, {{"€"}}, 0x03);
  EXPECT_EQ(ansi->codePage().number(), 1252);
  EXPECT_EQ(text(*ansi, 1, "N"), "€");
  auto oem = makeTable(dir.path(), "OEM.DBF", {charField("N", 5)}, {{"Ç"}}, 0x14);
  EXPECT_EQ(oem->codePage().number(), 850);
  // Ç is 0x80 in code page 850.
  EXPECT_EQ(uint8_t(fieldBytes(oem->field("N"), oem->record(1))[0]), 0x80);
}

TEST(DbfFile, ACharacterTheCodePageCannotHoldIsAnErrorAndNothingIsWritten) {
  TempDir dir;
  auto file = makeTable(dir.path(), "T.DBF", {charField("N", 10)}, {{"UNO"}});
  std::string record = file->blankRecord();
  expectError(ErrorKind::InvalidArgument, "€", [&] {
    setFieldText(file->field("N"), record.data(), "5 €", file->codePage(), file->name());
  });
  EXPECT_EQ(file->recordCount(), 1u);
}

TEST(DbfFile, NumberTooWideForItsFieldIsAnError) {
  TempDir dir;
  auto file = makeTable(dir.path(), "T.DBF", {numField("N", 3)}, {});
  std::string record = file->blankRecord();
  expectError(ErrorKind::InvalidArgument, "no cabe", [&] {
    setFieldNumber(file->field("N"), record.data(), 12345, file->name());
  });
  expectError(ErrorKind::InvalidArgument, "no es un número", [&] {
    setFieldText(file->field("N"), record.data(), "doce", file->codePage(), file->name());
  });
}

TEST(DbfFile, NonNumericContentsOfANumericFieldReadAsNoValue) {
  TempDir dir;
  makeTable(dir.path(), "T.DBF", {numField("N", 5)}, {{"12"}});
  std::string bytes = readFile(dir.file("T.DBF"));
  const uint16_t headerLength = getU16(reinterpret_cast<const unsigned char*>(bytes.data()) + 8);
  bytes.replace(headerLength + 1, 5, "  x1 ");
  writeFile(dir.file("T.DBF"), bytes);
  auto file = DbfFile::open(dir.file("T.DBF"));
  EXPECT_FALSE(fieldNumber(file->field("N"), file->record(1)).has_value());
}

TEST(DbfFile, TextsLongerThanTheFieldAreCutToItsWidth) {
  TempDir dir;
  auto file = makeTable(dir.path(), "T.DBF", {charField("N", 4)}, {{"ABCDEFG"}});
  EXPECT_EQ(text(*file, 1, "N"), "ABCD");
}

TEST(DbfFile, NamesOnDiskAreMatchedIgnoringCase) {
  TempDir dir;
  std::filesystem::create_directory(dir.file("Postales"));
  makeTable(dir.file("Postales"), "POSTAL28.DBF", {charField("VIA", 10)}, {{"MAYOR"}});
  auto file = DbfFile::open(dir.file("postales/postal28.dbf"));
  EXPECT_EQ(file->recordCount(), 1u);
  EXPECT_EQ(file->name(), "POSTAL28.DBF");
}

TEST(DbfFile, OpeningTheSameFileTwiceSharesItsRows) {
  TempDir dir;
  auto first = makeTable(dir.path(), "T.DBF", {charField("N", 4)}, {{"A"}});
  auto second = DbfFile::open(dir.file("t.dbf"));
  EXPECT_EQ(first.get(), second.get());
  std::string record = first->blankRecord();
  setFieldText(first->field("N"), record.data(), "B", first->codePage(), "T");
  first->append(record);
  EXPECT_EQ(second->recordCount(), 2u);
}

TEST(DbfFile, AnotherProgramsAppendIsNoticedBeforeTheNextRead) {
  TempDir dir;
  auto file = makeTable(dir.path(), "T.DBF", {charField("N", 4)}, {{"A"}});
  // Another program appends a row behind our back, as dBase does.
  std::string bytes = readFile(dir.file("T.DBF"));
  bytes.pop_back();  // end marker
  bytes += " B   ";
  bytes.push_back(0x1A);
  putU32(reinterpret_cast<unsigned char*>(bytes.data()) + 4, 2);
  writeFile(dir.file("T.DBF"), bytes);
  file->syncWithDisk();
  ASSERT_EQ(file->recordCount(), 2u);
  EXPECT_EQ(text(*file, 2, "N"), "B");
}

TEST(DbfFile, DeletedRowsAreCountedApart) {
  TempDir dir;
  auto file = makeTable(dir.path(), "T.DBF", {charField("N", 4)}, {{"A"}, {"B"}});
  std::string record(file->record(1), file->recordLength());
  record[0] = '*';
  file->update(1, record);
  EXPECT_TRUE(file->isDeleted(1));
  EXPECT_EQ(file->deletedCount(), 1u);
}

// ---- crash safety ------------------------------------------------------------

TEST(DbfFile, HeaderCountBeyondTheFileLengthReadsTheCompleteRowsAndWarns) {
  TempDir dir;
  makeTable(dir.path(), "T.DBF", {charField("N", 4)}, {{"A"}, {"B"}, {"C"}});
  std::string bytes = readFile(dir.file("T.DBF"));
  bytes.resize(bytes.size() - 1 - 3);  // end marker and part of the last row gone
  writeFile(dir.file("T.DBF"), bytes);
  auto file = DbfFile::open(dir.file("T.DBF"));
  EXPECT_EQ(file->recordCount(), 2u);
  ASSERT_EQ(file->warnings().size(), 1u);
  EXPECT_NE(file->warnings()[0].find("declara 3"), std::string::npos);
}

TEST(DbfFile, WholeRowWrittenBeforeTheHeaderCountIsRead) {
  TempDir dir;
  makeTable(dir.path(), "T.DBF", {charField("N", 4)}, {{"A"}, {"B"}});
  std::string bytes = readFile(dir.file("T.DBF"));
  putU32(reinterpret_cast<unsigned char*>(bytes.data()) + 4, 1);  // the count update never happened
  writeFile(dir.file("T.DBF"), bytes);
  auto file = DbfFile::open(dir.file("T.DBF"));
  EXPECT_EQ(file->recordCount(), 2u);
  EXPECT_EQ(text(*file, 2, "N"), "B");
  EXPECT_EQ(file->warnings().size(), 1u);
}

TEST(DbfFile, AppendAfterATornRowOverwritesItAndFixesTheHeader) {
  TempDir dir;
  makeTable(dir.path(), "T.DBF", {charField("N", 4)}, {{"A"}});
  std::string bytes = readFile(dir.file("T.DBF"));
  bytes.pop_back();
  bytes += " BB";  // a row cut short by a crash
  writeFile(dir.file("T.DBF"), bytes);
  auto file = DbfFile::open(dir.file("T.DBF"));
  ASSERT_EQ(file->recordCount(), 1u);
  std::string record = file->blankRecord();
  setFieldText(file->field("N"), record.data(), "C", file->codePage(), "T");
  file->append(record);
  std::string after = readFile(dir.file("T.DBF"));
  auto* h = reinterpret_cast<const unsigned char*>(after.data());
  EXPECT_EQ(getU32(h + 4), 2u);
  EXPECT_EQ(after.size(), size_t(getU16(h + 8)) + 2 * 5 + 1);
  EXPECT_EQ(after.substr(after.size() - 6), std::string(" C   ") + char(0x1A));
}

// ---- bad input -------------------------------------------------------------

TEST(DbfFile, TruncatedHeaderIsACorruptTable) {
  TempDir dir;
  writeFile(dir.file("MALO.DBF"), std::string("\x03\x7e\x01\x01", 4));
  expectError(ErrorKind::Corrupt, "MALO.DBF: cabecera truncada", [&] { DbfFile::open(dir.file("MALO.DBF")); });
}

TEST(DbfFile, NotADbaseFileIsRejectedNamingTheVersionByte) {
  TempDir dir;
  writeFile(dir.file("X.DBF"), std::string(64, 'Z'));
  expectError(ErrorKind::Corrupt, "0x5A", [&] { DbfFile::open(dir.file("X.DBF")); });
}

TEST(DbfFile, FieldsLongerThanTheRecordAreACorruptTable) {
  TempDir dir;
  makeTable(dir.path(), "T.DBF", {charField("N", 4)}, {{"A"}});
  std::string bytes = readFile(dir.file("T.DBF"));
  bytes[32 + 16] = char(200);  // the field claims 200 bytes in a 5-byte record
  writeFile(dir.file("T.DBF"), bytes);
  expectError(ErrorKind::Corrupt, "no caben en el registro", [&] { DbfFile::open(dir.file("T.DBF")); });
}

TEST(DbfFile, HeaderLengthBeyondTheFileIsACorruptTable) {
  TempDir dir;
  makeTable(dir.path(), "T.DBF", {charField("N", 4)}, {});
  std::string bytes = readFile(dir.file("T.DBF"));
  putU16(reinterpret_cast<unsigned char*>(bytes.data()) + 8, 60000);
  writeFile(dir.file("T.DBF"), bytes);
  expectError(ErrorKind::Corrupt, "longitud de cabecera", [&] { DbfFile::open(dir.file("T.DBF")); });
}

TEST(DbfFile, MissingFileIsAnIoErrorNamingIt) {
  TempDir dir;
  expectError(ErrorKind::Io, "NOESTA.DBF", [&] { DbfFile::open(dir.file("NOESTA.DBF")); });
}

TEST(DbfFile, TableWithAProductionMdxReadsButRefusesWrites) {
  TempDir dir;
  makeTable(dir.path(), "T.DBF", {charField("N", 4)}, {{"A"}});
  std::string bytes = readFile(dir.file("T.DBF"));
  bytes[28] = 1;
  writeFile(dir.file("T.DBF"), bytes);
  auto file = DbfFile::open(dir.file("T.DBF"));
  EXPECT_TRUE(file->hasProductionMdx());
  EXPECT_EQ(text(*file, 1, "N"), "A");
  const std::string before = readFile(dir.file("T.DBF"));
  expectError(ErrorKind::NotSupported, ".MDX", [&] { file->append(file->blankRecord()); });
  EXPECT_EQ(readFile(dir.file("T.DBF")), before);
}

TEST(DbfFile, ReadOnlyFileOpensAndRefusesWrites) {
  if (geteuid() == 0) GTEST_SKIP() << "root writes read-only files";
  TempDir dir;
  makeTable(dir.path(), "T.DBF", {charField("N", 4)}, {{"A"}});
  chmod(dir.file("T.DBF").c_str(), 0444);
  auto file = DbfFile::open(dir.file("T.DBF"));
  EXPECT_FALSE(file->writable());
  expectError(ErrorKind::Io, "sólo lectura", [&] { file->append(file->blankRecord()); });
}

// ---- rows read when first asked for ------------------------------------------

namespace {

// Tables of numbered rows (field N holds the row's number, every seventh row
// is deleted), opened afresh from the file each time: the cache is off.
class DbfFileRows : public ::testing::Test {
 protected:

  // Rows of 201 bytes: a block read from the file holds some hundreds.
  std::string numberedTable(uint32_t rows) {
    auto file = makeTable(dir.path(), "T.DBF", {charField("N", 10), charField("RELLENO", 190)}, {});
    std::string all;
    for (uint32_t i = 1; i <= rows; ++i) all += numberedRow(*file, std::to_string(i), i % 7 == 0);
    file->appendMany(all);
    return dir.file("T.DBF");
  }
  static std::string numberedRow(const DbfFile& file, const std::string& n, bool deleted = false) {
    std::string record = file.blankRecord();
    setFieldText(file.field("N"), record.data(), n, file.codePage(), "T");
    if (deleted) record[0] = '*';
    return record;
  }
  // Another program rewrites rows in place, from row recno on.
  static void writeRowsOnDisk(const std::string& path, const DbfFile& file, uint32_t recno, const std::string& records) {
    const int fd = ::open(path.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    unsigned char headerLength[2];
    ASSERT_EQ(pread(fd, headerLength, 2, 8), 2);
    const off_t at = off_t(getU16(headerLength)) + off_t(recno - 1) * file.recordLength();
    EXPECT_EQ(pwrite(fd, records.data(), records.size(), at), ssize_t(records.size()));
    ::close(fd);
  }

  CacheLimit noCache;
  TempDir dir;
};

}  // namespace

TEST_F(DbfFileRows, LargeTableIsReadWholeWithItsDeletedRowsCounted) {
  constexpr uint32_t kRows = 90001;  // over 16 MB of rows: read in two halves at once
  const std::string path = numberedTable(kRows);
  auto file = DbfFile::open(path);
  ASSERT_EQ(file->recordCount(), kRows);
  EXPECT_EQ(file->deletedCount(), kRows / 7);
  for (uint32_t r : {1u, kRows / 2, kRows / 2 + 1, kRows - 1, kRows}) {
    EXPECT_EQ(text(*file, r, "N"), std::to_string(r));
    EXPECT_EQ(file->isDeleted(r), r % 7 == 0);
  }
}

TEST_F(DbfFileRows, OpeningATableReadsNoneOfItsRows) {
  constexpr uint32_t kRows = 5000;
  const std::string path = numberedTable(kRows);
  auto file = DbfFile::open(path);
  EXPECT_LT(file->memoryBytes(), size_t(kRows) * file->recordLength() / 4);
  // Every row changed on disk after the open: what is read is the new rows.
  std::string changed;
  for (uint32_t r = 1; r <= kRows; ++r) changed += numberedRow(*file, "X" + std::to_string(r));
  writeRowsOnDisk(path, *file, 1, changed);
  for (uint32_t r = 1; r <= kRows; ++r) ASSERT_EQ(text(*file, r, "N"), "X" + std::to_string(r)) << r;
  EXPECT_GE(file->memoryBytes(), size_t(kRows) * file->recordLength());
}

TEST_F(DbfFileRows, RowChangedOnDiskBeforeItWasFirstReadIsReadAsItIsNow) {
  constexpr uint32_t kRows = 5000;
  const std::string path = numberedTable(kRows);
  auto file = DbfFile::open(path);
  EXPECT_EQ(text(*file, 1, "N"), "1");
  writeRowsOnDisk(path, *file, 2, numberedRow(*file, "DOS"));
  writeRowsOnDisk(path, *file, kRows, numberedRow(*file, "ULTIMA"));
  EXPECT_EQ(text(*file, kRows, "N"), "ULTIMA");
  // Row 2 was read with row 1: it stays as read until the change is noticed.
  EXPECT_EQ(text(*file, 2, "N"), "2");
}

TEST_F(DbfFileRows, ChangeNoticedOnDiskIsReadAgainWhenTheRowsAreNextAskedFor) {
  constexpr uint32_t kRows = 5000;
  const std::string path = numberedTable(kRows);
  auto file = DbfFile::open(path);
  for (uint32_t r = 1; r <= kRows; ++r) file->record(r);
  const uint64_t generation = file->generation(), rewrites = file->rewriteGeneration();
  // Another program rewrites row 2 and appends a row.
  writeRowsOnDisk(path, *file, 2, numberedRow(*file, "DOS"));
  std::string bytes = readFile(path);
  bytes.pop_back();  // end marker
  bytes += numberedRow(*file, "NUEVA");
  bytes.push_back(0x1A);
  putU32(reinterpret_cast<unsigned char*>(bytes.data()) + 4, kRows + 1);
  writeFile(path, bytes);
  file->syncWithDisk();
  EXPECT_GT(file->generation(), generation);
  EXPECT_GT(file->rewriteGeneration(), rewrites);
  ASSERT_EQ(file->recordCount(), kRows + 1);
  EXPECT_LT(file->memoryBytes(), size_t(kRows) * file->recordLength() / 4);  // nothing read again yet
  EXPECT_EQ(text(*file, 2, "N"), "DOS");
  EXPECT_EQ(text(*file, kRows + 1, "N"), "NUEVA");
  EXPECT_EQ(file->deletedCount(), kRows / 7);
}

TEST_F(DbfFileRows, FileShortenedAfterTheOpenFailsWhenAMissingRowIsRead) {
  constexpr uint32_t kRows = 15000, kLeft = 10000;  // megabytes of rows
  const std::string path = numberedTable(kRows);
  auto file = DbfFile::open(path);
  // Another program cuts the file short.
  const size_t headerLength = getU16(reinterpret_cast<const unsigned char*>(readFile(path).data()) + 8);
  ASSERT_EQ(truncate(path.c_str(), off_t(headerLength + kLeft * file->recordLength())), 0);
  // A walk from the first row, which reads on ahead, still gets the rows left.
  for (uint32_t r = 1; r <= kLeft * 3 / 4; ++r) ASSERT_EQ(text(*file, r, "N"), std::to_string(r)) << r;
  expectError(ErrorKind::Io, "no se pueden leer los registros", [&] { file->record(kRows); });
  expectError(ErrorKind::Io, "acortado", [&] { file->record(kRows); });  // still not handed out
  expectError(ErrorKind::Io, "no se pueden leer los registros", [&] { file->deletedCount(); });
  // Once the cut is noticed, the rows left are read as the file has them.
  file->syncWithDisk();
  EXPECT_EQ(file->recordCount(), kLeft);
  EXPECT_EQ(text(*file, kLeft, "N"), std::to_string(kLeft));
}

TEST_F(DbfFileRows, DeletedCountIsRightWhenWorkedOutLateAndAfterWrites) {
  constexpr uint32_t kRows = 5000;
  const std::string path = numberedTable(kRows);
  auto file = DbfFile::open(path);
  // Before it is worked out: a live row deleted, a deleted one recalled, two
  // rows appended, one of them deleted.
  file->update(1, numberedRow(*file, "1", true));
  file->update(7, numberedRow(*file, "7", false));
  file->appendMany(numberedRow(*file, "A", true) + numberedRow(*file, "B"));
  EXPECT_EQ(file->deletedCount(), kRows / 7 + 1);
  // And once it is known, kept up to date.
  file->update(kRows, numberedRow(*file, "Z", true));
  file->append(numberedRow(*file, "C", true));
  file->update(1, numberedRow(*file, "1", false));
  EXPECT_EQ(file->deletedCount(), kRows / 7 + 2);
  file.reset();
  EXPECT_EQ(DbfFile::open(path)->deletedCount(), kRows / 7 + 2);  // as the file has them
}

TEST_F(DbfFileRows, AppendIntoTheLastBlockKeepsItsRowsWhetherItWasReadOrNot) {
  constexpr uint32_t kRows = 5000;  // the last block is partly filled
  const std::string path = numberedTable(kRows);
  for (const bool readFirst : {false, true}) {
    auto file = DbfFile::open(path);
    const uint32_t count = file->recordCount();
    if (readFirst) file->record(count);
    std::string rows;
    for (uint32_t i = 1; i <= 1000; ++i) rows += numberedRow(*file, std::to_string(count + i));
    file->appendMany(rows);
    for (uint32_t r = count - 700; r <= count + 1000; ++r) ASSERT_EQ(text(*file, r, "N"), std::to_string(r)) << r;
  }
}

TEST_F(DbfFileRows, SeveralThreadsReadingRowsOfAFreshlyOpenedFileSeeTheRightBytes) {
  constexpr uint32_t kRows = 20000;
  const std::string path = numberedTable(kRows);
  auto file = DbfFile::open(path);
  std::atomic<int> wrong{0};
  std::vector<std::thread> readers;
  for (uint32_t t = 0; t < 4; ++t)
    readers.emplace_back([&, t] {
      // Each its own order, so that they meet on blocks being read.
      for (uint32_t i = 0; i < kRows; ++i) {
        const uint32_t r = t % 2 ? kRows - (i * 7 + t) % kRows : 1 + (i * 13 + t) % kRows;
        if (text(*file, r, "N") != std::to_string(r) || file->isDeleted(r) != (r % 7 == 0)) ++wrong;
      }
    });
  readers.emplace_back([&] {
    if (file->deletedCount() != kRows / 7) ++wrong;  // reads every row at once meanwhile
  });
  for (auto& reader : readers) reader.join();
  EXPECT_EQ(wrong.load(), 0);
}
