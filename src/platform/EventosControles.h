// The controller's handlers on the host's controls. The host hands over its
// own widgets; the controller takes their enter, exit, key, mouse-down and
// double-click events through one event filter, as the host's forms let a
// component replace a control's event handlers.
//
// A key handler receives the Windows virtual-key code (TeclasWindows.h) by
// reference; setting it to 0 consumes the key, so the control never sees it.
// Focus events are never consumed. Focus moving to a pop-up (a combo's list)
// or away with the whole window is not an exit, as on the host's platform.
// When an exit handler sends the focus elsewhere, the control the user was
// going to never gets it, and so never sees an exit either.
//
// An error a handler raises stops that handler and is shown to the user in
// an error box (Rmensaje), as the host's application does with the errors
// of its event handlers; it never unwinds through the event loop.
#pragma once

#include <QObject>
#include <QPointer>
#include <functional>
#include <map>

class QWidget;

// Runs a handler the way the host's application does: an error it raises is
// shown in an error box owned by the control, and goes no further. Dialogs
// wrap their button slots in it too.
void EjecutaManejador(QObject* control, const std::function<void()>& llamada);

struct TManejadores {
  std::function<void(QObject* Sender)> OnEnter;
  std::function<void(QObject* Sender)> OnExit;
  std::function<void(QObject* Sender, int& Key, Qt::KeyboardModifiers Shift)> OnKeyDown;
  std::function<void(QObject* Sender, int& Key, Qt::KeyboardModifiers Shift)> OnKeyUp;
  std::function<void(QObject* Sender, Qt::MouseButton Button, Qt::KeyboardModifiers Shift, int X, int Y)> OnMouseDown;
  std::function<void(QObject* Sender)> OnDblClick;
};

class TEventosControles : public QObject {
  Q_OBJECT
 public:
  explicit TEventosControles(QObject* parent = nullptr);
  ~TEventosControles() override;

  // Gives the control these handlers, replacing any it had from us. Mouse
  // events of a scroll area (a grid) arrive on its viewport and are reported
  // with the control as sender, in the control's coordinates.
  void Asigna(QWidget* control, TManejadores manejadores);
  bool Tiene(const QWidget* control) const;

 protected:
  bool eventFilter(QObject* watched, QEvent* event) override;

 private:
  struct Enlace {
    QPointer<QWidget> control;
    TManejadores manejadores;
  };
  void Olvida(QObject* objeto);
  template <typename Llamada>
  void Ejecuta(QWidget* control, Llamada&& llamada);
  std::map<QObject*, QWidget*> observados_;  // control or viewport -> control
  std::map<QWidget*, Enlace> enlaces_;
  // The control a focus change was heading for while an exit handler runs.
  QPointer<QWidget> destinoDesviado_;
  bool entregandoPulsacion_ = false;
};
