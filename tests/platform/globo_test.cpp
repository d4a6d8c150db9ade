// The balloon that tells the user about provinces.
#include <gtest/gtest.h>

#include <QLineEdit>
#include <QTest>

#include "platform/TLMDMessageHint.h"
#include "../services/qstring_print.h"

TEST(TLMDMessageHint, ShowsTitleAndTextAtAScreenPoint) {
  TLMDMessageHint globo;
  globo.ShowMessage("SOBRADO (CORUÑA (A))\rSOBRADO (MADRID)", QPoint(40, 60), "Provincias", QColor(Qt::yellow),
                    TLMDMessageHint::iconoAviso);
  EXPECT_TRUE(globo.IsShowing());
  EXPECT_EQ(globo.pos(), QPoint(40, 60));
  EXPECT_EQ(globo.Titulo(), "Provincias");
  EXPECT_EQ(globo.Texto(), "SOBRADO (CORUÑA (A))\nSOBRADO (MADRID)");
  EXPECT_EQ(globo.TipoIcono(), TLMDMessageHint::iconoAviso);
  EXPECT_EQ(globo.palette().color(QPalette::Window), QColor(Qt::yellow));
}

TEST(TLMDMessageHint, AttachedToAControlShowsJustBelowIt) {
  QWidget ventana;
  auto* edit = new QLineEdit(&ventana);
  edit->setGeometry(10, 20, 200, 24);
  ventana.show();
  TLMDMessageHint globo;
  globo.ShowControlMessage("La provincia especificada no coincide con el municipio indicado", edit);
  EXPECT_EQ(globo.pos(), edit->mapToGlobal(QPoint(0, 24)));
  EXPECT_TRUE(globo.IsShowing());
}

TEST(TLMDMessageHint, HideMessageHidesItAndKeepsTheTag) {
  TLMDMessageHint globo;
  globo.Tag = 1;
  globo.ShowMessage("X", QPoint(0, 0));
  globo.HideMessage();
  EXPECT_FALSE(globo.IsShowing());
  EXPECT_EQ(globo.Tag, 1);
}

TEST(TLMDMessageHint, NegativeTimeOutStaysUntilHidden) {
  TLMDMessageHint globo;
  globo.ShowMessage("X", QPoint(0, 0), {}, {}, TLMDMessageHint::iconoNinguno, -1);
  QTest::qWait(100);
  EXPECT_TRUE(globo.IsShowing());
}

TEST(TLMDMessageHint, PositiveTimeOutHidesItself) {
  TLMDMessageHint globo;
  globo.ShowMessage("X", QPoint(0, 0), {}, {}, TLMDMessageHint::iconoInformacion, 30);
  EXPECT_TRUE(QTest::qWaitFor([&] { return !globo.IsShowing(); }, 2000));
}

TEST(TLMDMessageHint, AClickHidesIt) {
  TLMDMessageHint globo;
  globo.ShowMessage("X", QPoint(0, 0));
  QTest::mouseClick(&globo, Qt::LeftButton);
  EXPECT_FALSE(globo.IsShowing());
}
