#include "services/Rnumcad.h"

#include <gtest/gtest.h>

#include "qstring_print.h"

#include <climits>

TEST(Rnumcad, CadIntReadsDecimalText) {
  EXPECT_EQ(Cad_Int("28001"), 28001);
  EXPECT_EQ(Cad_Int("0"), 0);
}

TEST(Rnumcad, CadIntAcceptsLeadingZeros) {
  EXPECT_EQ(Cad_Int("08"), 8);
  EXPECT_EQ(Cad_Int("00000"), 0);
}

TEST(Rnumcad, CadIntAcceptsSurroundingBlanks) {
  EXPECT_EQ(Cad_Int("  12 "), 12);
  EXPECT_EQ(Cad_Int("\t7\n"), 7);
}

TEST(Rnumcad, CadIntReadsSignedNumbers) {
  EXPECT_EQ(Cad_Int("-3"), -3);
  EXPECT_EQ(Cad_Int("+5"), 5);
  EXPECT_EQ(Cad_Int(" -0"), 0);
}

TEST(Rnumcad, CadIntOfNonNumberIsZero) {
  EXPECT_EQ(Cad_Int(""), 0);
  EXPECT_EQ(Cad_Int("   "), 0);
  EXPECT_EQ(Cad_Int("8A"), 0);
  EXPECT_EQ(Cad_Int("A8"), 0);
  EXPECT_EQ(Cad_Int("1.5"), 0);
  EXPECT_EQ(Cad_Int("1 2"), 0);
  EXPECT_EQ(Cad_Int("-"), 0);
  EXPECT_EQ(Cad_Int("0x10"), 0);
  EXPECT_EQ(Cad_Int(QString::fromUtf8("\xd9\xa3")), 0);  // Arabic-Indic three is not ours
}

TEST(Rnumcad, CadIntKeepsTheWholeIntRange) {
  EXPECT_EQ(Cad_Int("2147483647"), INT_MAX);
  EXPECT_EQ(Cad_Int("-2147483648"), INT_MIN);
}

TEST(Rnumcad, CadIntOfOverflowIsZero) {
  EXPECT_EQ(Cad_Int("2147483648"), 0);
  EXPECT_EQ(Cad_Int("-2147483649"), 0);
  EXPECT_EQ(Cad_Int("99999999999999999999999"), 0);
}

TEST(Rnumcad, IntCadWritesPlainDecimal) {
  EXPECT_EQ(Int_Cad(8), "8");
  EXPECT_EQ(Int_Cad(0), "0");
  EXPECT_EQ(Int_Cad(-3), "-3");
  EXPECT_EQ(Int_Cad(28001), "28001");
  EXPECT_EQ(Int_Cad(INT_MIN), "-2147483648");
}

TEST(Rnumcad, IntCadAndCadIntRoundTrip) {
  for (int n : {0, 1, -1, 42, 28001, INT_MAX, INT_MIN}) EXPECT_EQ(Cad_Int(Int_Cad(n)), n);
}

TEST(Rnumcad, StrLeftTakesLeadingCharacters) {
  EXPECT_EQ(StrLeft("28001", 2), "28");
  EXPECT_EQ(StrLeft("28001", 5), "28001");
}

TEST(Rnumcad, StrLeftOfShortTextIsTheWholeText) {
  EXPECT_EQ(StrLeft("28", 5), "28");
  EXPECT_EQ(StrLeft("", 3), "");
}

TEST(Rnumcad, StrLeftWithNonPositiveCountIsEmpty) {
  EXPECT_EQ(StrLeft("28001", 0), "");
  EXPECT_EQ(StrLeft("28001", -2), "");
}

TEST(Rnumcad, StrRightTakesTrailingCharacters) {
  EXPECT_EQ(StrRight("28001", 3), "001");
  EXPECT_EQ(StrRight("28", 5), "28");
  EXPECT_EQ(StrRight("28001", 0), "");
  EXPECT_EQ(StrRight("28001", -1), "");
}

TEST(Rnumcad, StrRightPadsCodesWithZeros) {
  EXPECT_EQ(StrRight("00" + Int_Cad(8), 2), "08");
  EXPECT_EQ(StrRight("00" + Int_Cad(28), 2), "28");
  EXPECT_EQ(StrRight("00000" + Int_Cad(8001), 5), "08001");
  EXPECT_EQ(StrRight("00000" + QString("28001"), 5), "28001");
}

TEST(Rnumcad, StrLeftAndStrRightCountAccentedLettersAsOne) {
  const QString pena = QString::fromUtf8("PEÑA");
  EXPECT_EQ(StrLeft(pena, 3), QString::fromUtf8("PEÑ"));
  EXPECT_EQ(StrRight(pena, 2), QString::fromUtf8("ÑA"));
}

TEST(Rnumcad, UpperCaseIncludesAccentedLetters) {
  EXPECT_EQ(UpperCase(QString::fromUtf8("málaga, coruña, güéjar")),
            QString::fromUtf8("MÁLAGA, CORUÑA, GÜÉJAR"));
  EXPECT_EQ(UpperCase(QString::fromUtf8("àèìòù ç 28001")), QString::fromUtf8("ÀÈÌÒÙ Ç 28001"));
}

TEST(Rnumcad, LowerCaseIncludesAccentedLetters) {
  EXPECT_EQ(LowerCase(QString::fromUtf8("MÁLAGA, CORUÑA, GÜÉJAR")),
            QString::fromUtf8("málaga, coruña, güéjar"));
}

TEST(Rnumcad, CaseChangesKeepTheLength) {
  const QString strasse = QString::fromUtf8("straße");
  EXPECT_EQ(UpperCase(strasse).size(), strasse.size());
  EXPECT_EQ(UpperCase(""), "");
  EXPECT_EQ(LowerCase(""), "");
}

TEST(Rnumcad, CuentaCaracterCountsOccurrences) {
  EXPECT_EQ(CuentaCaracter("ROSA (LA) (LA)", '('), 2);
  EXPECT_EQ(CuentaCaracter("C/ MAYOR, 1", ','), 1);
  EXPECT_EQ(CuentaCaracter("MAYOR", ','), 0);
  EXPECT_EQ(CuentaCaracter("", ','), 0);
  EXPECT_EQ(CuentaCaracter(QString::fromUtf8("ñÑñ"), QChar(0x00F1)), 2);
}

TEST(Rnumcad, CuentaCaracterIsCaseSensitive) { EXPECT_EQ(CuentaCaracter("aAa", 'a'), 2); }

TEST(Rnumcad, CadenaDesdeCaracterGivesThePartAfterTheFirstOccurrence) {
  EXPECT_EQ(CadenaDesdeCaracter("ROSA (LA)", '('), "LA)");
  EXPECT_EQ(CadenaDesdeCaracter("A,B,C", ','), "B,C");
  EXPECT_EQ(CadenaDesdeCaracter("ABC,", ','), "");
}

TEST(Rnumcad, CadenaDesdeCaracterWithoutTheCharacterIsEmpty) {
  EXPECT_EQ(CadenaDesdeCaracter("ROSA", '('), "");
  EXPECT_EQ(CadenaDesdeCaracter("", '('), "");
}

TEST(Rnumcad, CadenaHastaCaracterGivesThePartBeforeTheFirstOccurrence) {
  EXPECT_EQ(CadenaHastaCaracter("ROSA (LA)", '('), "ROSA ");
  EXPECT_EQ(CadenaHastaCaracter("A,B,C", ','), "A");
  EXPECT_EQ(CadenaHastaCaracter(",B", ','), "");
}

TEST(Rnumcad, CadenaHastaCaracterWithoutTheCharacterIsTheWholeText) {
  EXPECT_EQ(CadenaHastaCaracter("ROSA", '('), "ROSA");
  EXPECT_EQ(CadenaHastaCaracter("", '('), "");
}
