#include "platform/EventosControles.h"

#include <QAbstractScrollArea>
#include <QApplication>
#include <QFocusEvent>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QWidget>

#include "platform/TeclasWindows.h"
#include "services/Rmensaje.h"

TEventosControles::TEventosControles(QObject* parent) : QObject(parent) {}

TEventosControles::~TEventosControles() {
  for (auto& [observado, control] : observados_) {
    observado->removeEventFilter(this);
    disconnect(observado, nullptr, this, nullptr);
  }
}

void TEventosControles::Asigna(QWidget* control, TManejadores manejadores) {
  if (!control) return;
  const bool nuevo = enlaces_.find(control) == enlaces_.end();
  enlaces_[control] = Enlace{control, std::move(manejadores)};
  if (!nuevo) return;
  QList<QObject*> observados{control};
  if (auto* area = qobject_cast<QAbstractScrollArea*>(control)) observados << area->viewport();
  for (QObject* o : observados) {
    observados_[o] = control;
    // Installed last, our filter runs before the host's own.
    o->installEventFilter(this);
    connect(o, &QObject::destroyed, this, [this, o] { Olvida(o); });
  }
}

bool TEventosControles::Tiene(const QWidget* control) const {
  return enlaces_.find(const_cast<QWidget*>(control)) != enlaces_.end();
}

void TEventosControles::Olvida(QObject* objeto) {
  auto it = observados_.find(objeto);
  if (it == observados_.end()) return;
  QWidget* control = it->second;
  observados_.erase(it);
  if (objeto == control) enlaces_.erase(control);
}

void EjecutaManejador(QObject* control, const std::function<void()>& llamada) {
  try {
    llamada();
  } catch (const std::exception& e) {
    Mensaje_Error(control, QString::fromUtf8(e.what()), QString());
  }
}

template <typename Llamada>
void TEventosControles::Ejecuta(QWidget* control, Llamada&& llamada) {
  EjecutaManejador(control, llamada);
}

bool TEventosControles::eventFilter(QObject* watched, QEvent* event) {
  auto observado = observados_.find(watched);
  if (observado == observados_.end()) return false;
  auto enlace = enlaces_.find(observado->second);
  if (enlace == enlaces_.end() || !enlace->second.control) return false;
  QWidget* control = enlace->second.control;
  // A copy: the handler may re-bind this very control.
  const TManejadores m = enlace->second.manejadores;
  const bool delVisor = watched != control;

  switch (event->type()) {
    case QEvent::FocusIn:
    case QEvent::FocusOut: {
      if (delVisor) return false;
      const auto razon = static_cast<QFocusEvent*>(event)->reason();
      if (razon == Qt::PopupFocusReason || razon == Qt::ActiveWindowFocusReason) return false;
      // A combo's open list takes the focus into its own pop-up window.
      if (event->type() == QEvent::FocusOut && QApplication::activePopupWidget()) return false;
      if (event->type() == QEvent::FocusIn) {
        if (m.OnEnter) Ejecuta(control, [&] { m.OnEnter(control); });
        return false;
      }
      // The control an exit handler turned the focus away from never had it.
      if (control == destinoDesviado_) {
        destinoDesviado_ = nullptr;
        return false;
      }
      if (!m.OnExit) return false;
      const QPointer<QWidget> anterior = destinoDesviado_;
      destinoDesviado_ = QApplication::focusWidget();
      Ejecuta(control, [&] { m.OnExit(control); });
      destinoDesviado_ = anterior;
      return false;
    }
    case QEvent::KeyPress:
    case QEvent::KeyRelease: {
      if (delVisor) return false;
      const auto& manejador = event->type() == QEvent::KeyPress ? m.OnKeyDown : m.OnKeyUp;
      if (!manejador) return false;
      auto* tecla = static_cast<QKeyEvent*>(event);
      int codigo = CodigoTeclaWindows(*tecla);
      if (codigo == 0) return false;
      Ejecuta(control, [&] { manejador(control, codigo, tecla->modifiers()); });
      return codigo == 0;
    }
    case QEvent::MouseButtonPress: {
      if (!m.OnMouseDown || entregandoPulsacion_) return false;
      // The control handles the press first (a grid takes the focus and the
      // row clicked), then the handler runs, as on the host's platform.
      auto* raton = static_cast<QMouseEvent*>(event);
      const QPoint p = control->mapFromGlobal(raton->globalPosition().toPoint());
      const Qt::MouseButton boton = raton->button();
      const Qt::KeyboardModifiers teclas = raton->modifiers();
      entregandoPulsacion_ = true;
      QCoreApplication::sendEvent(watched, event);
      entregandoPulsacion_ = false;
      Ejecuta(control, [&] { m.OnMouseDown(control, boton, teclas, p.x(), p.y()); });
      return true;
    }
    case QEvent::MouseButtonDblClick:
      if (m.OnDblClick) Ejecuta(control, [&] { m.OnDblClick(control); });
      return false;
    default:
      return false;
  }
}
