// TLMDMessageHint: the balloon the controller uses to tell the user about
// provinces. A small frameless window with an optional icon and title over
// the text, shown at a point of the screen or under a control, until it is
// hidden, clicked, or its time runs out.
#pragma once

#include <QColor>
#include <QFrame>
#include <QPointer>

class QLabel;
class QTimer;

class TLMDMessageHint : public QFrame {
  Q_OBJECT
 public:
  // Icon kinds.
  enum TipoIcono { iconoNinguno = 0, iconoInformacion = 1, iconoAviso = 2, iconoError = 3, iconoPregunta = 4 };

  explicit TLMDMessageHint(QWidget* parent = nullptr);
  ~TLMDMessageHint() override;

  // Shows the text with its top-left corner at a screen point. An invalid
  // colour is the default (the tool-tip colour). A time-out of 0 or less
  // keeps the balloon until HideMessage or a click.
  void ShowMessage(const QString& texto, const QPoint& puntoPantalla, const QString& titulo = {},
                   const QColor& color = {}, int tipoIcono = iconoNinguno, int tiempoMs = -1);
  // The same, placed just below the control.
  void ShowControlMessage(const QString& texto, QWidget* control, const QString& titulo = {},
                          const QColor& color = {}, int tipoIcono = iconoNinguno, int tiempoMs = -1);
  void HideMessage();
  bool IsShowing() const;

  QString Texto() const;
  QString Titulo() const;
  int TipoIcono() const { return tipoIcono_; }

  int Tag = 0;

 protected:
  void mousePressEvent(QMouseEvent* event) override;

 private:
  void Prepara(const QString& texto, const QString& titulo, const QColor& color, int tipoIcono, int tiempoMs);
  QLabel* icono_;
  QLabel* titulo_;
  QLabel* texto_;
  QTimer* tiempo_;
  int tipoIcono_ = iconoNinguno;
};
