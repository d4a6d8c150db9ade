#include "dbase/core/collation.h"

#include <cstring>
#include <utility>

namespace dbase {

namespace {

struct Contraction {
  uint8_t first, second;
  uint8_t primary, secondary, tertiary;
};

// Weights of one language driver. A weight of 0 at the secondary or tertiary
// level means "no weight at this level"; primaries are never 0 or 1.
struct WeightTable {
  uint8_t primary[256];
  uint8_t secondary[256];
  uint8_t tertiary[256];
  uint8_t flags[256];      // kExpands | kContracts
  uint8_t expansion[256];  // byte whose weights make an expansion's second element
  Contraction contractions[8];
  uint8_t contractionCount;
};

constexpr uint8_t kExpands = 1;
constexpr uint8_t kContracts = 2;

// DB_ESP850, DB_ESP437 and PXW_SPAN. PXW_SPAN keeps its secondary weights as
// the tables write them (up to 17), as Firebird 4 does; Firebird 3 keeps only
// 4 bits of them and so misplaces Å, Ø, Æ and æ.
#include "dbase/core/collation_weights.inc"

constexpr uint8_t kLevelSeparator = 0x01;
constexpr uint8_t kFieldEnd = 0x00;

std::string_view trimTrailingBlanks(std::string_view bytes) {
  size_t n = bytes.size();
  // Eight blanks at a time: fixed-width fields are mostly padding.
  constexpr uint64_t kBlanks = 0x2020202020202020ull;
  while (n >= 8) {
    uint64_t w;
    std::memcpy(&w, bytes.data() + n - 8, 8);
    if (w != kBlanks) break;
    n -= 8;
  }
  while (n > 0 && bytes[n - 1] == ' ') --n;
  return bytes.substr(0, n);
}

// Calls emit(primary, secondary, tertiary) for every collation element of
// `s`: a contraction (CH, LL, ...) is one element, an expanding byte (æ, ß)
// two, any other byte one.
template <class Emit>
inline void forEachElement(const WeightTable& w, std::string_view s, Emit&& emit) {
  const auto* p = reinterpret_cast<const unsigned char*>(s.data());
  const size_t n = s.size();
  for (size_t i = 0; i < n; ++i) {
    const unsigned char b = p[i];
    const uint8_t flags = w.flags[b];
    if (flags & kContracts) {
      if (i + 1 < n) {
        const unsigned char next = p[i + 1];
        bool found = false;
        for (uint8_t k = 0; k < w.contractionCount; ++k) {
          const Contraction& c = w.contractions[k];
          if (c.first == b && c.second == next) {
            emit(c.primary, c.secondary, c.tertiary);
            ++i;
            found = true;
            break;
          }
        }
        if (found) continue;
      }
    } else if (flags & kExpands) {
      emit(w.primary[b], w.secondary[b], w.tertiary[b]);
      const unsigned char e = w.expansion[b];
      emit(w.primary[e], w.secondary[e], w.tertiary[e]);
      continue;
    }
    emit(w.primary[b], w.secondary[b], w.tertiary[b]);
  }
}

// All primaries, 0x01, the non-zero secondaries, 0x01, the non-zero
// tertiaries. The tables keep primaries above 1, so a string whose letters
// are a prefix of another's sorts first whatever its accents or case; and
// within one primary either every element has a lower-level weight or none
// has, so equal primaries give equally long lower levels and the terminator
// never meets a weight.
void appendWeightedKey(const WeightTable& w, std::string_view bytes, std::string& key) {
  const std::string_view s = trimTrailingBlanks(bytes);
  // One walk writes the three levels into separate regions sized for the
  // worst case (two elements per byte); the lower levels are then moved down
  // behind the primaries.
  const size_t room = 2 * s.size();
  const size_t start = key.size();
  key.resize(start + 3 * room + 2);
  char* const base = key.data() + start;
  char* p = base;
  char* sec = base + room + 1;
  char* ter = base + 2 * room + 2;
  char* const secBegin = sec;
  char* const terBegin = ter;
  forEachElement(w, s, [&](uint8_t pw, uint8_t sw, uint8_t tw) {
    *p++ = static_cast<char>(pw);
    *sec = static_cast<char>(sw);
    sec += sw != 0;
    *ter = static_cast<char>(tw);
    ter += tw != 0;
  });
  *p++ = static_cast<char>(kLevelSeparator);
  const size_t secCount = static_cast<size_t>(sec - secBegin);
  std::memmove(p, secBegin, secCount);
  p += secCount;
  *p++ = static_cast<char>(kLevelSeparator);
  const size_t terCount = static_cast<size_t>(ter - terBegin);
  std::memmove(p, terBegin, terCount);
  p += terCount;
  key.resize(start + static_cast<size_t>(p - base));
}

// Byte order: the bytes themselves, with 0x00 and 0x01 escaped so that the
// 0x00 terminator stays below every byte and compound keys still compare
// field by field. Trailing blanks are dropped as in the other orders, so a
// value ending in a control character (below the blank) sorts after the
// same value without it.
void appendByteKey(std::string_view bytes, std::string& key) {
  const std::string_view s = trimTrailingBlanks(bytes);
  size_t i = 0;
  const size_t n = s.size();
  while (i < n) {
    size_t j = i;
    while (j < n && static_cast<unsigned char>(s[j]) > 0x01) ++j;
    key.append(s.data() + i, j - i);
    if (j == n) break;
    key.push_back(static_cast<char>(0x01));
    key.push_back(static_cast<char>(s[j] == 0x00 ? 0x01 : 0x02));
    i = j + 1;
  }
}

}  // namespace

struct Collation::Weights : WeightTable {};

Collation::Collation(std::string name, const Weights* weights) : name_(std::move(name)), weights_(weights) {}

const Collation& Collation::forLanguageDriver(uint8_t ldid) {
  switch (ldid) {
    case 0x14: {  // DB850ES0
      static constexpr Weights kWeights{kDbEsp850};
      static const Collation c("DB_ESP850/1", &kWeights);
      return c;
    }
    case 0x18: {  // DB437ES1
      static constexpr Weights kWeights{kDbEsp437};
      static const Collation c("DB_ESP437/1", &kWeights);
      return c;
    }
    case 0x59: {  // DBWINES0; BDE's Paradox ANSI Spanish tables stand in for it
      static constexpr Weights kWeights{kPxwSpan};
      static const Collation c("PXW_SPAN/1", &kWeights);
      return c;
    }
    default: {
      static const Collation c("BYTES/1", nullptr);
      return c;
    }
  }
}

void Collation::appendPrefixKey(std::string_view bytes, std::string& key) const {
  if (weights_)
    appendWeightedKey(*weights_, bytes, key);
  else
    appendByteKey(bytes, key);
}

void Collation::appendKey(std::string_view bytes, std::string& key) const {
  appendPrefixKey(bytes, key);
  key.push_back(static_cast<char>(kFieldEnd));
}

int Collation::compare(std::string_view a, std::string_view b) const {
  std::string ka, kb;
  appendKey(a, ka);
  appendKey(b, kb);
  const int c = ka.compare(kb);
  return (c > 0) - (c < 0);
}

}  // namespace dbase
