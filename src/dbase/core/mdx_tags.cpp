#include "dbase/core/mdx_tags.h"

#include <cctype>

#include "dbase/core/dbf_file.h"
#include "dbase/core/error.h"
#include "dbase/core/key_expression.h"
#include "dbase/core/mdx_file.h"
#include "dbase/core/mdx_tag.h"
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

}  // namespace

MdxTags::MdxTags(DbfFile& file) : file_(file) {
  path_ = pathFor(file.path());
  read();
}

MdxTags::~MdxTags() = default;

MdxTags& MdxTags::of(DbfFile& file) { return file.listener<MdxTags>(); }

std::string MdxTags::pathFor(const std::string& dbfPath) {
  std::string base = dbfPath;
  const size_t slash = base.find_last_of('/');
  const size_t dot = base.find_last_of('.');
  if (dot != std::string::npos && (slash == std::string::npos || dot > slash)) base.resize(dot);
  return resolvePathCaseInsensitive(base + ".MDX");
}

void MdxTags::read() {
  std::unique_ptr<MdxFile> fresh;
  problem_.clear();
  path_ = pathFor(file_.path());
  if (file_.hasProductionMdx()) {
    if (!fileExistsCaseInsensitive(path_)) {
      problem_ = "la tabla anuncia un índice de producción que no está: " + path_;
    } else {
      try {
        fresh = MdxFile::open(path_);
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
        old->reset(*mdx_, size_t(at), KeyExpression::compile(mdx_->tags()[size_t(at)].expression, file_));
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
  if (slot) return slot.get();
  const MdxTagInfo& info = mdx_->tags()[size_t(at)];
  const std::string where = "índice " + info.name + " de " + mdx_->name();
  if (!mdx_->tagFault(size_t(at)).empty())
    throw Error(ErrorKind::Corrupt, file_.name(), where + ": " + mdx_->tagFault(size_t(at)));
  try {
    KeyExpression expression = KeyExpression::compile(info.expression, file_);
    if (expression.type() != info.keyType)
      throw Error(ErrorKind::NotSupported, file_.name(),
                  "la expresión " + info.expression + " no da claves de tipo " + std::string(1, info.keyType));
    slot = std::make_unique<MdxTag>(file_, info, expression);
    slot->reset(*mdx_, size_t(at), std::move(expression));
  } catch (const Error& e) {
    throw Error(e.kind(), file_.name(), where + " (" + info.expression + "): " + e.fault());
  }
  return slot.get();
}

// Writes to a table with a production index are refused by the file until
// the engine keeps the index; what is served is read again if one happens.
void MdxTags::rowsAppended(uint32_t, uint32_t) { rowsReloaded(); }
void MdxTags::rowChanged(uint32_t, const char*) { rowsReloaded(); }

void MdxTags::rowsReloaded() { read(); }

bool MdxTags::checkDisk() {
  if (mdx_) {
    if (!mdx_->changedOnDisk()) return false;
  } else if (!file_.hasProductionMdx() || !fileExistsCaseInsensitive(path_)) {
    return false;  // none announced, or the one announced is still missing
  }
  read();
  return true;
}

size_t MdxTags::memoryBytes() const { return sizeof *this; }

}  // namespace dbase
