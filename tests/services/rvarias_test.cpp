#include "services/Rvarias.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <QComboBox>
#include <QLineEdit>
#include <QTest>
#include <QVBoxLayout>
#include <QWidget>

#include <memory>

namespace {

// A shown, active window with two line edits, as a host form would be.
struct Formulario {
  std::unique_ptr<QWidget> ventana = std::make_unique<QWidget>();
  QLineEdit* uno = new QLineEdit(ventana.get());
  QLineEdit* dos = new QLineEdit(ventana.get());

  Formulario() {
    auto* capa = new QVBoxLayout(ventana.get());
    capa->addWidget(uno);
    capa->addWidget(dos);
  }

  bool muestra() {
    ventana->show();
    QApplication::setActiveWindow(ventana.get());
    return QTest::qWaitForWindowExposed(ventana.get()) && QTest::qWaitForWindowActive(ventana.get());
  }
};

QColor base(QWidget* w) { return w->palette().color(QPalette::Active, QPalette::Base); }

}  // namespace

TEST(Rvarias, TomaFocoControlColoursTheBase) {
  QLineEdit edit;
  TomaFocoControl(&edit);
  EXPECT_EQ(base(&edit), ColorFocoControl());
  EXPECT_EQ(edit.palette().color(QPalette::Inactive, QPalette::Base), ColorFocoControl());
}

TEST(Rvarias, FocusColourIsLightYellow) {
  const QColor c = ColorFocoControl();
  EXPECT_GT(c.red(), 240);
  EXPECT_GT(c.green(), 240);
  EXPECT_LT(c.blue(), c.green());
}

TEST(Rvarias, DejaFocoControlRestoresAnInheritedPalette) {
  QWidget padre;
  auto* edit = new QLineEdit(&padre);
  const QPalette antes = edit->palette();
  ASSERT_FALSE(edit->testAttribute(Qt::WA_SetPalette));

  TomaFocoControl(edit);
  EXPECT_TRUE(edit->testAttribute(Qt::WA_SetPalette));
  DejaFocoControl(edit);
  EXPECT_EQ(edit->palette(), antes);
  EXPECT_FALSE(edit->testAttribute(Qt::WA_SetPalette));

  // Still inherits: a later change of the parent reaches it.
  QPalette paleta = padre.palette();
  paleta.setColor(QPalette::Base, Qt::cyan);
  padre.setPalette(paleta);
  EXPECT_EQ(base(edit), QColor(Qt::cyan));
}

TEST(Rvarias, DejaFocoControlRestoresTheControlsOwnPalette) {
  QLineEdit edit;
  QPalette propia = edit.palette();
  propia.setColor(QPalette::Base, Qt::green);
  propia.setColor(QPalette::Text, Qt::darkBlue);
  edit.setPalette(propia);
  const QPalette antes = edit.palette();

  TomaFocoControl(&edit);
  EXPECT_EQ(base(&edit), ColorFocoControl());
  EXPECT_EQ(edit.palette().color(QPalette::Text), QColor(Qt::darkBlue));
  DejaFocoControl(&edit);
  EXPECT_EQ(edit.palette(), antes);
  EXPECT_EQ(base(&edit), QColor(Qt::green));
  EXPECT_TRUE(edit.testAttribute(Qt::WA_SetPalette));
}

TEST(Rvarias, TomaFocoControlTwiceStillRestoresTheOriginal) {
  QLineEdit edit;
  const QPalette antes = edit.palette();
  TomaFocoControl(&edit);
  TomaFocoControl(&edit);
  DejaFocoControl(&edit);
  EXPECT_EQ(edit.palette(), antes);
  EXPECT_FALSE(edit.testAttribute(Qt::WA_SetPalette));
}

TEST(Rvarias, DejaFocoControlWithoutHighlightChangesNothing) {
  QLineEdit edit;
  QPalette propia = edit.palette();
  propia.setColor(QPalette::Base, Qt::green);
  edit.setPalette(propia);
  DejaFocoControl(&edit);
  EXPECT_EQ(base(&edit), QColor(Qt::green));
  EXPECT_TRUE(edit.testAttribute(Qt::WA_SetPalette));
}

TEST(Rvarias, TomaFocoControlColoursAClosedComboBox) {
  QComboBox combo;
  TomaFocoControl(&combo);
  EXPECT_EQ(combo.palette().color(QPalette::Active, QPalette::Button), ColorFocoControl());
  DejaFocoControl(&combo);
  EXPECT_FALSE(combo.testAttribute(Qt::WA_SetPalette));
}

TEST(Rvarias, FocusHelpersIgnoreNull) {
  TomaFocoControl(nullptr);
  DejaFocoControl(nullptr);
  HazSetFocus(nullptr);
  SUCCEED();
}

TEST(Rvarias, FocusColouringFollowsTheFocusInAShownForm) {
  Formulario f;
  ASSERT_TRUE(f.muestra());
  const QColor normal = base(f.dos);

  f.uno->setFocus();
  TomaFocoControl(f.uno);
  EXPECT_EQ(base(f.uno), ColorFocoControl());

  DejaFocoControl(f.uno);
  HazSetFocus(f.dos);
  TomaFocoControl(f.dos);
  EXPECT_TRUE(f.dos->hasFocus());
  EXPECT_EQ(base(f.dos), ColorFocoControl());
  EXPECT_EQ(base(f.uno), normal);
}

TEST(Rvarias, HazSetFocusGivesFocusToAVisibleEnabledControl) {
  Formulario f;
  ASSERT_TRUE(f.muestra());
  f.uno->setFocus();
  ASSERT_TRUE(QTest::qWaitFor([&] { return f.uno->hasFocus(); }));

  HazSetFocus(f.dos);
  EXPECT_TRUE(f.dos->hasFocus());
  EXPECT_EQ(QApplication::focusWidget(), f.dos);
}

TEST(Rvarias, HazSetFocusIgnoresHiddenControl) {
  Formulario f;
  ASSERT_TRUE(f.muestra());
  f.uno->setFocus();
  f.dos->hide();
  HazSetFocus(f.dos);
  EXPECT_TRUE(f.uno->hasFocus());
  EXPECT_FALSE(f.dos->hasFocus());
}

TEST(Rvarias, HazSetFocusIgnoresDisabledControl) {
  Formulario f;
  ASSERT_TRUE(f.muestra());
  f.uno->setFocus();
  f.dos->setEnabled(false);
  HazSetFocus(f.dos);
  EXPECT_TRUE(f.uno->hasFocus());
}

TEST(Rvarias, HazSetFocusIgnoresControlOfADisabledForm) {
  QWidget ventana;
  auto* grupo = new QWidget(&ventana);
  auto* edit = new QLineEdit(grupo);
  auto* capa = new QVBoxLayout(&ventana);
  capa->addWidget(grupo);
  ventana.show();
  ASSERT_TRUE(QTest::qWaitForWindowExposed(&ventana));
  grupo->setEnabled(false);
  HazSetFocus(edit);
  EXPECT_FALSE(edit->hasFocus());
}

TEST(Rvarias, HazSetFocusIgnoresControlOfAWindowNotShown) {
  QWidget ventana;
  auto* edit = new QLineEdit(&ventana);
  HazSetFocus(edit);
  EXPECT_FALSE(edit->hasFocus());
  EXPECT_NE(ventana.focusWidget(), edit);
}
