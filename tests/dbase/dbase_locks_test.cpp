// Sharing a table with other programs: the dBase locks land where dBase
// looks for them, writers wait for each other a bounded time, and a writer
// that gives up leaves the file untouched. The other program is a forked
// child with its own open of the file.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <thread>

#include "dbase/core/dbase_locks.h"
#include "dbase/core/dbf_file.h"
#include "dbase/core/error.h"
#include "dbase/core/field_value.h"
#include "dbase/core/row_listener.h"
#include "support/tables.h"
#include "support/temp_dir.h"

using namespace dbase;
using namespace testsupport;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

// ---- another program --------------------------------------------------------

void sendByte(int fd, char c) {
  while (::write(fd, &c, 1) < 0 && errno == EINTR) {
  }
}

// The next byte from fd, or 0 at its end.
char readByte(int fd) {
  char c = 0;
  ssize_t n;
  while ((n = ::read(fd, &c, 1)) < 0 && errno == EINTR) {
  }
  return n == 1 ? c : 0;
}

// A forked process running body(in, out) and exiting with what it returns.
// Closing `toChild` tells it to stop; finish() waits for it.
class Child {
 public:
  explicit Child(const std::function<int(int in, int out)>& body) {
    int down[2], up[2];
    if (pipe2(down, O_CLOEXEC) != 0 || pipe2(up, O_CLOEXEC) != 0) std::abort();
    pid_ = fork();
    if (pid_ == 0) {
      ::close(down[1]);
      ::close(up[0]);
      int code = 99;
      try {
        code = body(down[0], up[1]);
      } catch (...) {
        code = 98;
      }
      _exit(code);
    }
    ::close(down[0]);
    ::close(up[1]);
    toChild_ = down[1];
    fromChild_ = up[0];
  }
  ~Child() { finish(); }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  int toChild() const { return toChild_; }
  int fromChild() const { return fromChild_; }
  // Tells it to stop and returns its exit code.
  int finish() {
    if (pid_ <= 0) return code_;
    ::close(toChild_);
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    ::close(fromChild_);
    pid_ = -1;
    code_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return code_;
  }

 private:
  pid_t pid_ = -1;
  int toChild_ = -1, fromChild_ = -1;
  int code_ = -1;
};

enum class What { Append, Record, Table };

// Another program that takes a lock on the table at path through its own
// open of it, says 'r' once it holds it, and holds it for holdFor (or, when
// that is zero, until told to stop). For an append, `recno` is the new row.
std::unique_ptr<Child> holding(const std::string& path, What what, uint32_t recno,
                               std::chrono::milliseconds holdFor = 0ms) {
  auto child = std::make_unique<Child>([=](int in, int out) {
    const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) return 1;
    auto hold = [&] {
      sendByte(out, 'r');
      if (holdFor > 0ms)
        std::this_thread::sleep_for(holdFor);
      else
        readByte(in);
    };
    switch (what) {
      case What::Append: {
        AppendLock lock(fd, "T.DBF");
        lock.lockNextRecord(recno);
        hold();
        break;
      }
      case What::Record: {
        RecordLock lock(fd, "T.DBF", recno);
        hold();
        break;
      }
      case What::Table: {
        TableLock lock(fd, "T.DBF");
        hold();
        break;
      }
    }
    return 0;
  });
  EXPECT_EQ(readByte(child->fromChild()), 'r') << "the other program did not get its lock";
  return child;
}

// Another program asking F_OFD_GETLK about byte ranges of a file, through its
// own open of it: what a dBase program on another workstation would see.
struct Seen {
  short type = F_UNLCK;
  uint64_t start = 0, length = 0;
  bool held() const { return type != F_UNLCK; }
};
class Prober {
 public:
  explicit Prober(const std::string& path)
      : child_([path](int in, int out) {
          const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
          if (fd < 0) return 1;
          uint64_t ask[2];
          while (::read(in, ask, sizeof ask) == ssize_t(sizeof ask)) {
            struct flock lock {};
            lock.l_type = F_WRLCK;
            lock.l_whence = SEEK_SET;
            lock.l_start = off_t(ask[0]);
            lock.l_len = off_t(ask[1]);
            if (fcntl(fd, F_OFD_GETLK, &lock) != 0) return 2;
            int64_t answer[3] = {lock.l_type, lock.l_start, lock.l_len};
            if (::write(out, answer, sizeof answer) != ssize_t(sizeof answer)) return 3;
          }
          return 0;
        }) {}
  Seen at(uint64_t start, uint64_t length) {
    uint64_t ask[2] = {start, length};
    int64_t answer[3] = {};
    if (::write(child_.toChild(), ask, sizeof ask) != ssize_t(sizeof ask) ||
        ::read(child_.fromChild(), answer, sizeof answer) != ssize_t(sizeof answer))
      ADD_FAILURE() << "the prober stopped";
    return Seen{short(answer[0]), uint64_t(answer[1]), uint64_t(answer[2])};
  }

 private:
  Child child_;
};

// ---- tables --------------------------------------------------------------------

std::vector<FieldSpec> rowFields() { return {charField("QUIEN", 2), numField("ORDEN", 6)}; }

// A row of writer `who`, number `n`.
std::string row(const DbfFile& file, int who, int n) {
  std::string r = file.blankRecord();
  char text[16];
  std::snprintf(text, sizeof text, "W%d", who);
  std::memcpy(r.data() + file.field("QUIEN").offset, text, 2);
  std::snprintf(text, sizeof text, "%6d", n);
  std::memcpy(r.data() + file.field("ORDEN").offset, text, 6);
  return r;
}

std::string text(const DbfFile& f, uint32_t recno, const char* field) {
  return fieldText(f.field(field), f.record(recno), f.codePage());
}

uint32_t headerCount(const std::string& bytes) {
  const auto* b = reinterpret_cast<const unsigned char*>(bytes.data());
  return uint32_t(b[4]) | uint32_t(b[5]) << 8 | uint32_t(b[6]) << 16 | uint32_t(b[7]) << 24;
}

template <class Duration>
long long ms(Duration d) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(d).count();
}

// Runs a write that must give up: it throws the lock error, after `wait`
// (and well before the default wait), and leaves the file as it was.
void expectGivesUp(const std::string& path, std::chrono::milliseconds wait, const std::string& waitText,
                   const std::function<void()>& write) {
  const std::string before = readFile(path);
  const auto started = Clock::now();
  try {
    write();
    ADD_FAILURE() << "the write did not wait for the other program";
  } catch (const Error& e) {
    const auto took = Clock::now() - started;
    EXPECT_EQ(int(e.kind()), int(ErrorKind::Io)) << e.what();
    EXPECT_EQ(e.subject(), "T.DBF");
    const std::string message = e.what();
    EXPECT_NE(message.find("otro programa"), std::string::npos) << message;
    EXPECT_NE(message.find("no se ha guardado nada"), std::string::npos) << message;
    EXPECT_NE(message.find("se ha esperado " + waitText), std::string::npos) << message;
    EXPECT_GE(ms(took), wait.count() - 5);
    EXPECT_LT(ms(took), wait.count() + 3000);
  }
  EXPECT_EQ(readFile(path), before) << "the file changed although the write gave up";
}

// Runs a write that must wait for the other program and then succeed.
void expectWaitsThenWrites(const std::function<void()>& write, std::chrono::milliseconds atLeast) {
  const auto started = Clock::now();
  EXPECT_NO_THROW(write());
  const auto took = Clock::now() - started;
  EXPECT_GE(ms(took), atLeast.count()) << "the write did not wait";
  EXPECT_LT(ms(took), lockWait().count());
}

class TableLocks : public ::testing::Test {
 protected:
  void SetUp() override {
    cacheLimit_ = DbfFile::cacheLimit();
    resetLockWait();
    unsetenv("CODPOSTALES_ESPERA_BLOQUEO_MS");
    path_ = dir_.file("T.DBF");
    makeTable(dir_.path(), "T.DBF", rowFields(), {{"W9", "1"}, {"W9", "2"}, {"W9", "3"}});
  }
  void TearDown() override {
    resetLockWait();
    unsetenv("CODPOSTALES_ESPERA_BLOQUEO_MS");
    DbfFile::setCacheLimit(cacheLimit_);
  }
  std::shared_ptr<DbfFile> open() { return DbfFile::open(path_); }

  TempDir dir_;
  std::string path_;
  uint64_t cacheLimit_ = 0;
};

// What another program sees while the table's listeners are told of a change
// (the writer still holds its locks then).
std::function<void()> onChange;
struct Watcher : RowListener {
  explicit Watcher(DbfFile&) {}
  void rowsAppended(uint32_t, uint32_t) override {
    if (onChange) onChange();
  }
  void rowChanged(uint32_t, const char*) override {
    if (onChange) onChange();
  }
  void rowsReloaded() override {}
  size_t memoryBytes() const override { return 0; }
};

}  // namespace

// ---- where the locks are ---------------------------------------------------------

TEST_F(TableLocks, RecordLockIsTheByteBelowTheTableLockByRecordNumber) {
  const int fd = ::open(path_.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  Prober other(path_);
  {
    RecordLock lock(fd, "T.DBF", 5);
    const Seen seen = other.at(0xEFFFFFF0ull, 0x10);
    ASSERT_TRUE(seen.held());
    EXPECT_EQ(seen.type, F_WRLCK);
    EXPECT_EQ(seen.start, 0xEFFFFFF9ull);  // 0xEFFFFFFE - 5
    EXPECT_EQ(seen.length, 1u);
    EXPECT_FALSE(other.at(0xEFFFFFF8ull, 1).held());
    EXPECT_FALSE(other.at(0xEFFFFFFAull, 1).held());
  }
  EXPECT_FALSE(other.at(0, 0).held()) << "the lock outlived its guard";
  ::close(fd);
}

TEST_F(TableLocks, TableLockIsTwoBytesAtTheTopAndLeavesTheRecordRangeFree) {
  const int fd = ::open(path_.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  Prober other(path_);
  {
    TableLock lock(fd, "T.DBF");
    const Seen seen = other.at(0xEFFFFFF0ull, 0x10);
    ASSERT_TRUE(seen.held());
    EXPECT_EQ(seen.start, 0xEFFFFFFEull);
    EXPECT_EQ(seen.length, 2u);
    EXPECT_FALSE(other.at(0xEFFFFFFEull - 1000000000ull, 1000000000ull).held());
  }
  EXPECT_FALSE(other.at(0, 0).held());
  ::close(fd);
}

TEST_F(TableLocks, IndexFileLockIsOneByteAtTheTopOfTheIndexFile) {
  const std::string mdx = dir_.file("T.MDX");
  writeFile(mdx, std::string(2048, '\0'));
  const int fd = ::open(mdx.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  Prober other(mdx);
  {
    IndexFileLock lock = lockIndexFile(fd, "T.MDX");
    const Seen seen = other.at(0xEFFFFFF0ull, 0x10);
    ASSERT_TRUE(seen.held());
    EXPECT_EQ(seen.start, 0xEFFFFFFEull);
    EXPECT_EQ(seen.length, 1u);
  }
  EXPECT_FALSE(other.at(0, 0).held());
  ::close(fd);
}

TEST_F(TableLocks, AppendHoldsTheAppendByteAndTheNewRowsByteWhileWriting) {
  auto file = open();
  file->listener<Watcher>();
  Prober other(path_);
  bool told = false;
  onChange = [&] {
    told = true;
    const Seen append = other.at(0xEFFFFFFFull, 1);
    EXPECT_TRUE(append.held());
    EXPECT_EQ(append.start, 0xEFFFFFFFull);
    EXPECT_EQ(append.length, 1u);
    const Seen newRow = other.at(0xEFFFFFF0ull, 0xE);
    EXPECT_TRUE(newRow.held());
    EXPECT_EQ(newRow.start, 0xEFFFFFFAull);  // record 4 of a table that had 3
    EXPECT_EQ(newRow.length, 1u);
    EXPECT_FALSE(other.at(0xEFFFFFFEull, 1).held());
  };
  file->append(row(*file, 1, 4));
  onChange = nullptr;
  EXPECT_TRUE(told);
  EXPECT_FALSE(other.at(0, 0).held());
}

TEST_F(TableLocks, UpdateHoldsOnlyItsRowsByteWhileWriting) {
  auto file = open();
  file->listener<Watcher>();
  Prober other(path_);
  bool told = false;
  onChange = [&] {
    told = true;
    const Seen seen = other.at(0, 0);
    EXPECT_TRUE(seen.held());
    EXPECT_EQ(seen.start, 0xEFFFFFFCull);  // record 2
    EXPECT_EQ(seen.length, 1u);
    EXPECT_FALSE(other.at(0xEFFFFFFDull, 3).held());
    EXPECT_FALSE(other.at(0, 0xEFFFFFFCull).held());
  };
  file->update(2, row(*file, 1, 20));
  onChange = nullptr;
  EXPECT_TRUE(told);
  EXPECT_FALSE(other.at(0, 0).held());
}

// ---- waiting for another program ------------------------------------------------

TEST_F(TableLocks, AppendWaitsWhileAnotherProgramAppendsAndWritesOnceItLetsGo) {
  auto file = open();
  auto other = holding(path_, What::Append, 4, 300ms);
  expectWaitsThenWrites([&] { file->append(row(*file, 1, 4)); }, 150ms);
  EXPECT_EQ(other->finish(), 0);
  EXPECT_EQ(file->recordCount(), 4u);
  EXPECT_EQ(headerCount(readFile(path_)), 4u);
  EXPECT_EQ(text(*file, 4, "ORDEN"), "4");
}

TEST_F(TableLocks, UpdateWaitsWhileAnotherProgramHoldsThatRowOnly) {
  auto file = open();
  auto other = holding(path_, What::Record, 2, 300ms);
  // Another row is free at once.
  const auto started = Clock::now();
  file->update(3, row(*file, 1, 30));
  EXPECT_LT(ms(Clock::now() - started), 150);
  expectWaitsThenWrites([&] { file->update(2, row(*file, 1, 20)); }, 150ms);
  EXPECT_EQ(other->finish(), 0);
  auto again = readFile(path_);
  EXPECT_NE(again.find("W1    20"), std::string::npos);
  EXPECT_NE(again.find("W1    30"), std::string::npos);
}

TEST_F(TableLocks, WritesWaitWhileAnotherProgramHoldsTheTable) {
  auto file = open();
  {
    auto other = holding(path_, What::Table, 0, 300ms);
    expectWaitsThenWrites([&] { file->update(1, row(*file, 1, 10)); }, 150ms);
    EXPECT_EQ(other->finish(), 0);
  }
  {
    auto other = holding(path_, What::Table, 0, 300ms);
    expectWaitsThenWrites([&] { file->append(row(*file, 1, 4)); }, 150ms);
    EXPECT_EQ(other->finish(), 0);
  }
  EXPECT_EQ(headerCount(readFile(path_)), 4u);
  EXPECT_EQ(text(*file, 1, "ORDEN"), "10");
}

TEST_F(TableLocks, TableLockWaitsWhileAnotherProgramHoldsARow) {
  const int fd = ::open(path_.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  auto other = holding(path_, What::Record, 7, 300ms);
  expectWaitsThenWrites([&] { TableLock lock(fd, "T.DBF"); }, 150ms);
  EXPECT_EQ(other->finish(), 0);
  ::close(fd);
}

// ---- giving up ------------------------------------------------------------------------

TEST_F(TableLocks, AppendGivesUpAfterTheWaitAndLeavesTheFileAsItWas) {
  setLockWait(300ms);
  auto file = open();
  auto other = holding(path_, What::Append, 4);
  expectGivesUp(path_, 300ms, "0,3 s", [&] { file->append(row(*file, 1, 4)); });
  EXPECT_EQ(file->recordCount(), 3u);
  EXPECT_EQ(other->finish(), 0);
  // Once the other program is done the same write goes through.
  file->append(row(*file, 1, 4));
  EXPECT_EQ(headerCount(readFile(path_)), 4u);
}

TEST_F(TableLocks, UpdateGivesUpAfterTheWaitAndLeavesTheFileAsItWas) {
  setLockWait(250ms);
  auto file = open();
  {
    auto other = holding(path_, What::Record, 2);
    expectGivesUp(path_, 250ms, "0,25 s", [&] { file->update(2, row(*file, 1, 20)); });
    EXPECT_EQ(text(*file, 2, "ORDEN"), "2");
    EXPECT_EQ(other->finish(), 0);
  }
  {
    auto other = holding(path_, What::Table, 0);
    expectGivesUp(path_, 250ms, "0,25 s", [&] { file->update(2, row(*file, 1, 20)); });
    expectGivesUp(path_, 250ms, "0,25 s", [&] { file->append(row(*file, 1, 4)); });
    EXPECT_EQ(other->finish(), 0);
  }
  file->update(2, row(*file, 1, 20));
  EXPECT_EQ(text(*file, 2, "ORDEN"), "20");
}

TEST_F(TableLocks, TheMessageNamesTheRowAndTheTable) {
  setLockWait(0ms);
  auto file = open();
  auto other = holding(path_, What::Record, 2);
  try {
    file->update(2, row(*file, 1, 20));
    FAIL() << "no error";
  } catch (const Error& e) {
    EXPECT_EQ(std::string(e.what()),
              "T.DBF: otro programa u otro puesto tiene bloqueado el registro 2 de la tabla; se ha esperado 0 s "
              "y no se ha guardado nada. Vuelva a intentarlo cuando el otro programa termine.");
  }
  EXPECT_EQ(other->finish(), 0);
}

TEST_F(TableLocks, TheWaitComesFromTheEnvironmentUnlessSetInTheProgram) {
  EXPECT_EQ(lockWait(), 10000ms);
  setenv("CODPOSTALES_ESPERA_BLOQUEO_MS", "400", 1);
  EXPECT_EQ(lockWait(), 400ms);
  auto file = open();
  {
    auto other = holding(path_, What::Record, 1);
    expectGivesUp(path_, 400ms, "0,4 s", [&] { file->update(1, row(*file, 1, 10)); });
    EXPECT_EQ(other->finish(), 0);
  }
  setLockWait(1500ms);
  EXPECT_EQ(lockWait(), 1500ms);
  resetLockWait();
  setenv("CODPOSTALES_ESPERA_BLOQUEO_MS", "no", 1);
  EXPECT_EQ(lockWait(), 10000ms);
}

// ---- writers at once ----------------------------------------------------------------

TEST_F(TableLocks, FourProgramsAppendingAtOnceKeepEveryRowExactlyOnce) {
  constexpr int kWriters = 4;
  constexpr int kRows = 2000;
  makeTable(dir_.path(), "T.DBF", rowFields(), {});
  // Each program must open the table itself, not share ours.
  DbfFile::setCacheLimit(0);
  std::vector<std::unique_ptr<Child>> writers;
  for (int who = 1; who <= kWriters; ++who)
    writers.push_back(std::make_unique<Child>([=, path = path_](int in, int out) {
      setLockWait(60000ms);  // a loaded machine must not fail the run
      if (readByte(in) != 'g') return 1;
      auto file = DbfFile::open(path);
      for (int n = 1; n <= kRows;) {
        if (n % 7 == 0 && n + 3 <= kRows) {  // some rows three at a time
          file->appendMany(row(*file, who, n) + row(*file, who, n + 1) + row(*file, who, n + 2));
          n += 3;
        } else {
          file->append(row(*file, who, n));
          ++n;
        }
      }
      return 0;
    }));
  for (auto& w : writers) sendByte(w->toChild(), 'g');
  for (auto& w : writers) EXPECT_EQ(w->finish(), 0);

  const std::string bytes = readFile(path_);
  auto file = open();
  EXPECT_TRUE(file->warnings().empty()) << file->warnings().front();
  ASSERT_EQ(file->recordCount(), uint32_t(kWriters * kRows));
  EXPECT_EQ(headerCount(bytes), uint32_t(kWriters * kRows));
  const size_t headerLength = size_t(uint8_t(bytes[8])) | size_t(uint8_t(bytes[9])) << 8;
  EXPECT_EQ(bytes.size(), headerLength + size_t(kWriters * kRows) * file->recordLength() + 1);
  EXPECT_EQ(bytes.back(), '\x1A');
  std::map<std::string, int> lastOf;
  std::map<std::pair<std::string, int>, int> seen;
  for (uint32_t r = 1; r <= file->recordCount(); ++r) {
    const std::string who = text(*file, r, "QUIEN");
    const int n = std::stoi(text(*file, r, "ORDEN"));
    ++seen[{who, n}];
    EXPECT_GT(n, lastOf[who]) << "rows of " << who << " out of order at record " << r;
    lastOf[who] = n;
  }
  EXPECT_EQ(seen.size(), size_t(kWriters * kRows));
  for (const auto& [key, times] : seen) EXPECT_EQ(times, 1) << key.first << " " << key.second;
}

TEST_F(TableLocks, RewritingARowKeepsTheCountAnotherProgramWrote) {
  auto file = open();
  Child other([path = path_](int, int) {
    const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    std::string bytes = readFile(path);
    const size_t headerLength = size_t(uint8_t(bytes[8])) | size_t(uint8_t(bytes[9])) << 8;
    const size_t recordLength = size_t(uint8_t(bytes[10])) | size_t(uint8_t(bytes[11])) << 8;
    // Another program appends a fourth row, as dBase does, under its locks.
    AppendLock lock(fd, "T.DBF");
    lock.lockNextRecord(4);
    const std::string added = " W7     4\x1A";
    if (added.size() != recordLength + 1) return 2;
    if (pwrite(fd, added.data(), added.size(), off_t(headerLength + 3 * recordLength)) != ssize_t(added.size()))
      return 3;
    const char count[4] = {4, 0, 0, 0};
    return pwrite(fd, count, 4, 4) == 4 ? 0 : 4;
  });
  ASSERT_EQ(other.finish(), 0);
  // Our copy still has three rows; rewriting one must not put back that count.
  file->update(1, row(*file, 1, 10));
  EXPECT_EQ(headerCount(readFile(path_)), 4u);
}
