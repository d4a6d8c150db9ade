#include "platform/TLMDMessageHint.h"

#include <QApplication>
#include <QGridLayout>
#include <QLabel>
#include <QStyle>
#include <QTimer>

TLMDMessageHint::TLMDMessageHint(QWidget* parent)
    : QFrame(parent, Qt::ToolTip | Qt::FramelessWindowHint | Qt::WindowDoesNotAcceptFocus),
      icono_(new QLabel(this)),
      titulo_(new QLabel(this)),
      texto_(new QLabel(this)),
      tiempo_(new QTimer(this)) {
  setAttribute(Qt::WA_ShowWithoutActivating);
  setFrameStyle(QFrame::Box | QFrame::Plain);
  setAutoFillBackground(true);
  QFont negrita = titulo_->font();
  negrita.setBold(true);
  titulo_->setFont(negrita);
  texto_->setTextFormat(Qt::PlainText);
  titulo_->setTextFormat(Qt::PlainText);
  auto* rejilla = new QGridLayout(this);
  rejilla->setContentsMargins(8, 6, 8, 6);
  rejilla->addWidget(icono_, 0, 0, 2, 1, Qt::AlignTop);
  rejilla->addWidget(titulo_, 0, 1);
  rejilla->addWidget(texto_, 1, 1);
  tiempo_->setSingleShot(true);
  connect(tiempo_, &QTimer::timeout, this, &TLMDMessageHint::HideMessage);
}

TLMDMessageHint::~TLMDMessageHint() = default;

void TLMDMessageHint::Prepara(const QString& texto, const QString& titulo, const QColor& color, int tipoIcono,
                              int tiempoMs) {
  // The host's texts break lines with a carriage return.
  QString lineas = texto;
  lineas.replace(QStringLiteral("\r\n"), QStringLiteral("\n")).replace(u'\r', u'\n');
  texto_->setText(lineas);
  titulo_->setText(titulo);
  titulo_->setVisible(!titulo.isEmpty());
  tipoIcono_ = tipoIcono;
  QStyle::StandardPixmap pixmap = QStyle::SP_CustomBase;
  switch (tipoIcono) {
    case iconoInformacion: pixmap = QStyle::SP_MessageBoxInformation; break;
    case iconoAviso: pixmap = QStyle::SP_MessageBoxWarning; break;
    case iconoError: pixmap = QStyle::SP_MessageBoxCritical; break;
    case iconoPregunta: pixmap = QStyle::SP_MessageBoxQuestion; break;
    default: break;
  }
  if (pixmap != QStyle::SP_CustomBase) {
    const int lado = style()->pixelMetric(QStyle::PM_SmallIconSize);
    icono_->setPixmap(style()->standardIcon(pixmap).pixmap(lado, lado));
  }
  icono_->setVisible(pixmap != QStyle::SP_CustomBase);
  QPalette paleta = QApplication::palette(this);
  paleta.setColor(QPalette::Window, color.isValid() ? color : paleta.color(QPalette::ToolTipBase));
  paleta.setColor(QPalette::WindowText, paleta.color(QPalette::ToolTipText));
  setPalette(paleta);
  tiempo_->stop();
  if (tiempoMs > 0) tiempo_->start(tiempoMs);
  adjustSize();
}

void TLMDMessageHint::ShowMessage(const QString& texto, const QPoint& puntoPantalla, const QString& titulo,
                                  const QColor& color, int tipoIcono, int tiempoMs) {
  Prepara(texto, titulo, color, tipoIcono, tiempoMs);
  move(puntoPantalla);
  show();
  raise();
}

void TLMDMessageHint::ShowControlMessage(const QString& texto, QWidget* control, const QString& titulo,
                                         const QColor& color, int tipoIcono, int tiempoMs) {
  if (!control) return ShowMessage(texto, pos(), titulo, color, tipoIcono, tiempoMs);
  ShowMessage(texto, control->mapToGlobal(QPoint(0, control->height())), titulo, color, tipoIcono, tiempoMs);
}

void TLMDMessageHint::HideMessage() {
  tiempo_->stop();
  hide();
}

bool TLMDMessageHint::IsShowing() const { return isVisible(); }

QString TLMDMessageHint::Texto() const { return texto_->text(); }

QString TLMDMessageHint::Titulo() const { return titulo_->text(); }

void TLMDMessageHint::mousePressEvent(QMouseEvent*) { HideMessage(); }
