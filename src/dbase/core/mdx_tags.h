// The production index file (.MDX) of a table, kept with the table's file:
// the tags it holds, served to cursors (MdxTag) and noticed again when
// another program changes the index file.
//
// A table whose header announces a production index has it read on first
// use. An index file that is missing or whose header cannot be read leaves
// the table without one (problem() says why); a tag whose expression the
// engine cannot evaluate, or whose header is damaged, is unusable alone, and
// asking for it is the error.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "dbase/core/row_listener.h"

namespace dbase {

class DbfFile;
class MdxFile;
class MdxTag;
struct MdxTagInfo;

class MdxTags : public RowListener {
 public:
  explicit MdxTags(DbfFile& file);
  ~MdxTags() override;

  // The index file kept with this table (read the first time it is asked for).
  static MdxTags& of(DbfFile& file);
  // Where the production index of a table lies (it need not exist).
  static std::string pathFor(const std::string& dbfPath);

  bool present() const { return mdx_ != nullptr; }
  const std::string& path() const { return path_; }
  const std::string& problem() const { return problem_; }
  // Every tag of the file, in the file's order.
  const std::vector<MdxTagInfo>& tags() const;
  bool has(std::string_view name) const;
  // The tag of this name, or nullptr when the file has none. Throws
  // dbase::Error naming the table, the tag and its expression when the
  // tag cannot be used.
  MdxTag* tag(std::string_view name);

  void rowsAppended(uint32_t first, uint32_t last) override;
  void rowChanged(uint32_t recno, const char* oldRecord) override;
  void rowsReloaded() override;
  bool checkDisk() override;
  size_t memoryBytes() const override;

 private:
  void read();
  int indexOf(std::string_view name) const;

  DbfFile& file_;
  std::string path_;
  std::string problem_;
  std::unique_ptr<MdxFile> mdx_;
  // By the tag's place in the file; made when first asked for.
  std::vector<std::unique_ptr<MdxTag>> tags_;
  // Tags of an earlier reading that the new one lacks: cursors may still
  // hold them until they change order.
  std::vector<std::unique_ptr<MdxTag>> retired_;
};

}  // namespace dbase
