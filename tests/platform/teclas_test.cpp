// Qt keys as the Windows virtual-key codes the handlers test.
#include <gtest/gtest.h>

#include <QKeyEvent>

#include "platform/TeclasWindows.h"

namespace {
int codigo(int tecla, Qt::KeyboardModifiers modificadores = Qt::NoModifier) {
  QKeyEvent e(QEvent::KeyPress, tecla, modificadores);
  return CodigoTeclaWindows(e);
}
}  // namespace

TEST(TeclasWindows, NamedKeysHaveTheirWindowsCodes) {
  EXPECT_EQ(codigo(Qt::Key_Return), 13);
  EXPECT_EQ(codigo(Qt::Key_Enter, Qt::KeypadModifier), 13);
  EXPECT_EQ(codigo(Qt::Key_Escape), 27);
  EXPECT_EQ(codigo(Qt::Key_Home), 36);
  EXPECT_EQ(codigo(Qt::Key_Left), 37);
  EXPECT_EQ(codigo(Qt::Key_Up), 38);
  EXPECT_EQ(codigo(Qt::Key_Right), 39);
  EXPECT_EQ(codigo(Qt::Key_Down), 40);
  EXPECT_EQ(codigo(Qt::Key_Comma), 188);
  EXPECT_EQ(codigo(Qt::Key_Backspace), 8);
  EXPECT_EQ(codigo(Qt::Key_Delete), 46);
}

TEST(TeclasWindows, LettersAndDigitsAreTheirUpperCaseCharacter) {
  EXPECT_EQ(codigo(Qt::Key_M), 'M');
  EXPECT_EQ(codigo(Qt::Key_M, Qt::ShiftModifier), 'M');
  EXPECT_EQ(codigo(Qt::Key_7), '7');
  EXPECT_EQ(codigo(Qt::Key_7, Qt::KeypadModifier), 103);
}

TEST(TeclasWindows, SpanishKeyboardKeys) {
  EXPECT_EQ(codigo(Qt::Key_Ntilde), 192);
  EXPECT_EQ(codigo(Qt::Key_Ccedilla), 191);
  EXPECT_EQ(codigo(Qt::Key_Aacute), 'A');  // typed with a dead key on the host
  EXPECT_EQ(codigo(Qt::Key_Udiaeresis), 'U');
}

TEST(TeclasWindows, LettersDigitsAndEnyeStartASearchButDeletingDoesNot) {
  EXPECT_TRUE(IsCharAlphaNumericW('M'));
  EXPECT_TRUE(IsCharAlphaNumericW('0'));
  EXPECT_TRUE(IsCharAlphaNumericW(192));  // Ñ's key reads as À
  EXPECT_FALSE(IsCharAlphaNumericW(8));
  EXPECT_FALSE(IsCharAlphaNumericW(46));
  EXPECT_FALSE(IsCharAlphaNumericW(188));
  EXPECT_FALSE(IsCharAlphaNumericW(13));
  EXPECT_FALSE(IsCharAlphaNumericW(37));
  EXPECT_FALSE(IsCharAlphaNumericW(0));
}

TEST(TeclasWindows, KeypadDigitsAndFunctionKeysPassAsTheLettersOfTheirCodes) {
  EXPECT_TRUE(IsCharAlphaNumericW(codigo(Qt::Key_5, Qt::KeypadModifier)));  // 101, 'e'
  EXPECT_TRUE(IsCharAlphaNumericW(codigo(Qt::Key_F1)));                     // 112, 'p'
  EXPECT_FALSE(IsCharAlphaNumericW(codigo(Qt::Key_0, Qt::KeypadModifier)));  // 96, '`'
}
