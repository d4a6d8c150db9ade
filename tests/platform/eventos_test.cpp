// The controller's handlers on the host's widgets: enter, exit, keys with
// their Windows codes, mouse and double click.
#include <gtest/gtest.h>

#include <QApplication>
#include <QComboBox>
#include <QLineEdit>
#include <QStandardItemModel>
#include <QTableView>
#include <QTest>
#include <QVBoxLayout>

#include "platform/EventosControles.h"
#include "platform/TeclasWindows.h"

namespace {

struct Ventana {
  Ventana() {
    auto* capa = new QVBoxLayout(&ventana);
    capa->addWidget(primero = new QLineEdit);
    capa->addWidget(edit = new QLineEdit);
    capa->addWidget(combo = new QComboBox);
    capa->addWidget(rejilla = new QTableView);
    modelo.setRowCount(3);
    modelo.setColumnCount(2);
    rejilla->setModel(&modelo);
    combo->addItems({"UNO", "DOS"});
    ventana.show();
    QApplication::setActiveWindow(&ventana);
    (void)QTest::qWaitForWindowActive(&ventana);
    primero->setFocus(Qt::TabFocusReason);
    QApplication::processEvents();
  }
  QWidget ventana;
  QLineEdit* primero;
  QLineEdit* edit;
  QComboBox* combo;
  QTableView* rejilla;
  QStandardItemModel modelo;
};

}  // namespace

TEST(EventosControles, EnterAndExitFollowTheFocus) {
  Ventana v;
  TEventosControles eventos;
  QStringList registro;
  TManejadores m;
  m.OnEnter = [&](QObject* s) { registro << "entra " + s->objectName(); };
  m.OnExit = [&](QObject* s) { registro << "sale " + s->objectName(); };
  v.edit->setObjectName("advELocalidad");
  eventos.Asigna(v.edit, m);
  QTest::keyClick(v.primero, Qt::Key_Tab);
  QTest::keyClick(v.edit, Qt::Key_Tab);
  EXPECT_EQ(registro, (QStringList{"entra advELocalidad", "sale advELocalidad"}));
}

TEST(EventosControles, KeysArriveAsWindowsCodesAndAZeroedKeyIsConsumed) {
  Ventana v;
  TEventosControles eventos;
  QList<int> abajo, arriba;
  TManejadores m;
  m.OnKeyDown = [&](QObject*, int& k, Qt::KeyboardModifiers) {
    abajo << k;
    if (k == VK_RETURN || k == 'X') k = 0;  // swallowed
  };
  m.OnKeyUp = [&](QObject*, int& k, Qt::KeyboardModifiers) { arriba << k; };
  eventos.Asigna(v.edit, m);
  v.edit->setFocus();
  QTest::keyClicks(v.edit, "mxa");
  QTest::keyClick(v.edit, Qt::Key_Return);
  QTest::keyClick(v.edit, Qt::Key_Down);
  EXPECT_EQ(abajo, (QList<int>{'M', 'X', 'A', 13, 40}));
  EXPECT_EQ(arriba, (QList<int>{'M', 'X', 'A', 13, 40}));
  EXPECT_EQ(v.edit->text(), "ma");
}

TEST(EventosControles, FocusMovingToAComboListIsNotAnExit) {
  Ventana v;
  TEventosControles eventos;
  int salidas = 0;
  TManejadores m;
  m.OnExit = [&](QObject*) { ++salidas; };
  eventos.Asigna(v.combo, m);
  v.combo->setFocus(Qt::TabFocusReason);
  QApplication::processEvents();
  v.combo->showPopup();
  QApplication::processEvents();
  v.combo->hidePopup();
  QApplication::processEvents();
  EXPECT_EQ(salidas, 0);
  v.primero->setFocus(Qt::TabFocusReason);
  QApplication::processEvents();
  EXPECT_EQ(salidas, 1);
}

TEST(EventosControles, GridMouseAndDoubleClickArriveWithTheGridAsSender) {
  Ventana v;
  TEventosControles eventos;
  QObject* remitente = nullptr;
  int pulsaciones = 0, dobles = 0;
  QPoint donde;
  TManejadores m;
  m.OnMouseDown = [&](QObject* s, Qt::MouseButton b, Qt::KeyboardModifiers, int x, int y) {
    remitente = s;
    ++pulsaciones;
    donde = QPoint(x, y);
    EXPECT_EQ(b, Qt::LeftButton);
  };
  m.OnDblClick = [&](QObject* s) {
    remitente = s;
    ++dobles;
  };
  eventos.Asigna(v.rejilla, m);
  const QRect celda = v.rejilla->visualRect(v.modelo.index(1, 0));
  QTest::mouseClick(v.rejilla->viewport(), Qt::LeftButton, {}, celda.center());
  QTest::mouseDClick(v.rejilla->viewport(), Qt::LeftButton, {}, celda.center());
  EXPECT_EQ(remitente, v.rejilla);
  EXPECT_GE(pulsaciones, 1);
  EXPECT_EQ(dobles, 1);
  EXPECT_EQ(donde, v.rejilla->viewport()->mapTo(v.rejilla, celda.center()));
}

TEST(EventosControles, AssigningAgainReplacesTheHandlers) {
  Ventana v;
  TEventosControles eventos;
  QStringList registro;
  TManejadores primero, segundo;
  primero.OnEnter = [&](QObject*) { registro << "primero"; };
  segundo.OnEnter = [&](QObject*) { registro << "segundo"; };
  eventos.Asigna(v.edit, primero);
  eventos.Asigna(v.edit, segundo);
  v.edit->setFocus(Qt::TabFocusReason);
  QApplication::processEvents();
  EXPECT_EQ(registro, QStringList{"segundo"});
}

TEST(EventosControles, AControlDestroyedFirstIsForgotten) {
  Ventana v;
  TEventosControles eventos;
  eventos.Asigna(v.edit, {});
  delete v.edit;
  EXPECT_FALSE(eventos.Tiene(v.edit));
}
