// Messages of the host library: error and information boxes, pop-up notices
// and the wait window shown during long tasks.
//
// Every routine goes through one replaceable presenter. The default one shows
// Qt dialogs; tests install a RegistroMensajes instead, which records each
// call and never blocks. Texts use "\r" (or "\r\n") for a line break, as the
// host does; the routines turn them into '\n' before the presenter sees them.
#pragma once

#include <QElapsedTimer>
#include <QFrame>
#include <QList>
#include <QPointer>
#include <QString>
#include <QStringList>
#include <QTimer>

#include <memory>
#include <utility>

class QLabel;

class QObject;
class QWidget;

// Icon kinds of Mensaje_Emergente.
enum IconoMensaje {
  IconoNinguno = 0,
  IconoError = 1,
  IconoAviso = 2,
  IconoPregunta = 3,
  IconoInformacion = 4,
};

// The small non-modal window that tells the user to wait. MuestraMensaje
// returns it as a handle; CambiaMensaje and CierraMensaje take it back.
class TVentanaEspera : public QFrame {
  Q_OBJECT

 public:
  explicit TVentanaEspera(const QString& texto, QWidget* padre = nullptr);
  ~TVentanaEspera() override;

  QString texto() const;
  void ponTexto(const QString& texto);
  // Grows the shown window to fit its text. Measuring a text costs more
  // than changing it, and a long run changes it at every row: the presenter
  // fits the window when it paints, a few times a second.
  void ajustaAlTexto();
  QLabel* etiqueta() const { return etiqueta_; }

  // Whether the handle still names a live window (its owner may have taken it
  // along when it was destroyed).
  static bool existe(const TVentanaEspera* ventana);

 private:
  QLabel* etiqueta_;
};

// The pop-up notice of the default presenter: a frameless tool window that
// closes (and deletes) itself after a while, or when clicked.
class TAvisoEmergente : public QFrame {
  Q_OBJECT

 public:
  TAvisoEmergente(const QString& texto, const QString& titulo, int icono,
                  const QString& detalle, int duracionMs, QWidget* padre = nullptr);

  QString texto() const;
  QString titulo() const;
  QString detalle() const;
  int icono() const { return icono_; }

 protected:
  void mousePressEvent(QMouseEvent* evento) override;

 private:
  QLabel* titulo_;
  QLabel* texto_;
  QLabel* detalle_;
  int icono_;
};

// Where the messages go. Texts arrive with '\n' line breaks. `propietario` is
// the object the caller passed (null allowed), kept as given.
class PresentadorMensajes {
 public:
  virtual ~PresentadorMensajes() = default;

  // Modal: return when the user has dismissed the box.
  virtual void error(QObject* propietario, const QString& texto, const QString& titulo) = 0;
  virtual void info(QObject* propietario, const QString& texto, const QString& titulo, int opcion) = 0;

  // Non-modal: returns at once. See Mensaje_Emergente for the arguments.
  virtual void emergente(QObject* propietario, const QString& texto, const QString& titulo,
                         const QString& posicion, int icono, const QString& detalle) = 0;

  // The wait window: muestra creates it (may return null when it cannot),
  // cambia replaces its text, cierra closes and deletes it. cambia and cierra
  // only receive live, non-null windows.
  virtual TVentanaEspera* muestra(QObject* propietario, const QString& texto) = 0;
  virtual void cambia(TVentanaEspera* ventana, const QString& texto) = 0;
  virtual void cierra(TVentanaEspera* ventana) = 0;
};

// The default presenter: QMessageBox for errors and information, a
// TAvisoEmergente for notices and a TVentanaEspera for waits. Windows are
// placed over the window of the owner when the owner is (or belongs to) a
// widget. Without a QApplication nothing can be shown: boxes and notices go
// to the Qt warning log and no wait window is created. An empty title shows
// the application name.
class PresentadorMensajesQt : public PresentadorMensajes {
 public:
  void error(QObject* propietario, const QString& texto, const QString& titulo) override;
  void info(QObject* propietario, const QString& texto, const QString& titulo, int opcion) override;
  void emergente(QObject* propietario, const QString& texto, const QString& titulo,
                 const QString& posicion, int icono, const QString& detalle) override;
  TVentanaEspera* muestra(QObject* propietario, const QString& texto) override;
  void cambia(TVentanaEspera* ventana, const QString& texto) override;
  void cierra(TVentanaEspera* ventana) override;

  // How long a pop-up notice stays (4 seconds unless changed).
  int duracionEmergente() const { return duracionEmergenteMs_; }
  void setDuracionEmergente(int ms) { duracionEmergenteMs_ = ms; }

  // A wait window takes every text at once, but what the user sees changes
  // at most once in this span (250 ms unless changed): a run that opens a
  // window per municipality and changes its text for every street would
  // otherwise spend most of its time showing and repainting. A window opened
  // or changed within the span is shown and painted when the span ends, if
  // the caller lets events run by then (a fetch does), or at its next
  // change; one closed before that is never shown. 0 shows every change.
  int intervaloPintura() const { return intervaloPinturaMs_; }
  void setIntervaloPintura(int ms) { intervaloPinturaMs_ = ms; }

 private:
  void pintaSiToca(TVentanaEspera* ventana);
  void muestraYPinta(TVentanaEspera* ventana, bool dejaPasarEventos);

  int duracionEmergenteMs_ = 4000;
  int intervaloPinturaMs_ = 250;
  QElapsedTimer ultimaPintura_;
  std::unique_ptr<QTimer> pendiente_;  // the end of the span, when a window waits for it
  QPointer<TVentanaEspera> ventanaPendiente_;
};

enum class TipoMensaje { Error, Info, Emergente, Muestra, Cambia, Cierra };

// One call that reached a RegistroMensajes.
struct MensajeRegistrado {
  TipoMensaje tipo = TipoMensaje::Error;
  QObject* propietario = nullptr;  // as passed; for comparison only, it may be gone
  QString titulo;                 // Error, Info, Emergente
  QString texto;                  // the text shown; for Cierra, the last text of the window
  int opcion = 0;                 // Info: the option; Emergente: the icon kind
  QString posicion;               // Emergente: third text
  QString detalle;                // Emergente: fourth text
  TVentanaEspera* ventana = nullptr;  // Muestra, Cambia, Cierra
};

// A presenter that records every call instead of showing anything. Wait
// windows are real TVentanaEspera objects that are never shown, so handles
// behave as with the default presenter. Install it with
// PresentadorMensajesTemporal for the span of a test.
class RegistroMensajes : public PresentadorMensajes {
 public:
  RegistroMensajes() = default;
  ~RegistroMensajes() override;
  RegistroMensajes(const RegistroMensajes&) = delete;
  RegistroMensajes& operator=(const RegistroMensajes&) = delete;

  void error(QObject* propietario, const QString& texto, const QString& titulo) override;
  void info(QObject* propietario, const QString& texto, const QString& titulo, int opcion) override;
  void emergente(QObject* propietario, const QString& texto, const QString& titulo,
                 const QString& posicion, int icono, const QString& detalle) override;
  TVentanaEspera* muestra(QObject* propietario, const QString& texto) override;
  void cambia(TVentanaEspera* ventana, const QString& texto) override;
  void cierra(TVentanaEspera* ventana) override;

  const QList<MensajeRegistrado>& mensajes() const { return mensajes_; }
  QList<MensajeRegistrado> deTipo(TipoMensaje tipo) const;
  int cuenta(TipoMensaje tipo) const;
  bool vacio() const { return mensajes_.isEmpty(); }
  const MensajeRegistrado& ultimo() const { return mensajes_.last(); }  // not on an empty record
  // Texts of the calls of one kind, in order.
  QStringList textos(TipoMensaje tipo) const;
  void limpia() { mensajes_.clear(); }

 private:
  void registra(MensajeRegistrado mensaje) { mensajes_.append(std::move(mensaje)); }

  QList<MensajeRegistrado> mensajes_;
  QList<QPointer<TVentanaEspera>> ventanas_;  // created here and still open
};

// Installs a presenter (not owned) and returns the one it replaces; null puts
// back the default Qt presenter.
PresentadorMensajes* EstablecePresentadorMensajes(PresentadorMensajes* presentador);
// The presenter in use (never null).
PresentadorMensajes* PresentadorMensajesActual();

// Uses a presenter while it lives, then puts the previous one back.
class PresentadorMensajesTemporal {
 public:
  explicit PresentadorMensajesTemporal(PresentadorMensajes* presentador)
      : anterior_(EstablecePresentadorMensajes(presentador)) {}
  ~PresentadorMensajesTemporal() { EstablecePresentadorMensajes(anterior_); }
  PresentadorMensajesTemporal(const PresentadorMensajesTemporal&) = delete;
  PresentadorMensajesTemporal& operator=(const PresentadorMensajesTemporal&) = delete;

 private:
  PresentadorMensajes* anterior_;
};

// The host's "\r" and "\r\n" line breaks as '\n'.
QString SaltosDeLinea(const QString& texto);

// Modal error box; returns when dismissed.
void Mensaje_Error(QObject* propietario, const QString& texto, const QString& titulo);

// Modal information box; returns when dismissed. The option is kept for the
// host's sake (it passes 0); any value shows the same box with one OK button.
void Mensaje_Info(QObject* propietario, const QString& texto, const QString& titulo, int opcion = 0);

// Non-modal pop-up notice that goes away by itself after a few seconds.
// - posicion: where it appears. "C" centres it over the owner's window (the
//   screen when there is none); "H" -- what the host passes -- and anything
//   else put it at the bottom centre of that area. Case is ignored.
// - icono: an IconoMensaje (1 error, 2 warning, 3 question, 4 information;
//   other values show no icon).
// - detalle: a smaller second line under the text; empty for none.
void Mensaje_Emergente(QObject* propietario, const QString& texto, const QString& titulo,
                       const QString& posicion, int icono, const QString& detalle);

// Opens the wait window with a text and returns its handle (null when no
// window can be shown). The owner may be null.
TVentanaEspera* MuestraMensaje(const QString& texto, QObject* propietario = nullptr);
// Replaces the text of the wait window and paints it at once, so it shows
// during a long loop. A null or already closed handle is ignored.
void CambiaMensaje(const QString& nuevo, TVentanaEspera* ventana);
// Closes and deletes the wait window. A null or already closed handle is ignored.
void CierraMensaje(TVentanaEspera* ventana);
