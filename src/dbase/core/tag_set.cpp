#include "dbase/core/tag_set.h"

#include "dbase/core/dbf_file.h"
#include "dbase/core/error.h"
#include "dbase/core/index_tag.h"
#include "dbase/core/sort_key.h"

namespace dbase {

TagSet::TagSet(DbfFile& file) : file_(file) {}
TagSet::~TagSet() = default;

TagSet& TagSet::of(DbfFile& file) { return file.listener<TagSet>(); }

IndexTag& TagSet::tag(const std::vector<int>& fieldIndexes) {
  auto it = tags_.find(fieldIndexes);
  if (it != tags_.end()) return *it->second;
  for (int i : fieldIndexes)
    if (i < 0 || size_t(i) >= file_.fields().size())
      throw Error(ErrorKind::InvalidArgument, file_.name(), "campo de índice inválido");
  auto& slot = tags_[fieldIndexes];
  slot = std::make_unique<IndexTag>(file_, fieldIndexes);
  return *slot;
}

void TagSet::rowsAppended(uint32_t first, uint32_t last) {
  if (tags_.empty()) return;
  static thread_local RowKeys keys;  // its buffers outlive the call
  for (uint32_t r = first; r <= last; ++r) {
    keys.reset(file_, file_.record(r));
    for (auto& [fields, tag] : tags_) tag->insert(r, &keys);
  }
}

void TagSet::rowChanged(uint32_t recno, const char* oldRecord) {
  for (auto& [fields, tag] : tags_) tag->update(recno, oldRecord);
}

void TagSet::rowsReloaded() {
  for (auto& [fields, tag] : tags_) tag->invalidate();
}

size_t TagSet::memoryBytes() const {
  size_t bytes = sizeof *this;
  for (const auto& [fields, tag] : tags_) bytes += tag->memoryBytes();
  return bytes;
}

}  // namespace dbase
