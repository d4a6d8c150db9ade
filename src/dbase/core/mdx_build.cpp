#include "dbase/core/mdx_build.h"

#include <algorithm>
#include <cctype>
#include <exception>
#include <thread>
#include <set>
#include <string_view>

#include "dbase/core/error.h"
#include "dbase/core/key_expression.h"
#include "dbase/core/mdx_file.h"
#include "dbase/core/mdx_tag.h"
#include "dbase/core/mdx_tags.h"

namespace dbase {

namespace {

constexpr size_t kMaxTags = 47;
constexpr size_t kMaxTagName = 10;

std::string upper(std::string_view s) {
  std::string out(s);
  for (char& c : out) c = char(std::toupper(static_cast<unsigned char>(c)));
  return out;
}

std::string baseName(const std::string& path) {
  std::string name = path.substr(path.find_last_of('/') + 1);
  const size_t dot = name.find_last_of('.');
  if (dot != std::string::npos) name.resize(dot);
  return upper(name);
}

// One tag's entries in its order: keys as the file stores them, the rows the
// FOR condition lets in, a unique tag's first row of each key only.
MdxTagBuild buildTag(const DbfFile& file, const TagDefinition& def) {
  const std::string where = "índice " + def.name + " (" + def.expression + ")";
  try {
    const KeyExpression key = KeyExpression::compile(def.expression, file);
    if (key.type() != 'C' && key.type() != 'N' && key.type() != 'D')
      throw Error(ErrorKind::NotSupported, file.name(), "la expresión no da claves de texto, número ni fecha");
    std::optional<KeyExpression> condition;
    if (!def.forCondition.empty()) {
      condition = KeyExpression::compile(def.forCondition, file);
      if (condition->type() != 'L')
        throw Error(ErrorKind::NotSupported, file.name(), "la condición " + def.forCondition + " no es lógica");
    }
    MdxTagBuild tag;
    tag.name = upper(def.name);
    tag.expression = def.expression;
    tag.forExpression = def.forCondition;
    tag.keyType = key.type();
    tag.keyLength = uint16_t(key.keyLength());
    tag.unique = def.unique;
    tag.descending = def.descending;

    // Stored keys and their orderable forms, one after the other.
    const std::vector<uint32_t> pieces = keyPieces(key);
    const uint32_t count = file.recordCount();
    std::string stored, ordered;
    std::vector<uint32_t> rows, orderedAt{0};
    rows.reserve(count);
    stored.reserve(size_t(count) * key.keyLength());
    for (uint32_t r = 1; r <= count; ++r) {
      const char* record = file.record(r);
      if (condition && !condition->isTrue(record)) continue;
      key.appendKey(record, stored);
      appendMdxOrderKey(file.collation(), tag.keyType, tag.descending, pieces,
                        std::string_view(stored).substr(stored.size() - key.keyLength()), ordered);
      orderedAt.push_back(uint32_t(ordered.size()));
      rows.push_back(r);
    }
    auto orderedOf = [&](size_t i) {
      return std::string_view(ordered).substr(orderedAt[i], orderedAt[i + 1] - orderedAt[i]);
    };
    // Sorted on the first eight bytes of the orderable key held beside each
    // row, the whole key only where those are equal; equal keys keep the
    // rows' order.
    struct Entry {
      uint64_t head;
      uint32_t row;
    };
    std::vector<Entry> byKey(rows.size());
    for (uint32_t i = 0; i < rows.size(); ++i) {
      const std::string_view k = orderedOf(i);
      uint64_t head = 0;
      for (size_t b = 0; b < 8; ++b) head = head << 8 | (b < k.size() ? uint8_t(k[b]) : 0);
      byKey[i] = {head, i};
    }
    std::sort(byKey.begin(), byKey.end(), [&](const Entry& a, const Entry& b) {
      if (a.head != b.head) return a.head < b.head;
      const int c = orderedOf(a.row).compare(orderedOf(b.row));
      return c < 0 || (c == 0 && a.row < b.row);
    });
    tag.entries.reserve(byKey.size());
    for (size_t i = 0; i < byKey.size(); ++i) {
      const uint32_t at = byKey[i].row;
      if (def.unique && i > 0 && orderedOf(at) == orderedOf(byKey[i - 1].row)) continue;
      tag.entries.emplace_back(stored.substr(size_t(at) * key.keyLength(), key.keyLength()), rows[at]);
    }
    return tag;
  } catch (const Error& e) {
    throw Error(e.kind(), file.name(), where + ": " + e.fault());
  }
}

}  // namespace

std::vector<TagDefinition> productionTags(DbfFile& file) {
  MdxTags& index = MdxTags::of(file);
  if (!index.present()) {
    if (!index.problem().empty()) throw Error(ErrorKind::Corrupt, file.name(), index.problem());
    return {};
  }
  std::vector<TagDefinition> tags;
  for (const MdxTagInfo& info : index.tags())
    tags.push_back({info.name, info.expression, info.forExpression, info.unique, info.descending});
  return tags;
}

void rebuildProductionIndex(DbfFile& file, const std::vector<TagDefinition>& tags) {
  if (!file.writable()) throw Error(ErrorKind::Io, file.name(), "la tabla es de sólo lectura");
  if (tags.size() > kMaxTags)
    throw Error(ErrorKind::InvalidArgument, file.name(), "un índice de producción tiene como mucho 47 etiquetas");
  std::set<std::string> names;
  for (const TagDefinition& def : tags) {
    const std::string name = upper(def.name);
    const bool valid = !name.empty() && name.size() <= kMaxTagName && std::isalpha(static_cast<unsigned char>(name[0])) &&
                       std::all_of(name.begin(), name.end(), [](char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '_'; });
    if (!valid) throw Error(ErrorKind::InvalidArgument, file.name(), "nombre de índice no válido: " + def.name);
    if (!names.insert(name).second) throw Error(ErrorKind::InvalidArgument, file.name(), "índice repetido: " + name);
  }
  file.syncWithDisk();
  // Every tag looks at every row: read them all now, at once, rather than
  // block by block with the threads waiting on each other's reads.
  file.readAllRows();
  // The tags are independent: each is built on a thread of its own, as many
  // at once as there are processors.
  std::vector<MdxTagBuild> built(tags.size());
  std::vector<std::exception_ptr> failed(tags.size());
  const size_t width = std::max(1u, std::min(std::thread::hardware_concurrency(), 8u));
  for (size_t from = 0; from < tags.size(); from += width) {
    std::vector<std::thread> workers;
    for (size_t i = from; i < std::min(tags.size(), from + width); ++i)
      workers.emplace_back([&, i] {
        try {
          built[i] = buildTag(file, tags[i]);
        } catch (...) {
          failed[i] = std::current_exception();
        }
      });
    for (auto& w : workers) w.join();
  }
  for (const auto& f : failed)
    if (f) std::rethrow_exception(f);

  writeMdx(MdxTags::pathFor(file.path()), baseName(file.path()), file.languageDriver(), built);

  std::vector<bool> keyedAlone(file.fields().size(), false);
  for (const TagDefinition& def : tags) {
    const int f = file.fieldIndex(def.expression);  // a tag on one field names just that field
    if (f >= 0) keyedAlone[size_t(f)] = true;
  }
  file.setProductionIndexFlags(!tags.empty(), keyedAlone);
}

std::shared_ptr<DbfFile> createTableWithTags(const std::string& path, const std::vector<FieldSpec>& fields,
                                             uint8_t languageDriver, const std::vector<TagDefinition>& tags,
                                             bool overwrite) {
  auto file = DbfFile::create(path, fields, languageDriver, overwrite);
  if (!tags.empty()) rebuildProductionIndex(*file, tags);
  return file;
}

}  // namespace dbase
