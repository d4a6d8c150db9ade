// A dBase IV production index (.MDX), read as a container: its tags and the
// raw (key, record number) entries of each tag's B-tree. Keys are handed out
// as the bytes stored; making and comparing them is the key encoder's job.
//
// Every read is bounded by the file's size and checked before use, so a
// damaged or hostile file is refused with dbase::Error(Corrupt) naming the
// file and the tag, never read past, looped over or trusted for sizes.
// A fault in one tag's header spoils that tag only: it is listed, and
// asking to walk it raises the fault found when the file was opened.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "dbase/core/dbase_locks.h"

namespace dbase {

struct MdxTagInfo {
  std::string name;            // upper case, as stored
  std::string expression;      // key expression text
  std::string forExpression;   // FOR condition text, empty when none
  char keyType = 'C';          // 'C', 'N' or 'D'
  uint16_t keyLength = 0;
  uint16_t itemLength = 0;
  uint16_t maxKeys = 0;
  bool unique = false;
  bool descending = false;
  uint32_t headerPage = 0, rootPage = 0;
  uint8_t serial = 0;          // the tag header's change counter
};

class MdxFile {
 public:
  // Opens and checks the header, the tag table and every tag header. A bad
  // file header throws dbase::Error(Corrupt, file name, what); a bad tag
  // header only makes that tag unusable (see tagFault).
  static std::unique_ptr<MdxFile> open(const std::string& path);
  ~MdxFile();
  MdxFile(const MdxFile&) = delete;
  MdxFile& operator=(const MdxFile&) = delete;

  const std::string& path() const { return path_; }
  const std::string& name() const { return name_; }  // file name for messages
  uint32_t blockBytes() const { return blockBytes_; }
  uint8_t languageDriver() const { return languageDriver_; }
  const std::string& tableName() const { return tableName_; }  // as stored in the header
  const std::vector<MdxTagInfo>& tags() const { return tags_; }
  int tagIndex(std::string_view name) const;  // case-insensitive; -1 when absent
  // Why tag i cannot be used; empty when it can.
  const std::string& tagFault(size_t tag) const { return faults_.at(tag); }

  using Visitor = std::function<void(std::string_view key, uint32_t recno)>;
  // Compares a search key with a stored key, like memcmp; a partial search
  // key compares only its own length.
  using KeyCompare = std::function<int(std::string_view search, std::string_view stored)>;
  // Every (key, recno) of a tag in stored order (leaf entries left to
  // right). Throws dbase::Error(Corrupt, file name, fault naming the tag) on
  // any damage met: a page outside the file, a loop among pages, a node
  // claiming more keys than fit, uneven depth, record number 0. Entries
  // already visited when the damage is met have been handed out.
  void walk(size_t tag, const Visitor& visit) const;

  // The first entry at or after `search` in stored order, descending from
  // the root (interior key i is the highest under child i); nullopt when
  // every entry is before it.
  std::optional<std::pair<std::string, uint32_t>> lowerBound(size_t tag, std::string_view search,
                                                             const KeyCompare& compare) const;

  // A place among a tag's entries that steps to its neighbours, reading only
  // the blocks it moves into: the path from the root to one leaf entry. Each
  // block entered is checked as walk() checks it, a page met again on the
  // way down (a loop among pages) included. A Walk serves while the file it
  // reads is the one this MdxFile read: after a change it must be made anew.
  class Walk {
   public:
    // Throws as walk() does for a tag that cannot be used. `readAhead` suits
    // a walk of many leaves (see mdx_walk.cpp); `once` also refuses a page
    // reached twice, which only a walk that never turns back may do.
    Walk(const MdxFile& file, size_t tag, bool readAhead = false, bool once = false);
    ~Walk();
    Walk(const Walk&) = delete;
    Walk& operator=(const Walk&) = delete;

    // Each moves to an entry and says whether there was one; when there is
    // none the walk stands nowhere, and only first(), last() and seek() move it.
    bool first() { return edge(false); }
    bool last() { return edge(true); }
    bool next() { return step(true); }
    bool prior() { return step(false); }
    // To the first entry at or after `search` (as lowerBound()).
    bool seek(std::string_view search, const KeyCompare& compare);
    // Whether next() (or prior()) stays in the leaf held, reading nothing.
    bool stepStaysInLeaf(bool forward) const;

    bool onEntry() const { return depth_ > 0 && frames_[depth_ - 1].leaf; }
    // The entry stood on: its key as stored, and its record number.
    std::string_view key() const;
    uint32_t recno() const;
    // Blocks read from the file so far.
    size_t blocksRead() const { return blocksRead_; }

   private:
    struct Frame {
      uint32_t page = 0;
      std::vector<unsigned char> block;
      uint32_t n = 0;    // keys in the node
      uint32_t at = 0;   // interior: the child gone down to; leaf: the entry
      bool leaf = false;
    };
    struct Window;
    [[noreturn]] void fail(const std::string& what) const;
    bool edge(bool lastSide);
    bool step(bool forward);
    void enter(uint32_t page);
    void readThroughWindow(uint32_t page, unsigned char* into);
    uint32_t pointer(const Frame& f, uint32_t i) const;
    std::string_view keyAt(const Frame& f, uint32_t i) const;
    // From the node on top, down to a leaf by its first (or last) children.
    void downEdge(bool lastSide);
    // To the following (or preceding) leaf; false, standing nowhere, at the end.
    bool nextLeaf(bool forward);
    // To the first entry with an entry in the leaf held or the following ones.
    bool settle(bool forward);

    const MdxFile& file_;
    const MdxTagInfo& tag_;
    bool readAhead_;
    std::vector<bool> seen_;  // with `once`: pages entered
    std::vector<Frame> frames_;
    size_t depth_ = 0;
    int leafDepth_ = -1;
    size_t blocksRead_ = 0;
    uint64_t enteredInMove_ = 0;  // nodes entered by the move under way
    std::unique_ptr<Window[]> windows_;
    uint64_t clock_ = 0;
  };

  // How changedOnDisk() finds the file on disk: by its path, which sees
  // another file put in its place, or through the file open here, which
  // spares the walk down the path's folders (a third of a search's time on
  // a deep path) and sees another file put in its place only as the one
  // open here having lost its last name (what local file systems report).
  enum class Look { ByPath, OpenFile };
  // True when the file on disk is no longer the one read: size, modification
  // time, inode, or any tag's change counter differs.
  bool changedOnDisk(Look look = Look::ByPath) const;
  // The index's lock, shared (writers hold it alone): held while blocks are
  // read, no writer is halfway through a change.
  IndexFileLock sharedLock() const;
  // What this process's change to the file left on disk: each tag's root
  // and change counter (MdxUpdate::tags()), and the file's size, times and
  // identity as the disk says. Taken under the index's lock, before it goes
  // (another program may write the moment it does).
  struct OwnWrite {
    std::vector<MdxTagInfo> tags;
    bool found = false;  // the path named a file
    uint64_t size = 0;
    int64_t modifiedNs = 0;
    uint64_t inode = 0;
    uint64_t device = 0;
  };
  static OwnWrite ownWrite(const std::string& path, const std::vector<MdxTagInfo>& written);
  // This process changed the file in place, under its lock, and left it as
  // `written` says. False, and nothing changed, when the path no longer
  // named the file open here: it must be opened anew.
  bool adoptOwnWrite(const OwnWrite& written);

 private:
  MdxFile() = default;
  void load();
  void loadTag(size_t slot, const unsigned char* entry);
  bool pageInFile(uint32_t page) const;  // a whole block there, past the header area
  void readBlock(uint32_t page, unsigned char* into, const std::string& tagName) const;
  const MdxTagInfo& usableTag(size_t tag) const;

  std::string path_;
  std::string name_;
  std::string tableName_;
  int fd_ = -1;
  uint64_t fileSize_ = 0;
  int64_t modifiedNs_ = 0;
  int64_t settleNs_ = 0;  // see file_times.h
  // Read, or last found unchanged, after the last change's tick was over:
  // the times alone tell a change from then on.
  mutable bool timesTrusted_ = false;
  uint64_t inode_ = 0;
  uint64_t device_ = 0;
  uint32_t blockPages_ = 0;
  uint32_t blockBytes_ = 0;
  uint8_t languageDriver_ = 0;
  std::vector<MdxTagInfo> tags_;
  std::vector<std::string> faults_;
};

struct MdxTagBuild {
  std::string name, expression, forExpression;
  char keyType = 'C';
  uint16_t keyLength = 0;
  bool unique = false;
  bool descending = false;
  std::vector<std::pair<std::string, uint32_t>> entries;  // already in tag order; keys keyLength bytes
};

// Writes a whole production MDX (header, tag table with its name tree, tag
// headers, B-trees packed bottom-up, dates, language driver) to a temporary
// file beside `path`, flushes it to disk, then renames it over `path`: a
// process killed meanwhile leaves the old file or the new, never half of one.
// Bad definitions throw dbase::Error(InvalidArgument), write failures
// dbase::Error(Io); in both cases `path` is left as it was.
void writeMdx(const std::string& path, std::string_view dbfBaseName, uint8_t languageDriver,
              const std::vector<MdxTagBuild>& tags, uint16_t blockPages = 2);

}  // namespace dbase
