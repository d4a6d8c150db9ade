// volcar_mdx: the engine's view of a production index, printed for the checks
// in tests/scripts/mdx_perl.sh to hold against Perl's XBase::Index.
//
//   volcar_mdx tags FILE.MDX          one line per tag: name, type, key length,
//                                     unique, descending, expression, FOR (tab-separated)
//   volcar_mdx walk FILE.MDX TAG      one line per entry: key in hex, record number
//   volcar_mdx copy FROM.MDX TO.MDX   rewrites every tag of FROM, walked, with writeMdx
//   volcar_mdx table DIR ROWS         writes DIR/GRANDE.DBF with ROWS rows and its
//                                     GRANDE.MDX (tags NOMBRE, CODIGO descending);
//                                     prints each tag's depth
//   volcar_mdx cambiar FILE.MDX OPS SEED [INSERT%]
//                                     changes every tag of FILE in place with
//                                     MdxUpdate: OPS random inserts (new keys
//                                     near the ones held, duplicates among them)
//                                     and removals per tag, INSERT% of them
//                                     inserts (60 unless given); prints what each tag
//                                     should then walk as: TAG key-in-hex recno
// Exits with 2 and a message on any fault.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <random>
#include <exception>
#include <string>
#include <vector>

#include "dbase/core/dbf_file.h"
#include "dbase/core/mdx_file.h"
#include "dbase/core/collation.h"
#include "dbase/core/mdx_format.h"
#include "dbase/core/mdx_key.h"
#include "dbase/core/mdx_tag.h"
#include "dbase/core/mdx_update.h"

namespace {

using dbase::MdxFile;

std::string hex(std::string_view bytes) {
  static const char digits[] = "0123456789abcdef";
  std::string out;
  for (unsigned char c : bytes) {
    out += digits[c >> 4];
    out += digits[c & 15];
  }
  return out;
}

std::vector<dbase::MdxTagBuild> walkedTags(const MdxFile& file) {
  std::vector<dbase::MdxTagBuild> tags;
  for (size_t i = 0; i < file.tags().size(); ++i) {
    const dbase::MdxTagInfo& info = file.tags()[i];
    dbase::MdxTagBuild tag{info.name, info.expression, info.forExpression, info.keyType, info.keyLength,
                           info.unique, info.descending, {}};
    file.walk(i, [&](std::string_view key, uint32_t recno) { tag.entries.emplace_back(std::string(key), recno); });
    tags.push_back(std::move(tag));
  }
  return tags;
}

// Levels from the root down to the leaves, read from the file as it lies.
int depth(const MdxFile& file, const dbase::MdxTagInfo& tag) {
  int fd = ::open(file.path().c_str(), O_RDONLY | O_CLOEXEC);
  std::vector<unsigned char> block(file.blockBytes());
  uint32_t page = tag.rootPage;
  int levels = 0;
  for (;;) {
    ++levels;
    if (::pread(fd, block.data(), block.size(), off_t(page) * 512) != ssize_t(block.size())) break;
    uint32_t n = dbase::mdx::get32(block.data());
    if (dbase::mdx::get32(block.data() + 8 + n * tag.itemLength) == 0) break;
    page = dbase::mdx::get32(block.data() + 8);
  }
  ::close(fd);
  return levels;
}

void bigTable(const std::string& dir, uint32_t rows) {
  auto table = dbase::DbfFile::create(dir + "/GRANDE.DBF", {{"NOMBRE", dbase::FieldType::Character, 20, 0},
                                                            {"CODIGO", dbase::FieldType::Character, 6, 0}},
                                      0x1B, true);
  const auto& nombre = table->fields()[0];
  const auto& codigo = table->fields()[1];
  std::string records;
  uint32_t seed = 12345;
  std::vector<std::pair<std::string, uint32_t>> byName, byCode;
  for (uint32_t r = 1; r <= rows; ++r) {
    seed = seed * 1103515245u + 12345u;
    std::string row = table->blankRecord();
    std::string name = "CALLE " + std::to_string((seed >> 8) % 5000);  // some names repeat
    std::string code = std::to_string(100000 + (seed >> 4) % 900000);
    name.resize(nombre.length, ' ');
    row.replace(nombre.offset, nombre.length, name);
    row.replace(codigo.offset, codigo.length, code);
    records += row;
    byName.emplace_back(name, r);
    byCode.emplace_back(code, r);
  }
  table->appendMany(records);
  std::sort(byName.begin(), byName.end());
  std::sort(byCode.begin(), byCode.end(), [](const auto& a, const auto& b) {
    return a.first != b.first ? a.first > b.first : a.second < b.second;
  });
  dbase::writeMdx(dir + "/GRANDE.MDX", "GRANDE", 0x1B,
                  {{"NOMBRE", "NOMBRE", "", 'C', 20, false, false, byName},
                   {"CODIGO", "CODIGO", "", 'C', 6, false, true, byCode}});
  auto file = MdxFile::open(dir + "/GRANDE.MDX");
  for (const auto& tag : file->tags()) std::printf("%s\t%d\n", tag.name.c_str(), depth(*file, tag));
}

// A new key of the tag's type, near the ones it holds.
std::string newKey(const dbase::MdxTagInfo& tag, const std::vector<std::string>& held, std::mt19937& rng) {
  std::string key;
  if (tag.keyType == 'N') {
    dbase::appendBcd(double(int(rng() % 20001) - 10000) / 4, key);
  } else if (tag.keyType == 'D') {
    dbase::appendDayKey(2440000 + rng() % 20000, key);
  } else {
    key = held.empty() ? std::string(tag.keyLength, 'A') : held[rng() % held.size()];
    const size_t at = rng() % key.size();
    key[at] = char('0' + rng() % 43);  // digits, some signs, capitals
  }
  return key;
}

void changeInPlace(const std::string& path, uint32_t ops, uint32_t seed, uint32_t insertShare) {
  std::mt19937 rng(seed);
  const auto& collation = dbase::Collation::forLanguageDriver(MdxFile::open(path)->languageDriver());
  auto update = dbase::MdxUpdate::open(path);
  const auto tags = update->tags();
  struct Item {
    std::string order;
    uint32_t recno;
    std::string key;
    bool operator<(const Item& o) const { return order != o.order ? order < o.order : recno < o.recno; }
  };
  std::vector<std::vector<Item>> models(tags.size());
  for (size_t t = 0; t < tags.size(); ++t) {
    const dbase::MdxTagInfo info = tags[t];
    auto order = [&collation, info](std::string_view stored, std::string& out) {
      dbase::appendMdxOrderKey(collation, info.keyType, info.descending, {}, stored, out);
    };
    update->setOrder(t, order);
    uint32_t nextRecno = 1;
    std::vector<std::string> held;
    MdxFile::open(path)->walk(t, [&](std::string_view key, uint32_t recno) {
      std::string o;
      order(key, o);
      models[t].push_back({o, recno, std::string(key)});
      held.emplace_back(key);
      nextRecno = std::max(nextRecno, recno + 1);
    });
    auto& model = models[t];
    for (uint32_t i = 0; i < ops; ++i) {
      if (rng() % 100 < insertShare || model.empty()) {
        Item item{{}, nextRecno++, newKey(info, held, rng)};
        order(item.key, item.order);
        update->insert(t, item.key, item.recno);
        model.insert(std::upper_bound(model.begin(), model.end(), item), item);
        held.push_back(item.key);
      } else {
        const size_t at = rng() % model.size();
        if (!update->remove(t, model[at].key, model[at].recno))
          throw std::runtime_error("tag " + info.name + ": an entry held was not found");
        model.erase(model.begin() + std::ptrdiff_t(at));
      }
    }
    std::string fault = update->verify(t);
    if (!fault.empty()) throw std::runtime_error(fault);
  }
  update->flush();
  for (size_t t = 0; t < tags.size(); ++t)
    for (const Item& item : models[t]) std::printf("%s %s %u\n", tags[t].name.c_str(), hex(item.key).c_str(), item.recno);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    std::vector<std::string> args(argv + 1, argv + argc);
    if (args.size() == 2 && args[0] == "tags") {
      auto file = MdxFile::open(args[1]);
      for (const auto& t : file->tags())
        std::printf("%s\t%c\t%u\t%d\t%d\t%s\t%s\n", t.name.c_str(), t.keyType, unsigned(t.keyLength), int(t.unique),
                    int(t.descending), t.expression.c_str(), t.forExpression.c_str());
    } else if (args.size() == 3 && args[0] == "walk") {
      auto file = MdxFile::open(args[1]);
      int tag = file->tagIndex(args[2]);
      if (tag < 0) throw std::runtime_error("no tag " + args[2]);
      file->walk(size_t(tag), [](std::string_view key, uint32_t recno) {
        std::printf("%s %u\n", hex(key).c_str(), unsigned(recno));
      });
    } else if (args.size() == 3 && args[0] == "copy") {
      auto file = MdxFile::open(args[1]);
      dbase::writeMdx(args[2], file->tableName(), file->languageDriver(), walkedTags(*file));
    } else if (args.size() == 3 && args[0] == "table") {
      bigTable(args[1], uint32_t(std::stoul(args[2])));
    } else if ((args.size() == 4 || args.size() == 5) && args[0] == "cambiar") {
      changeInPlace(args[1], uint32_t(std::stoul(args[2])), uint32_t(std::stoul(args[3])),
                    args.size() == 5 ? uint32_t(std::stoul(args[4])) : 60);
    } else {
      std::fprintf(stderr, "usage: volcar_mdx tags|walk|copy|table|cambiar ...\n");
      return 2;
    }
  } catch (const std::exception& e) {
    std::fprintf(stderr, "volcar_mdx: %s\n", e.what());
    return 2;
  }
  return 0;
}
