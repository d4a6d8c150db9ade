// Sort keys of character values in the order of the table's language driver.
// Inputs are code-page bytes, so every UTF-8 literal goes through CodePage.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "dbase/core/codepage.h"
#include "dbase/core/collation.h"

using dbase::CodePage;
using dbase::Collation;

namespace {

constexpr uint8_t kEsp850 = 0x14;
constexpr uint8_t kEsp437 = 0x18;
constexpr uint8_t kAnsiSpanish = 0x59;

std::string bytesOf(uint8_t ldid, const std::string& utf8) {
  return CodePage::forLanguageDriver(ldid).encode(utf8);
}

std::string keyOf(uint8_t ldid, const std::string& utf8) {
  std::string key;
  Collation::forLanguageDriver(ldid).appendKey(bytesOf(ldid, utf8), key);
  return key;
}

std::string prefixKeyOf(uint8_t ldid, const std::string& utf8) {
  std::string key;
  Collation::forLanguageDriver(ldid).appendPrefixKey(bytesOf(ldid, utf8), key);
  return key;
}

// Checks that the texts are in strictly ascending order, both by key and by
// compare().
void expectAscending(uint8_t ldid, const std::vector<std::string>& texts) {
  const Collation& c = Collation::forLanguageDriver(ldid);
  for (size_t i = 0; i + 1 < texts.size(); ++i) {
    EXPECT_LT(keyOf(ldid, texts[i]), keyOf(ldid, texts[i + 1]))
        << "«" << texts[i] << "» < «" << texts[i + 1] << "» with driver " << int(ldid);
    EXPECT_EQ(c.compare(bytesOf(ldid, texts[i]), bytesOf(ldid, texts[i + 1])), -1)
        << "«" << texts[i] << "» vs «" << texts[i + 1] << "»";
    EXPECT_EQ(c.compare(bytesOf(ldid, texts[i + 1]), bytesOf(ldid, texts[i])), 1);
  }
}

const std::vector<uint8_t> kSpanishDrivers = {kEsp850, kEsp437, kAnsiSpanish};

TEST(Collation, DriversHaveTheirOwnNamedOrder) {
  EXPECT_EQ(Collation::forLanguageDriver(kEsp850).name(), "DB_ESP850/1");
  EXPECT_EQ(Collation::forLanguageDriver(kEsp437).name(), "DB_ESP437/1");
  EXPECT_EQ(Collation::forLanguageDriver(kAnsiSpanish).name(), "PXW_SPAN/1");
  for (uint8_t ldid : {0x00, 0x01, 0x02, 0x03, 0x1B, 0x37, 0x57, 0x58})
    EXPECT_EQ(Collation::forLanguageDriver(ldid).name(), "BYTES/1") << int(ldid);
  EXPECT_EQ(&Collation::forLanguageDriver(0x03), &Collation::forLanguageDriver(0x57));
}

TEST(Collation, NEnyeIsALetterBetweenNAndO) {
  for (uint8_t ldid : kSpanishDrivers) {
    expectAscending(ldid, {"NUNO", "NUÑEZ", "NUOZ"});
    expectAscending(ldid, {"NZ", "ÑA", "ÑZ", "OA"});
    expectAscending(ldid, {"NAVA", "NAVAS", "ÑAVA"});
  }
}

TEST(Collation, ChSortsAfterCAndBeforeD) {
  for (uint8_t ldid : kSpanishDrivers) {
    expectAscending(ldid, {"CZ", "CHA", "DA"});
    expectAscending(ldid, {"CUENCA", "CHICLANA", "DAIMIEL"});
    expectAscending(ldid, {"ACZ", "ACHA", "ADA"});
  }
}

TEST(Collation, LlSortsAfterLAndBeforeM) {
  for (uint8_t ldid : kSpanishDrivers) {
    expectAscending(ldid, {"LUGO", "LLANES", "MADRID"});
    expectAscending(ldid, {"CALZADA", "CALLE", "CAMPO"});
  }
}

TEST(Collation, TrailingBlanksAreIgnored) {
  for (uint8_t ldid : {kEsp850, kEsp437, kAnsiSpanish, uint8_t(0x03), uint8_t(0x00)}) {
    const Collation& c = Collation::forLanguageDriver(ldid);
    EXPECT_EQ(keyOf(ldid, "MADRID"), keyOf(ldid, "MADRID      ")) << int(ldid);
    EXPECT_EQ(c.compare("MADRID", "MADRID   "), 0);
    EXPECT_EQ(keyOf(ldid, ""), keyOf(ldid, "     "));
  }
}

TEST(Collation, LeadingAndInnerBlanksCount) {
  for (uint8_t ldid : {kEsp850, kEsp437, kAnsiSpanish}) {
    expectAscending(ldid, {"A  B", "A B", "AB"});
    EXPECT_NE(keyOf(ldid, " MADRID"), keyOf(ldid, "MADRID"));
  }
}

TEST(Collation, ShorterSortsFirstWhenLettersAreEqual) {
  for (uint8_t ldid : kSpanishDrivers) {
    expectAscending(ldid, {"", "A", "AVILA", "AVILAS"});
    // Length is decided before accents and case.
    expectAscending(ldid, {"ávila", "AVILAS"});
    expectAscending(ldid, {"avila", "AVILAS"});
  }
}

TEST(Collation, AccentIsWeakerThanLetter) {
  for (uint8_t ldid : {kEsp850, kAnsiSpanish}) {
    expectAscending(ldid, {"AVILA", "ÁVILA", "AVILAS"});
    expectAscending(ldid, {"LEON", "LEÓN", "LEONA"});
    expectAscending(ldid, {"CA", "ÇA", "CB"});
  }
  // 437 cannot write Á; its lower-case accents follow the same rule.
  expectAscending(kEsp437, {"avila", "ávila", "avilas"});
}

TEST(Collation, FirstAccentDifferenceDecides) {
  for (uint8_t ldid : {kEsp850, kAnsiSpanish}) expectAscending(ldid, {"ABACÓ", "ÁBACO"});
}

TEST(Collation, CedillaAndDiaeresisAreAccentsIn850) {
  expectAscending(kEsp850, {"CA", "ÇA", "CB"});
  expectAscending(kEsp850, {"PINGUINO", "PINGÜINO", "PINGUINOS"});
}

TEST(Collation, CedillaIsALetterOfItsOwnIn437) {
  expectAscending(kEsp437, {"CZ", "ÇA", "ÇZ", "CHA"});
}

TEST(Collation, CaseIsWeakerThanAccentIn850) {
  expectAscending(kEsp850, {"avila", "Avila", "AVILA", "ávila", "ÁVILA"});
}

TEST(Collation, DigraphCaseIsDecidedBeforeLetterCaseIn850) {
  expectAscending(kEsp850, {"cha", "CHÁ"});
  expectAscending(kEsp850, {"chá", "CHA"});
  expectAscending(kEsp850, {"ch", "cH", "Ch", "CH"});
}

TEST(Collation, LowerCaseAccentsSortBeforeUpperCaseInAnsi) {
  expectAscending(kAnsiSpanish, {"avila", "ávila", "Avila"});
}

TEST(Collation, ExpansionsSortAsTwoLetters) {
  expectAscending(kEsp850, {"SS", "ß", "ST"});
  expectAscending(kEsp850, {"AE", "Æ", "AF"});
  expectAscending(kEsp850, {"æ", "Æ"});
  expectAscending(kAnsiSpanish, {"SS", "ß", "ST"});
}

TEST(Collation, DigitsSortBeforeLetters) {
  for (uint8_t ldid : kSpanishDrivers) expectAscending(ldid, {"0", "1", "9", "A", "Z"});
}

TEST(Collation, PunctuationSortsAfterLettersInCp850) {
  expectAscending(kEsp850, {"ALICANTES", "ALICANTE/ALACANT"});
  expectAscending(kEsp850, {"PALMAS DE GRAN CANARIA, LAS", "PALMAS (LAS)"});
  expectAscending(kEsp850, {"CORUÑAS", "CORUÑA, A"});
  expectAscending(kEsp850, {"AZ", "A,B"});
}

TEST(Collation, BlankHyphenApostropheShareThePrimary) {
  expectAscending(kEsp850, {"L HOSPITALET", "L-HOSPITALET", "L'HOSPITALET", "LHOSPITALET"});
  // Sharing the primary, the mark only counts once the letters are equal.
  expectAscending(kEsp850, {"L'HOSPITALET", "L HOSPITALEU"});
  expectAscending(kEsp850, {"CASTILLO-ALBARÁÑEZ", "CASTILLO DE BAYUELA"});
}

TEST(Collation, AnsiDriverSortsPunctuationBeforeLetters) {
  expectAscending(kAnsiSpanish, {"ADRADA, LA", "ADRADAS"});
  expectAscending(kAnsiSpanish, {"CASTILLO DE BAYUELA", "CASTILLO-ALBARÁÑEZ"});
  expectAscending(kAnsiSpanish, {"ALICANTE/ALACANT", "ALICANTES"});
}

TEST(Collation, CommaSortsBeforeDigitsIn437) {
  expectAscending(kEsp437, {"A A", "A,", "A0", "AA"});
}

TEST(Collation, OtherDriversSortByBytes) {
  for (uint8_t ldid : {uint8_t(0x03), uint8_t(0x57), uint8_t(0x00), uint8_t(0x02), uint8_t(0x01)}) {
    expectAscending(ldid, {"B", "a"});
    expectAscending(ldid, {"NUZ", "NUÑEZ"});
    expectAscending(ldid, {"avilas", "ávila"});
    expectAscending(ldid, {"A", "AB", "B"});
  }
  // Nul and 0x01 are escaped so the field end still sorts below every byte.
  const Collation& bytes = Collation::forLanguageDriver(0x03);
  const std::vector<std::string> raw = {std::string("A"), std::string("A\0", 2), std::string("A\0\0", 3),
                                        std::string("A\0\x01", 3), std::string("A\x01", 2), std::string("A\x02"),
                                        std::string("A\xFF")};
  for (size_t i = 0; i + 1 < raw.size(); ++i) {
    std::string ka, kb;
    bytes.appendKey(raw[i], ka);
    bytes.appendKey(raw[i + 1], kb);
    EXPECT_LT(ka, kb) << i;
  }
}

TEST(Collation, PartialKeySortsAtOrBeforeEveryValueStartingWithIt) {
  for (uint8_t ldid : {kEsp850, kEsp437, kAnsiSpanish, uint8_t(0x03)}) {
    const std::string mad = prefixKeyOf(ldid, "MAD");
    EXPECT_LE(mad, keyOf(ldid, "MAD")) << int(ldid);
    EXPECT_LT(mad, keyOf(ldid, "MADRID"));
    EXPECT_LT(mad, keyOf(ldid, "MADRIDEJOS"));
    EXPECT_GT(mad, keyOf(ldid, "MACOTERA"));
    EXPECT_GT(mad, keyOf(ldid, "MA"));
    EXPECT_GT(prefixKeyOf(ldid, "MADR"), keyOf(ldid, "MADONA"));
    // A prefix ending in the first letter of a digraph still comes first.
    EXPECT_LT(prefixKeyOf(ldid, "CAL"), keyOf(ldid, "CALLE"));
    EXPECT_LT(prefixKeyOf(ldid, "C"), keyOf(ldid, "CHA"));
  }
  EXPECT_EQ(prefixKeyOf(kEsp850, "MAD") + '\0', keyOf(kEsp850, "MAD"));
}

TEST(Collation, CompoundKeysCompareFieldByField) {
  for (uint8_t ldid : {kEsp850, kEsp437, kAnsiSpanish, uint8_t(0x03)}) {
    const auto key2 = [&](const std::string& a, const std::string& b) { return keyOf(ldid, a) + keyOf(ldid, b); };
    EXPECT_LT(key2("MADRID", "ZARAGOZA"), key2("MADRIDEJOS", "ALBA")) << int(ldid);
    EXPECT_LT(key2("AVILA", "ZZ"), key2("AVILAS", "A"));
    EXPECT_LT(key2("AB", "Z"), key2("ABC", "A"));
    EXPECT_LT(key2("", "Z"), key2("A", ""));
    EXPECT_LT(key2("NUNO", "B"), key2("NUÑEZ", "A"));
    EXPECT_LT(key2("LEON", "B"), key2("LEON", "C"));
    EXPECT_EQ(key2("LEON ", "B"), key2("LEON", "B  "));
    // A partial search on the second field stays inside the first field's rows.
    const std::string partial = keyOf(ldid, "LEON") + prefixKeyOf(ldid, "MA");
    EXPECT_GT(partial, key2("LEON", "LUGO"));
    EXPECT_LT(partial, key2("LEON", "MADRID"));
    EXPECT_LT(partial, key2("LEONA", "A"));
  }
  // Accent differences in the first field still decide before the second.
  EXPECT_LT(keyOf(kEsp850, "AVILA") + keyOf(kEsp850, "Z"), keyOf(kEsp850, "ÁVILA") + keyOf(kEsp850, "A"));
}

// Every key ends in the field terminator and holds no other 0x00, which is
// what keeps compound keys field by field for any value.
TEST(Collation, KeysOfAllShortStringsAreSelfDelimiting) {
  for (uint8_t ldid : {kEsp850, kEsp437, kAnsiSpanish, uint8_t(0x03)}) {
    const Collation& c = Collation::forLanguageDriver(ldid);
    for (int a = 0; a < 256; ++a) {
      for (int b = -1; b < 256; ++b) {
        std::string s(1, char(a));
        if (b >= 0) s.push_back(char(b));
        std::string key;
        c.appendKey(s, key);
        ASSERT_FALSE(key.empty());
        ASSERT_EQ(key.back(), '\0');
        ASSERT_EQ(key.find('\0'), key.size() - 1) << int(ldid) << " " << a << " " << b;
      }
    }
  }
}

// No two different values compare equal, apart from trailing blanks.
TEST(Collation, OnlyTrailingBlanksMakeDifferentStringsEqual) {
  for (uint8_t ldid : {kEsp850, kEsp437, kAnsiSpanish, uint8_t(0x03)}) {
    const Collation& c = Collation::forLanguageDriver(ldid);
    std::set<std::string> keys;
    size_t strings = 0;
    for (int a = 0; a < 256; ++a) {
      for (int b = -1; b < 256; ++b) {
        if (b == ' ') continue;  // the same as the one-byte string
        std::string s(1, char(a));
        if (b >= 0) s.push_back(char(b));
        if (s == " ") continue;  // the same as the empty string
        std::string key;
        c.appendKey(s, key);
        keys.insert(key);
        ++strings;
      }
    }
    EXPECT_EQ(keys.size(), strings) << int(ldid);
  }
}

TEST(Collation, CompareAgreesWithKeys) {
  const std::vector<std::string> names = {"ÁVILA",  "AVILA",  "ávila",     "CHINCHÓN", "CIEZA",       "LLEIDA",
                                          "LUGO",   "NUÑEZ",  "NUNO",      "L'ESCALA", "L ESCALA",    "ÑAVA",
                                          "CORUÑA, A", "CORUÑAS", "ZAMORA", "ZAMORA ", "PALMAS (LAS)", ""};
  for (uint8_t ldid : {kEsp850, kAnsiSpanish, uint8_t(0x03)}) {
    const Collation& c = Collation::forLanguageDriver(ldid);
    for (const std::string& a : names) {
      for (const std::string& b : names) {
        const std::string ka = keyOf(ldid, a), kb = keyOf(ldid, b);
        const int expected = ka < kb ? -1 : (ka == kb ? 0 : 1);
        EXPECT_EQ(c.compare(bytesOf(ldid, a), bytesOf(ldid, b)), expected) << a << " / " << b;
      }
    }
  }
}

TEST(Collation, SortsSpanishPlaceNamesInDictionaryOrder) {
  std::vector<std::string> names = {"ZAMORA", "ÑORA (LA)", "NOVELDA", "LLEIDA", "LUGO",  "CHINCHÓN",
                                    "CUENCA", "CIEZA",      "ÁVILA",   "AVILÉS", "ALBA", "MADRID"};
  const std::vector<std::string> expected = {"ALBA",   "ÁVILA", "AVILÉS", "CIEZA",     "CUENCA", "CHINCHÓN",
                                             "LUGO",   "LLEIDA", "MADRID", "NOVELDA", "ÑORA (LA)", "ZAMORA"};
  std::stable_sort(names.begin(), names.end(),
                   [](const std::string& a, const std::string& b) { return keyOf(kEsp850, a) < keyOf(kEsp850, b); });
  EXPECT_EQ(names, expected);
}

}  // namespace
