#include "services/Rmensaje.h"

#include <QApplication>
#include <QDebug>
#include <QHBoxLayout>
#include <QLabel>
#include <QMessageBox>
#include <QScreen>
#include <QSet>
#include <QStyle>
#include <QTimer>
#include <QVBoxLayout>

#include <algorithm>

namespace {

// Wait windows alive right now: a handle whose owner took it along when it
// was destroyed must not be touched again.
QSet<const TVentanaEspera*>& ventanasVivas() {
  static QSet<const TVentanaEspera*> vivas;
  return vivas;
}

bool hayInterfaz() { return qobject_cast<QApplication*>(QCoreApplication::instance()) != nullptr; }

// The window of the widget the owner is, or belongs to.
QWidget* ventanaDe(QObject* propietario) {
  QObject* o = propietario;
  while (o && !o->isWidgetType()) o = o->parent();
  return o ? static_cast<QWidget*>(o)->window() : nullptr;
}

QString tituloVisible(const QString& titulo) {
  return titulo.isEmpty() ? QCoreApplication::applicationName() : titulo;
}

// The area a window is placed in: its owner's window, or the screen.
QRect zonaDe(QWidget* duenno) {
  if (duenno && duenno->isVisible()) return duenno->frameGeometry();
  QScreen* pantalla = duenno ? duenno->screen() : QGuiApplication::primaryScreen();
  return pantalla ? pantalla->availableGeometry() : QRect(0, 0, 800, 600);
}

void centraEn(QWidget* ventana, const QRect& zona) {
  QRect r(QPoint(), ventana->size());
  r.moveCenter(zona.center());
  ventana->move(r.topLeft());
}

// Paints now: the caller is usually in a long loop that returns to the event
// loop only at the end. User input stays queued so it cannot re-enter.
void pintaYa(QWidget* ventana) {
  if (ventana->isVisible()) ventana->repaint();
  QCoreApplication::processEvents(QEventLoop::ExcludeUserInputEvents);
}

void cajaModal(QMessageBox::Icon icono, QObject* propietario, const QString& texto,
               const QString& titulo) {
  if (!hayInterfaz()) {
    qWarning().noquote() << tituloVisible(titulo) << ':' << texto;
    return;
  }
  QWidget* padre = ventanaDe(propietario);
  if (!padre) padre = QApplication::activeWindow();
  QMessageBox caja(icono, tituloVisible(titulo), texto, QMessageBox::Ok, padre);
  // Addresses may contain '<' or '&'; never read them as markup.
  caja.setTextFormat(Qt::PlainText);
  caja.exec();
}

QLabel* etiquetaPlana(QWidget* padre) {
  auto* etiqueta = new QLabel(padre);
  etiqueta->setTextFormat(Qt::PlainText);
  return etiqueta;
}

PresentadorMensajesQt& presentadorPorDefecto() {
  static PresentadorMensajesQt presentador;
  return presentador;
}

PresentadorMensajes* presentadorInstalado = nullptr;

}  // namespace

// --- TVentanaEspera -------------------------------------------------------

TVentanaEspera::TVentanaEspera(const QString& texto, QWidget* padre)
    : QFrame(padre, Qt::Tool | Qt::FramelessWindowHint) {
  ventanasVivas().insert(this);
  setObjectName(QStringLiteral("ventanaEspera"));
  setAttribute(Qt::WA_ShowWithoutActivating);
  setFrameStyle(QFrame::Panel | QFrame::Raised);
  setLineWidth(2);
  setMinimumWidth(280);

  etiqueta_ = etiquetaPlana(this);
  etiqueta_->setObjectName(QStringLiteral("textoEspera"));
  etiqueta_->setAlignment(Qt::AlignCenter);
  etiqueta_->setText(texto);

  auto* capa = new QVBoxLayout(this);
  capa->setContentsMargins(24, 18, 24, 18);
  capa->addWidget(etiqueta_);
}

TVentanaEspera::~TVentanaEspera() { ventanasVivas().remove(this); }

QString TVentanaEspera::texto() const { return etiqueta_->text(); }

void TVentanaEspera::ponTexto(const QString& texto) { etiqueta_->setText(texto); }

void TVentanaEspera::ajustaAlTexto() {
  if (!isVisible()) return;  // showing it sizes it to its text
  // Grow only: a window that shrinks and jumps at every step is hard to read.
  const QSize deseado = sizeHint();
  if (deseado.width() > width() || deseado.height() > height())
    resize(std::max(deseado.width(), width()), std::max(deseado.height(), height()));
}

bool TVentanaEspera::existe(const TVentanaEspera* ventana) {
  return ventana && ventanasVivas().contains(ventana);
}

// --- TAvisoEmergente ------------------------------------------------------

TAvisoEmergente::TAvisoEmergente(const QString& texto, const QString& titulo, int icono,
                                 const QString& detalle, int duracionMs, QWidget* padre)
    : QFrame(padre, Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint),
      icono_(icono) {
  setObjectName(QStringLiteral("avisoEmergente"));
  setAttribute(Qt::WA_DeleteOnClose);
  setAttribute(Qt::WA_ShowWithoutActivating);
  setFrameStyle(QFrame::Box | QFrame::Plain);
  setAutoFillBackground(true);
  setBackgroundRole(QPalette::ToolTipBase);
  setForegroundRole(QPalette::ToolTipText);

  auto* capa = new QHBoxLayout(this);
  capa->setContentsMargins(12, 10, 12, 10);

  QStyle::StandardPixmap dibujo = QStyle::SP_CustomBase;
  switch (icono) {
    case IconoError: dibujo = QStyle::SP_MessageBoxCritical; break;
    case IconoAviso: dibujo = QStyle::SP_MessageBoxWarning; break;
    case IconoPregunta: dibujo = QStyle::SP_MessageBoxQuestion; break;
    case IconoInformacion: dibujo = QStyle::SP_MessageBoxInformation; break;
    default: break;
  }
  if (dibujo != QStyle::SP_CustomBase) {
    auto* imagen = new QLabel(this);
    const int lado = style()->pixelMetric(QStyle::PM_MessageBoxIconSize, nullptr, this);
    imagen->setPixmap(style()->standardIcon(dibujo, nullptr, this).pixmap(lado, lado));
    imagen->setAlignment(Qt::AlignTop);
    capa->addWidget(imagen);
  }

  auto* textos = new QVBoxLayout;
  titulo_ = etiquetaPlana(this);
  titulo_->setText(titulo);
  QFont negrita = titulo_->font();
  negrita.setBold(true);
  titulo_->setFont(negrita);
  titulo_->setVisible(!titulo.isEmpty());
  texto_ = etiquetaPlana(this);
  texto_->setText(texto);
  detalle_ = etiquetaPlana(this);
  detalle_->setText(detalle);
  QFont pequenna = detalle_->font();
  if (pequenna.pointSizeF() > 0) pequenna.setPointSizeF(pequenna.pointSizeF() * 0.85);
  detalle_->setFont(pequenna);
  detalle_->setVisible(!detalle.isEmpty());
  textos->addWidget(titulo_);
  textos->addWidget(texto_);
  textos->addWidget(detalle_);
  capa->addLayout(textos);

  if (duracionMs > 0) QTimer::singleShot(duracionMs, this, &QWidget::close);
}

QString TAvisoEmergente::texto() const { return texto_->text(); }
QString TAvisoEmergente::titulo() const { return titulo_->text(); }
QString TAvisoEmergente::detalle() const { return detalle_->text(); }

void TAvisoEmergente::mousePressEvent(QMouseEvent*) { close(); }

// --- PresentadorMensajesQt ------------------------------------------------

void PresentadorMensajesQt::error(QObject* propietario, const QString& texto, const QString& titulo) {
  cajaModal(QMessageBox::Critical, propietario, texto, titulo);
}

void PresentadorMensajesQt::info(QObject* propietario, const QString& texto, const QString& titulo,
                                 int /*opcion*/) {
  cajaModal(QMessageBox::Information, propietario, texto, titulo);
}

void PresentadorMensajesQt::emergente(QObject* propietario, const QString& texto,
                                      const QString& titulo, const QString& posicion, int icono,
                                      const QString& detalle) {
  if (!hayInterfaz()) {
    qWarning().noquote() << tituloVisible(titulo) << ':' << texto;
    return;
  }
  QWidget* duenno = ventanaDe(propietario);
  auto* aviso = new TAvisoEmergente(texto, titulo, icono, detalle, duracionEmergenteMs_, duenno);
  aviso->adjustSize();
  const QRect zona = zonaDe(duenno);
  if (posicion.trimmed().startsWith(u'C', Qt::CaseInsensitive)) {
    centraEn(aviso, zona);
  } else {
    const int margen = 16;
    aviso->move(zona.center().x() - aviso->width() / 2, zona.bottom() - aviso->height() - margen);
  }
  aviso->show();
  aviso->raise();
}

TVentanaEspera* PresentadorMensajesQt::muestra(QObject* propietario, const QString& texto) {
  if (!hayInterfaz()) return nullptr;
  QWidget* duenno = ventanaDe(propietario);
  auto* ventana = new TVentanaEspera(texto, duenno);
  ventana->adjustSize();
  centraEn(ventana, zonaDe(duenno));
  pintaSiToca(ventana);
  return ventana;
}

void PresentadorMensajesQt::cambia(TVentanaEspera* ventana, const QString& texto) {
  ventana->ponTexto(texto);
  pintaSiToca(ventana);
}

void PresentadorMensajesQt::pintaSiToca(TVentanaEspera* ventana) {
  const bool toca =
      intervaloPinturaMs_ <= 0 || !ultimaPintura_.isValid() || ultimaPintura_.elapsed() >= intervaloPinturaMs_;
  if (toca) {
    muestraYPinta(ventana, true);
    return;
  }
  ventanaPendiente_ = ventana;
  if (!pendiente_) {
    pendiente_ = std::make_unique<QTimer>();
    pendiente_->setSingleShot(true);
    QObject::connect(pendiente_.get(), &QTimer::timeout, [this] {
      if (ventanaPendiente_) muestraYPinta(ventanaPendiente_, false);
    });
  }
  if (!pendiente_->isActive())
    pendiente_->start(int(std::max<qint64>(intervaloPinturaMs_ - ultimaPintura_.elapsed(), 0)));
}

// From the timer the event loop is already running: it only needs the paint.
void PresentadorMensajesQt::muestraYPinta(TVentanaEspera* ventana, bool dejaPasarEventos) {
  // This paint shows what a pending one of this window would have.
  if (ventanaPendiente_ == ventana) {
    if (pendiente_) pendiente_->stop();
    ventanaPendiente_ = nullptr;
  }
  if (!ventana->isVisible()) {
    ventana->show();
    ventana->raise();
  }
  ventana->ajustaAlTexto();
  if (dejaPasarEventos)
    pintaYa(ventana);
  else
    ventana->repaint();
  ultimaPintura_.start();
}

void PresentadorMensajesQt::cierra(TVentanaEspera* ventana) {
  ventana->close();
  delete ventana;
}

// --- RegistroMensajes -----------------------------------------------------

RegistroMensajes::~RegistroMensajes() {
  for (const QPointer<TVentanaEspera>& ventana : ventanas_) delete ventana.data();
}

namespace {

MensajeRegistrado nuevoRegistro(TipoMensaje tipo, QObject* propietario, const QString& texto) {
  MensajeRegistrado m;
  m.tipo = tipo;
  m.propietario = propietario;
  m.texto = texto;
  return m;
}

}  // namespace

void RegistroMensajes::error(QObject* propietario, const QString& texto, const QString& titulo) {
  MensajeRegistrado m = nuevoRegistro(TipoMensaje::Error, propietario, texto);
  m.titulo = titulo;
  registra(std::move(m));
}

void RegistroMensajes::info(QObject* propietario, const QString& texto, const QString& titulo,
                            int opcion) {
  MensajeRegistrado m = nuevoRegistro(TipoMensaje::Info, propietario, texto);
  m.titulo = titulo;
  m.opcion = opcion;
  registra(std::move(m));
}

void RegistroMensajes::emergente(QObject* propietario, const QString& texto, const QString& titulo,
                                 const QString& posicion, int icono, const QString& detalle) {
  MensajeRegistrado m = nuevoRegistro(TipoMensaje::Emergente, propietario, texto);
  m.titulo = titulo;
  m.opcion = icono;
  m.posicion = posicion;
  m.detalle = detalle;
  registra(std::move(m));
}

TVentanaEspera* RegistroMensajes::muestra(QObject* propietario, const QString& texto) {
  // Never shown, but a real window so handles work as with the default presenter.
  TVentanaEspera* ventana = hayInterfaz() ? new TVentanaEspera(texto) : nullptr;
  if (ventana) ventanas_.append(ventana);
  MensajeRegistrado m = nuevoRegistro(TipoMensaje::Muestra, propietario, texto);
  m.ventana = ventana;
  registra(std::move(m));
  return ventana;
}

void RegistroMensajes::cambia(TVentanaEspera* ventana, const QString& texto) {
  ventana->ponTexto(texto);
  MensajeRegistrado m = nuevoRegistro(TipoMensaje::Cambia, nullptr, texto);
  m.ventana = ventana;
  registra(std::move(m));
}

void RegistroMensajes::cierra(TVentanaEspera* ventana) {
  MensajeRegistrado m = nuevoRegistro(TipoMensaje::Cierra, nullptr, ventana->texto());
  m.ventana = ventana;
  registra(std::move(m));
  ventanas_.removeAll(ventana);
  delete ventana;
}

QList<MensajeRegistrado> RegistroMensajes::deTipo(TipoMensaje tipo) const {
  QList<MensajeRegistrado> resultado;
  for (const MensajeRegistrado& m : mensajes_)
    if (m.tipo == tipo) resultado.append(m);
  return resultado;
}

int RegistroMensajes::cuenta(TipoMensaje tipo) const {
  return static_cast<int>(std::count_if(mensajes_.begin(), mensajes_.end(),
                                        [tipo](const MensajeRegistrado& m) { return m.tipo == tipo; }));
}

QStringList RegistroMensajes::textos(TipoMensaje tipo) const {
  QStringList resultado;
  for (const MensajeRegistrado& m : mensajes_)
    if (m.tipo == tipo) resultado.append(m.texto);
  return resultado;
}

// --- Presenter in use ------------------------------------------------------

PresentadorMensajes* EstablecePresentadorMensajes(PresentadorMensajes* presentador) {
  PresentadorMensajes* anterior = PresentadorMensajesActual();
  presentadorInstalado = presentador;
  return anterior;
}

PresentadorMensajes* PresentadorMensajesActual() {
  return presentadorInstalado ? presentadorInstalado : &presentadorPorDefecto();
}

// --- The host's routines ---------------------------------------------------

QString SaltosDeLinea(const QString& texto) {
  QString resultado = texto;
  resultado.replace(QStringLiteral("\r\n"), QStringLiteral("\n"));
  resultado.replace(u'\r', u'\n');
  return resultado;
}

void Mensaje_Error(QObject* propietario, const QString& texto, const QString& titulo) {
  PresentadorMensajesActual()->error(propietario, SaltosDeLinea(texto), titulo);
}

void Mensaje_Info(QObject* propietario, const QString& texto, const QString& titulo, int opcion) {
  PresentadorMensajesActual()->info(propietario, SaltosDeLinea(texto), titulo, opcion);
}

void Mensaje_Emergente(QObject* propietario, const QString& texto, const QString& titulo,
                       const QString& posicion, int icono, const QString& detalle) {
  PresentadorMensajesActual()->emergente(propietario, SaltosDeLinea(texto), titulo, posicion, icono,
                                         SaltosDeLinea(detalle));
}

TVentanaEspera* MuestraMensaje(const QString& texto, QObject* propietario) {
  return PresentadorMensajesActual()->muestra(propietario, SaltosDeLinea(texto));
}

void CambiaMensaje(const QString& nuevo, TVentanaEspera* ventana) {
  if (!TVentanaEspera::existe(ventana)) return;
  PresentadorMensajesActual()->cambia(ventana, SaltosDeLinea(nuevo));
}

void CierraMensaje(TVentanaEspera* ventana) {
  if (!TVentanaEspera::existe(ventana)) return;
  PresentadorMensajesActual()->cierra(ventana);
}
