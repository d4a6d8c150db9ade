#include "platform/DialogoPaquete.h"

#include <QDialog>
#include <QKeyEvent>
#include <QPushButton>
#include <QStatusBar>
#include <QTimer>

#include "platform/TeclasWindows.h"
#include "services/Rvarias.h"

namespace dialogo {

bool VistaPreviaTecla(QEvent* evento, const std::function<void(int& Key)>& formKeyDown) {
  if (evento->type() != QEvent::KeyPress) return false;
  int codigo = CodigoTeclaWindows(*static_cast<QKeyEvent*>(evento));
  if (codigo == 0) return false;
  formKeyDown(codigo);
  return codigo == 0;
}

void TeclasComunes(QDialog* dialogo, QPushButton* cancelar, const std::function<void()>& siguiente, int& Key) {
  switch (Key) {
    case VK_RETURN:
      QTimer::singleShot(0, dialogo, siguiente);
      Key = 0;
      break;
    case VK_ESCAPE:
      cancelar->click();
      Key = 0;
      break;
    default:
      break;
  }
}

void TomaFocoConPista(QStatusBar* estado, QObject* control, bool colorea) {
  auto* widget = qobject_cast<QWidget*>(control);
  if (colorea) TomaFocoControl(widget);
  estado->showMessage(widget ? widget->toolTip() : QString());
}

void DejaFocoConPista(QStatusBar* estado, QObject* control, bool colorea) {
  if (colorea) DejaFocoControl(qobject_cast<QWidget*>(control));
  estado->clearMessage();
}

}  // namespace dialogo
