// Conversion between the code page of a table and UTF-8.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "dbase/core/codepage.h"
#include "dbase/core/error.h"

using dbase::CodePage;
using dbase::Error;
using dbase::ErrorKind;

namespace {

struct DriverCase {
  uint8_t ldid;
  int codePage;
};

class CodePageForLanguageDriver : public ::testing::TestWithParam<DriverCase> {};

TEST_P(CodePageForLanguageDriver, PicksTheDriversCodePage) {
  const DriverCase c = GetParam();
  EXPECT_EQ(CodePage::forLanguageDriver(c.ldid).number(), c.codePage);
}

INSTANTIATE_TEST_SUITE_P(KnownDrivers, CodePageForLanguageDriver,
                         ::testing::Values(DriverCase{0x01, 437}, DriverCase{0x1B, 437}, DriverCase{0x18, 437},
                                           DriverCase{0x02, 850}, DriverCase{0x37, 850}, DriverCase{0x14, 850},
                                           DriverCase{0x03, 1252}, DriverCase{0x57, 1252},
                                           DriverCase{0x58, 1252}, DriverCase{0x59, 1252},
                                           DriverCase{0x00, 1252}, DriverCase{0x7E, 1252},
                                           DriverCase{0xFF, 1252}),
                         [](const auto& info) {
                           char name[32];
                           std::snprintf(name, sizeof name, "Ldid%02X", unsigned(info.param.ldid));
                           return std::string(name);
                         });

TEST(CodePage, SameDriverGivesTheSameSharedTable) {
  EXPECT_EQ(&CodePage::forLanguageDriver(0x14), &CodePage::forNumber(850));
  EXPECT_EQ(&CodePage::forLanguageDriver(0x02), &CodePage::forLanguageDriver(0x37));
  EXPECT_STREQ(CodePage::forNumber(437).iconvName(), "CP437");
  EXPECT_STREQ(CodePage::forNumber(850).iconvName(), "CP850");
  EXPECT_STREQ(CodePage::forNumber(1252).iconvName(), "CP1252");
}

TEST(CodePage, UnknownCodePageNumberIsRefused) {
  EXPECT_THROW(CodePage::forNumber(1251), Error);
}

TEST(CodePage, SpanishLettersHaveTheirBytesIn850) {
  const CodePage& cp = CodePage::forNumber(850);
  EXPECT_EQ(cp.encode("Ñ"), "\xA5");
  EXPECT_EQ(cp.encode("ñ"), "\xA4");
  EXPECT_EQ(cp.encode("á"), "\xA0");
  EXPECT_EQ(cp.encode("Á"), "\xB5");
  EXPECT_EQ(cp.encode("Ç"), "\x80");
  EXPECT_EQ(cp.encode("Ü"), "\x9A");
  EXPECT_EQ(cp.encode("º"), "\xA7");
  EXPECT_EQ(cp.encode("ª"), "\xA6");
}

TEST(CodePage, SpanishLettersHaveTheirBytesIn1252) {
  const CodePage& cp = CodePage::forNumber(1252);
  EXPECT_EQ(cp.encode("Ñ"), "\xD1");
  EXPECT_EQ(cp.encode("á"), "\xE1");
  EXPECT_EQ(cp.encode("Ç"), "\xC7");
  EXPECT_EQ(cp.encode("Ü"), "\xDC");
  EXPECT_EQ(cp.encode("º"), "\xBA");
  EXPECT_EQ(cp.encode("ª"), "\xAA");
}

TEST(CodePage, SpanishLettersHaveTheirBytesIn437) {
  const CodePage& cp = CodePage::forNumber(437);
  EXPECT_EQ(cp.encode("Ñ"), "\xA5");
  EXPECT_EQ(cp.encode("á"), "\xA0");
  EXPECT_EQ(cp.encode("Ç"), "\x80");
  EXPECT_EQ(cp.encode("Ü"), "\x9A");
  EXPECT_EQ(cp.encode("º"), "\xA7");
  EXPECT_EQ(cp.encode("ª"), "\xA6");
}

TEST(CodePage, SpanishTextRoundTripsInEveryCodePage) {
  const std::vector<std::string> texts = {"NUÑEZ", "Ávila", "Çaçador", "PINGÜINO", "1º", "2ª",
                                          "A Coruña", "L'Hospitalet de Llobregat"};
  for (int number : {437, 850, 1252}) {
    const CodePage& cp = CodePage::forNumber(number);
    for (const std::string& text : texts) {
      std::string bytes;
      if (!cp.tryEncode(text, bytes)) {
        // 437 has no upper-case acute vowels.
        EXPECT_EQ(number, 437) << text;
        continue;
      }
      EXPECT_EQ(cp.decode(bytes), text) << text << " in " << number;
    }
  }
}

TEST(CodePage, UpperCaseAcuteVowelsAreMissingIn437) {
  std::string bytes;
  EXPECT_FALSE(CodePage::forNumber(437).tryEncode("Á", bytes));
  EXPECT_TRUE(CodePage::forNumber(437).tryEncode("á", bytes));
}

TEST(CodePage, EveryByteRoundTripsInEveryCodePage) {
  for (int number : {437, 850, 1252}) {
    const CodePage& cp = CodePage::forNumber(number);
    std::string all;
    for (int b = 0; b < 256; ++b) all.push_back(static_cast<char>(b));
    const std::string text = cp.decode(all);
    EXPECT_EQ(cp.encode(text), all) << number;
  }
}

TEST(CodePage, BytesUndefinedIn1252DecodeToC1Controls) {
  const CodePage& cp = CodePage::forNumber(1252);
  EXPECT_EQ(cp.decode("\x81"), "\xC2\x81");
  EXPECT_EQ(cp.decode("\x8D\x8F\x90\x9D"), "\xC2\x8D\xC2\x8F\xC2\x90\xC2\x9D");
  EXPECT_EQ(cp.encode("\xC2\x90"), "\x90");
}

TEST(CodePage, DecodeAppendsToTheOutput) {
  std::string out = "Calle ";
  CodePage::forNumber(850).decode("NU\xA5" "EZ", out);
  EXPECT_EQ(out, "Calle NUÑEZ");
}

TEST(CodePage, EuroEncodesIn1252) {
  EXPECT_EQ(CodePage::forNumber(1252).encode("10 €"), "10 \x80");
  EXPECT_EQ(CodePage::forNumber(1252).decode("\x80"), "€");
}

TEST(CodePage, EuroFailsClearlyIn850) {
  try {
    CodePage::forNumber(850).encode("10 €");
    FAIL() << "encode should have thrown";
  } catch (const Error& e) {
    EXPECT_EQ(e.kind(), ErrorKind::InvalidArgument);
    EXPECT_EQ(e.subject(), "10 €");
    EXPECT_NE(e.fault().find("«€»"), std::string::npos) << e.fault();
    EXPECT_NE(e.fault().find("850"), std::string::npos) << e.fault();
  }
  std::string bytes;
  EXPECT_FALSE(CodePage::forNumber(850).tryEncode("10 €", bytes));
  EXPECT_EQ(bytes, "10 ");  // what could be converted
}

TEST(CodePage, NoQuestionMarkIsSubstituted) {
  std::string bytes;
  EXPECT_FALSE(CodePage::forNumber(1252).tryEncode("日本", bytes));
  EXPECT_EQ(bytes.find('?'), std::string::npos);
  EXPECT_THROW(CodePage::forNumber(437).encode("Œ"), Error);
}

TEST(CodePage, InvalidUtf8FailsClearly) {
  const std::vector<std::string> bad = {
      "abc\xFF", "\xC3", "\xC3(", "\xC0\xAF" /* overlong */, "\xED\xA0\x80" /* surrogate */,
      "\xF4\x90\x80\x80" /* above U+10FFFF */, "\x80"};
  for (const std::string& text : bad) {
    for (int number : {437, 850, 1252}) {
      try {
        CodePage::forNumber(number).encode(text);
        ADD_FAILURE() << "encode accepted invalid UTF-8 in " << number;
      } catch (const Error& e) {
        EXPECT_EQ(e.kind(), ErrorKind::InvalidArgument);
        EXPECT_NE(e.fault().find("UTF-8"), std::string::npos) << e.fault();
      }
    }
  }
}

TEST(CodePage, InvalidUtf8NamesTheBytePosition) {
  try {
    CodePage::forNumber(850).encode("ÑA\xFF");
    FAIL() << "encode should have thrown";
  } catch (const Error& e) {
    EXPECT_NE(e.fault().find("0xFF"), std::string::npos) << e.fault();
    EXPECT_NE(e.fault().find("posición 4"), std::string::npos) << e.fault();
  }
}

TEST(CodePage, EmptyAndAsciiTextPassUnchanged) {
  for (int number : {437, 850, 1252}) {
    const CodePage& cp = CodePage::forNumber(number);
    EXPECT_EQ(cp.encode(""), "");
    EXPECT_EQ(cp.decode(""), "");
    const std::string ascii = "MADRID 28001, C/ Alcala (1-3)";
    EXPECT_EQ(cp.encode(ascii), ascii);
    EXPECT_EQ(cp.decode(ascii), ascii);
  }
}

}  // namespace
