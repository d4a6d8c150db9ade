#include "dbase/core/mdx_tags.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <filesystem>

#include "dbase/core/dbf_file.h"
#include "dbase/core/error.h"
#include "dbase/core/key_expression.h"
#include "dbase/core/mdx_build.h"
#include "dbase/core/mdx_file.h"
#include "dbase/core/mdx_tag.h"
#include "dbase/core/mdx_update.h"
#include "dbase/core/path.h"

namespace dbase {

namespace {

const std::vector<MdxTagInfo> kNoTags;

bool sameName(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (std::toupper(static_cast<unsigned char>(a[i])) != std::toupper(static_cast<unsigned char>(b[i]))) return false;
  return true;
}

// Whether some program holds the index file's lock (a write under way).
bool indexLockHeld(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  struct flock probe {};
  probe.l_type = F_WRLCK;
  probe.l_whence = SEEK_SET;
  probe.l_start = off_t(kIndexLockOffset);
  probe.l_len = 1;
  const bool held = ::fcntl(fd, F_OFD_GETLK, &probe) == 0 && probe.l_type != F_UNLCK;
  ::close(fd);
  return held;
}

// The mark of a write under way: a second name of the index file itself,
// since making a link and removing it costs a fraction of making and removing
// a new file (an inode each time); an empty file where the file system has
// no links. A mark already there (another program's) serves as it is.
bool leaveMark(const std::string& mdxPath) {
  const std::string mark = MdxTags::markFor(mdxPath);
  if (::link(mdxPath.c_str(), mark.c_str()) == 0 || errno == EEXIST) return true;
  const int fd = ::open(mark.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  ::close(fd);
  return true;
}

// The index file read as dBase programs read it, without its lock. One that
// looks damaged may be one another program is halfway through changing (a
// tag's root already in blocks past the size seen a moment before): it is
// read again with the lock shared, once no writer holds it, and only what
// that reading finds counts.
std::unique_ptr<MdxFile> openIndexFile(const std::string& path) {
  try {
    auto file = MdxFile::open(path);
    bool whole = true;
    for (size_t t = 0; t < file->tags().size(); ++t) whole = whole && file->tagFault(t).empty();
    if (whole) return file;
  } catch (const Error& e) {
    if (e.kind() != ErrorKind::Corrupt) throw;
  }
  const auto lock = lockIndexFileAt(path, path.substr(path.find_last_of('/') + 1), LockMode::Shared);
  return MdxFile::open(path);  // without the lock when it cannot be opened: says why
}

}  // namespace

MdxTags::MdxTags(DbfFile& file) : file_(file) {
  path_ = pathFor(file.path());
  read();
}

MdxTags::~MdxTags() {
  // A run's end left to placing_ is let finish; when it fails, the mark
  // stays and the index's next reading writes it anew.
  placing_.finish();
  lock_.reset();
  if (lockFd_ >= 0) ::close(lockFd_);
}

MdxTags& MdxTags::of(DbfFile& file) { return file.listener<MdxTags>(); }

std::string MdxTags::pathFor(const std::string& dbfPath) {
  std::string base = dbfPath;
  const size_t slash = base.find_last_of('/');
  const size_t dot = base.find_last_of('.');
  if (dot != std::string::npos && (slash == std::string::npos || dot > slash)) base.resize(dot);
  return resolvePathCaseInsensitive(base + ".MDX");
}

std::string MdxTags::markFor(const std::string& mdxPath) { return mdxPath + ".escribiendo"; }

void MdxTags::forgetWriter() {
  {
    // What waits is dropped first, so that the worker ends with its part.
    std::lock_guard<std::mutex> guard(pendingMutex_);
    pending_.clear();
    pendingRows_ = 0;
  }
  placing_.discard();
  placingBusy_ = false;
  update_.reset();
  writing_.clear();
  if (lockFd_ >= 0) ::close(lockFd_);
  lockFd_ = -1;
}

void MdxTags::read() {
  forgetWriter();
  std::unique_ptr<MdxFile> fresh;
  problem_.clear();
  path_ = pathFor(file_.path());
  if (file_.hasProductionMdx()) {
    if (!fileExistsCaseInsensitive(path_)) {
      problem_ = "la tabla anuncia un índice de producción que no está: " + path_;
    } else {
      try {
        repairCutWrite();
        fresh = openIndexFile(path_);
      } catch (const Error& e) {
        problem_ = e.what();
      }
    }
  }
  // Tags already handed out stay where cursors hold them: they read the new
  // file, or serve nothing once it lacks them.
  std::vector<std::unique_ptr<MdxTag>> previous = std::move(tags_);
  tags_.clear();
  mdx_ = std::move(fresh);
  if (mdx_) tags_.resize(mdx_->tags().size());
  for (auto& old : previous) {
    if (!old) continue;
    const int at = mdx_ ? indexOf(old->info().name) : -1;
    if (at >= 0 && !tags_[size_t(at)] && mdx_->tagFault(size_t(at)).empty()) {
      try {
        const MdxTagInfo& info = mdx_->tags()[size_t(at)];
        std::optional<KeyExpression> condition;
        if (!info.forExpression.empty()) condition = KeyExpression::compile(info.forExpression, file_);
        old->reset(*mdx_, size_t(at), KeyExpression::compile(info.expression, file_), std::move(condition));
        tags_[size_t(at)] = std::move(old);
        continue;
      } catch (const Error&) {
        // asked for by name again, the tag says what is wrong with it
      }
    }
    old->retire();
    retired_.push_back(std::move(old));
  }
}

// A write of this process or another was cut between the table's rows and
// the index: the mark it left says so. Nobody holding the index's lock means
// nobody is still at it, and the index is written anew from the rows.
void MdxTags::repairCutWrite() {
  const std::string mark = markFor(path_);
  if (!std::filesystem::exists(mark) || indexLockHeld(path_)) return;
  const auto cut = MdxFile::open(path_);
  const std::string name = cut->name();
  if (!file_.writable()) {
    warnings_.push_back("una escritura en la tabla se cortó a medias y su índice " + name +
                        " puede estar desfasado; no se rehace porque la tabla es de sólo lectura");
    return;
  }
  std::vector<TagDefinition> tags;
  for (const MdxTagInfo& info : cut->tags())
    tags.push_back({info.name, info.expression, info.forExpression, info.unique, info.descending});
  const auto lock = lockIndexFileAt(path_, name, LockMode::Exclusive);
  repairing_ = true;
  try {
    rebuildProductionIndex(file_, tags);
  } catch (...) {
    repairing_ = false;
    throw;
  }
  repairing_ = false;
  std::filesystem::remove(mark);
  warnings_.push_back("una escritura en la tabla se cortó a medias: su índice " + name +
                      " se ha rehecho a partir de las filas");
}

const std::vector<MdxTagInfo>& MdxTags::tags() const { return mdx_ ? mdx_->tags() : kNoTags; }

int MdxTags::indexOf(std::string_view name) const {
  const auto& all = tags();
  for (size_t i = 0; i < all.size(); ++i)
    if (sameName(all[i].name, name)) return int(i);
  return -1;
}

bool MdxTags::has(std::string_view name) const { return indexOf(name) >= 0; }

MdxTag* MdxTags::tag(std::string_view name) {
  const int at = indexOf(name);
  if (at < 0) return nullptr;
  auto& slot = tags_[size_t(at)];
  if (!slot) slot.reset(makeTag(size_t(at)));
  return slot.get();
}

MdxTag* MdxTags::makeTag(size_t at) {
  const MdxTagInfo& info = mdx_->tags()[at];
  const std::string where = "índice " + info.name + " de " + mdx_->name();
  if (!mdx_->tagFault(at).empty()) throw Error(ErrorKind::Corrupt, file_.name(), where + ": " + mdx_->tagFault(at));
  try {
    KeyExpression expression = KeyExpression::compile(info.expression, file_);
    if (expression.type() != info.keyType)
      throw Error(ErrorKind::NotSupported, file_.name(),
                  "la expresión " + info.expression + " no da claves de tipo " + std::string(1, info.keyType));
    std::optional<KeyExpression> condition;
    if (!info.forExpression.empty()) {
      condition = KeyExpression::compile(info.forExpression, file_);
      if (condition->type() != 'L')
        throw Error(ErrorKind::NotSupported, file_.name(), "la condición " + info.forExpression + " no es lógica");
    }
    auto tag = std::make_unique<MdxTag>(file_, info, expression, condition);
    tag->reset(*mdx_, at, std::move(expression), std::move(condition));
    tag->beforeLoading([this] { writeOutForReading(); });
    return tag.release();
  } catch (const Error& e) {
    throw Error(e.kind(), file_.name(), where + " (" + info.expression + "): " + e.fault());
  }
}

std::vector<MdxTags::Keeper> MdxTags::keepers() const {
  std::vector<Keeper> out;
  for (size_t i = 0; i < mdx_->tags().size(); ++i) {
    const MdxTagInfo& info = mdx_->tags()[i];
    const std::string refusal = "no se escribe en la tabla para no dejar desfasado su índice " + mdx_->name() +
                                ": el índice " + info.name + " (" + info.expression + ") ";
    if (!mdx_->tagFault(i).empty())
      throw Error(ErrorKind::Corrupt, file_.name(), refusal + "está dañado: " + mdx_->tagFault(i));
    try {
      Keeper k{KeyExpression::compile(info.expression, file_), std::nullopt, info.unique};
      if (!info.forExpression.empty()) k.condition = KeyExpression::compile(info.forExpression, file_);
      if (k.key.type() != info.keyType || (k.condition && k.condition->type() != 'L'))
        throw Error(ErrorKind::NotSupported, file_.name(), "sus claves no son del tipo que dice el índice");
      out.push_back(std::move(k));
    } catch (const Error& e) {
      throw Error(ErrorKind::NotSupported, file_.name(), refusal + "no se puede evaluar: " + e.fault());
    }
  }
  return out;
}

void MdxTags::beforeWrite() {
  awaitBackgroundEnd();
  if (!file_.hasProductionMdx() || bulk_) return;  // nothing to keep, or kept at a bulk load's end
  if (writeUnderWay_) return;  // a run's earlier write holds the lock and left the mark
  auto refuse = [&] {
    return Error(ErrorKind::NotSupported, file_.name(),
                 (problem_.empty() ? std::string("la tabla anuncia un índice de producción que no se puede leer")
                                   : problem_) +
                     "; no se escribe en la tabla para no dejarlo desfasado");
  };
  if (!mdx_) throw refuse();
  try {
    // Another program's changes are looked for under the lock; a new file
    // (written whole elsewhere) is locked again as itself.
    for (int round = 0; round < 2; ++round) {
      if (lockFd_ < 0) {
        lockFd_ = ::open(path_.c_str(), O_RDWR | O_CLOEXEC);
        if (lockFd_ < 0) throw Error(ErrorKind::Io, file_.name(), "no se puede abrir para escribir su índice " + path_);
      }
      lock_.emplace(lockFd_, mdx_->name());
      if (!mdx_->changedOnDisk()) break;
      lock_.reset();
      read();
      if (!mdx_) throw refuse();
    }
    if (!lock_) throw Error(ErrorKind::Io, file_.name(), "su índice " + path_ + " cambia sin parar");
    if (writing_.empty()) writing_ = keepers();
    if (!update_) {
      update_ = MdxUpdate::open(path_);
      for (size_t t = 0; t < writing_.size(); ++t) {
        const MdxTagInfo& info = mdx_->tags()[t];
        update_->setOrder(t, [&collation = file_.collation(), type = info.keyType, descending = info.descending,
                              pieces = keyPieces(writing_[t].key)](std::string_view stored, std::string& out) {
          appendMdxOrderKey(collation, type, descending, pieces, stored, out);
        });
      }
    }
    if (!leaveMark(path_))
      throw Error(ErrorKind::Io, file_.name(), "no se puede dejar la marca de escritura junto a " + path_);
    writeUnderWay_ = true;
  } catch (...) {
    lock_.reset();
    throw;
  }
}

void MdxTags::writeAbandoned() {
  awaitBackgroundEnd();
  if (!writeUnderWay_ || bulk_ || file_.inWriteBatch()) return;  // a run's or a bulk load's end lets go
  letGo();
}

// The rows are written and the index is not: the mark stays, and reading the
// index again finds it and writes the index anew from the rows.
void MdxTags::abandonCutWrite() {
  writeUnderWay_ = false;
  lock_.reset();
  read();
}

// Nodes kept between writes, at most: enough for the whole index of the
// largest street table (about 45,000 blocks of 1 KB), so that a long run of
// writes reads each block once; past it, unchanged leaves are dropped.
constexpr size_t kNodesKept = size_t(1) << 16;

void MdxTags::endWrite() {
  if (file_.inWriteBatch()) return;  // written when the run ends
  writeOut();
  letGo();
}

// The index is whole on disk: the mark comes off and the lock goes.
void MdxTags::letGo() {
  std::filesystem::remove(markFor(path_));
  writeUnderWay_ = false;
  lock_.reset();
}

void MdxTags::writeOut() {
  placeWaitingAppends();
  rereadOwnWrite(writeChanges());
}

MdxFile::OwnWrite MdxTags::writeChanges() {
  update_->flush();
  update_->trimCache(kNodesKept);
  return MdxFile::ownWrite(path_, update_->tags());
}

void MdxTags::writeBatchEnded(bool inBackground) {
  awaitBackgroundEnd();
  if (bulk_) return endBulkLoad();
  if (!writeUnderWay_) return;
  if (inBackground) return endInBackground();
  changeOrLeaveMark([&] { endWrite(); });
}

// Runs that follow one another (an import, town after town) each take up
// their next town while the last one's index blocks are written.
void MdxTags::endInBackground() {
  // Where no thread can be had the end runs here, and fails as any end does.
  changeOrLeaveMark([&] {
    placing_.post([this] {
      placePending();
      ownWrite_ = writeChanges();
      std::filesystem::remove(markFor(path_));
    });
  });
  endingInBackground_ = true;
  // The lock goes whether or not the run's placing failed (the mark then
  // stays, and the index's next reading writes it anew): nobody waits for
  // this process's next call to have it.
  placing_.post([this] { lock_.reset(); }, true);
}

// The worker is kept: the next run, if one follows, needs no thread started.
void MdxTags::awaitBackgroundEnd() {
  if (!endingInBackground_) return;
  endingInBackground_ = false;
  changeOrLeaveMark([&] { placing_.waitUntilIdle(); });
  writeUnderWay_ = false;
  rereadOwnWrite(ownWrite_);
}

void MdxTags::settle() {
  awaitBackgroundEnd();
  placing_.finish();  // no run follows: the thread goes
}

// A tag read from the file within a run sees the run's writes so far: they
// are written out first, the lock and the mark kept for the rest of the run.
void MdxTags::writeOutForReading() {
  awaitBackgroundEnd();
  if (!writeUnderWay_ || !file_.inWriteBatch() || bulk_) return;
  changeOrLeaveMark([&] { writeOut(); });
}

void MdxTags::rereadOwnWrite(const MdxFile::OwnWrite& written) {
  // What changed is known: the roots and change counters the writer left.
  if (!mdx_->adoptOwnWrite(written)) mdx_ = MdxFile::open(path_);
  for (size_t i = 0; i < tags_.size() && i < mdx_->tags().size(); ++i)
    if (tags_[i]) tags_[i]->rebind(*mdx_, i);
}

void MdxTags::rowsAppended(uint32_t first, uint32_t last) {
  awaitBackgroundEnd();
  if (bulk_) return;  // the index is written whole at the end, and read again
  if (!writeUnderWay_) {  // no index kept, or rows written without asking first
    if (mdx_ || file_.hasProductionMdx()) read();
    return;
  }
  changeOrLeaveMark([&] {
    if (file_.inWriteBatch()) {
      handOver(first, last);
    } else {
      insertEntries(first, last);
      endWrite();
    }
  });
  // Within a run the file lags behind the rows: every row is placed, none
  // read back from it.
  for (auto& t : tags_)
    if (t) t->rowsAppended(first, last, !file_.inWriteBatch());
}

void MdxTags::addEntries(uint32_t first, uint32_t last, std::vector<TagEntries>& to) const {
  to.resize(writing_.size());
  for (size_t t = 0; t < writing_.size(); ++t) {
    const Keeper& k = writing_[t];
    TagEntries& e = to[t];
    e.unique = k.unique;
    for (uint32_t r = first; r <= last; ++r) {
      const char* record = file_.record(r);
      if (k.condition && !k.condition->isTrue(record)) continue;
      k.key.appendKey(record, e.keys);
      e.recnos.push_back(r);
    }
  }
}

void MdxTags::placeEntries(MdxUpdate& update, const std::vector<TagEntries>& entries) {
  for (size_t t = 0; t < entries.size(); ++t)
    update.insertAppended(t, entries[t].keys, entries[t].recnos, entries[t].unique);
}

void MdxTags::insertEntries(uint32_t first, uint32_t last) {
  std::vector<TagEntries> entries;
  addEntries(first, last, entries);
  placeEntries(*update_, entries);
}

void MdxTags::moveEntries(uint32_t recno, const char* oldRecord) {
  std::string before, after;
  const char* record = file_.record(recno);
  for (size_t t = 0; t < writing_.size(); ++t) {
    const Keeper& k = writing_[t];
    const bool wasIn = !k.condition || k.condition->isTrue(oldRecord);
    const bool isIn = !k.condition || k.condition->isTrue(record);
    before.clear();
    after.clear();
    k.key.appendKey(oldRecord, before);
    k.key.appendKey(record, after);
    if (wasIn && isIn && before == after) continue;
    if (wasIn) update_->remove(t, before, recno);
    if (isIn && !(k.unique && update_->containsKey(t, after))) update_->insert(t, after, recno);
  }
}

void MdxTags::handOver(uint32_t first, uint32_t last) {
  // placing_ is set to work once a few rows wait, and no sooner than a
  // moment after it last was: waking another core costs more than placing a
  // handful of rows, so a slow run (one street at a time) wakes it a few
  // hundred times a second rather than at every sixteenth row. Once at
  // work, it takes whatever has come each time it is free. A bound on the
  // entries pending at once, should the placing fall behind.
  constexpr uint32_t kMostPending = 1u << 18;
  constexpr auto kLeastBetweenStarts = std::chrono::milliseconds(2);
  bool full = false;
  {
    std::lock_guard<std::mutex> guard(pendingMutex_);
    addEntries(first, last, pending_);
    pendingRows_ += last - first + 1;
    full = pendingRows_ >= kMostPending;
  }
  if (full) return placeWaitingAppends();
  const auto now = std::chrono::steady_clock::now();
  if (now - lastStarted_ >= kLeastBetweenStarts && startPlacing()) lastStarted_ = now;
}

bool MdxTags::startPlacing() {
  constexpr uint32_t kFewestToStart = 16;
  {
    std::lock_guard<std::mutex> guard(pendingMutex_);
    if (placingBusy_ || pendingRows_ < kFewestToStart) return false;
    placingBusy_ = true;
  }
  placing_.post([this] { placePending(); });
  return true;
}

void MdxTags::placePending() {
  std::vector<TagEntries> part;
  for (;;) {
    {
      std::lock_guard<std::mutex> guard(pendingMutex_);
      if (pendingRows_ == 0) {
        placingBusy_ = false;
        return;
      }
      part.swap(pending_);  // pending_ gets the last part's buffers back, emptied
      pendingRows_ = 0;
    }
    placeEntries(*update_, part);
    // The blocks go out once the placing has caught up with the run, so that
    // its end has only the last part's to write (the run holds the lock and
    // the mark meanwhile); while more rows wait, they would change them again.
    bool caughtUp = false;
    {
      std::lock_guard<std::mutex> guard(pendingMutex_);
      caughtUp = pendingRows_ == 0;
    }
    if (caughtUp) update_->writeChangedNodes();
    for (TagEntries& e : part) {
      e.keys.clear();
      e.recnos.clear();
    }
  }
}

void MdxTags::placeWaitingAppends() {
  placing_.wait();  // the part under way, if any; a failure there goes on from here
  // What is left is placed here: the caller would only wait for another
  // thread to start and do it.
  placePending();
}

void MdxTags::rowChanged(uint32_t recno, const char* oldRecord) {
  awaitBackgroundEnd();
  if (bulk_) return;
  if (!writeUnderWay_) {
    if (mdx_ || file_.hasProductionMdx()) read();
    return;
  }
  changeOrLeaveMark([&] {
    // After the run's appends, as it came after them: a row appended in the
    // run went in with the keys it had then, and moves from them now.
    placeWaitingAppends();
    moveEntries(recno, oldRecord);
    endWrite();
  });
  for (auto& t : tags_)
    if (t) t->rowChanged(recno);
}

void MdxTags::writeBatchStarted(bool wholeAtEnd) {
  awaitBackgroundEnd();
  if (!wholeAtEnd) return;  // the first write takes the lock and leaves the mark
  beforeWrite();  // the lock, and the mark of a write under way
  if (!writeUnderWay_) return;  // no production index
  bulk_ = true;
}

void MdxTags::endBulkLoad() {
  std::vector<TagDefinition> tags;
  for (const MdxTagInfo& info : mdx_->tags())
    tags.push_back({info.name, info.expression, info.forExpression, info.unique, info.descending});
  bulk_ = false;
  // The lock and the mark stay while the index is written: another program
  // does not repair it meanwhile, and a process killed now leaves it to be
  // written anew at the next opening.
  changeOrLeaveMark([&] { rebuildProductionIndex(file_, tags); });
  letGo();
  read();
}

void MdxTags::rowsReloaded() {
  awaitBackgroundEnd();
  // Within a bulk load the lock and the mark stay: its end writes the index
  // from every row, another program's among them.
  if (bulk_) {
    read();
    return;
  }
  // Another program changed the rows within one of our runs of writes: what
  // the run wrote so far goes to the file and the run lets go before the
  // file is read again (its next write starts afresh).
  if (writeUnderWay_) {
    try {
      writeOut();
    } catch (...) {
      abandonCutWrite();  // the mark stays: reading again writes the index anew
      return;
    }
    letGo();
  }
  read();
}

bool MdxTags::checkDisk() {
  awaitBackgroundEnd();
  if (repairing_ || writeUnderWay_) return false;
  if (mdx_) {
    // Looked at through the open file, as every search does: an index put in
    // its place where the file system does not tell is met when another
    // program's rows make the table read again (which opens the index by its
    // path), or by the next write, which looks by path under the lock.
    if (!mdx_->changedOnDisk(MdxFile::Look::OpenFile)) return false;
  } else if (!file_.hasProductionMdx() || !fileExistsCaseInsensitive(path_)) {
    return false;  // none announced, or the one announced is still missing
  }
  read();
  return true;
}

size_t MdxTags::memoryBytes() const {
  placing_.finish();  // its nodes are counted once it is done with them
  size_t bytes = sizeof *this + (update_ ? update_->memoryBytes() : 0);
  for (const auto* held : {&tags_, &retired_})
    for (const auto& tag : *held)
      if (tag) bytes += sizeof *tag + tag->memoryBytes();
  return bytes;
}

}  // namespace dbase
