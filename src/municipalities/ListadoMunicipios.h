// TFListadoMunicipios: the modal list in which the user finds a municipality
// by name, postcode or INE code within a province and confirms it. It owns a
// controller bound to its province combo and its three search edits, so the
// province filter and the locality completion behave as on the host's forms.
// IMunicipios (IMunicipios.h) shows it and hands back the codes.
#pragma once

#include <QDialog>
#include <QString>

class QComboBox;
class QGroupBox;
class QLineEdit;
class QPushButton;
class QStatusBar;
class QTableView;
class TClaseCodPostales;
class TEventosControles;

class TFListadoMunicipios : public QDialog {
  Q_OBJECT
 public:
  // What "Importar vías de la web" opens. The street import sits above this
  // dialog (it asks the user for municipalities through IMunicipios), so it
  // hands the list its opener when the library loads instead of the list
  // reaching up for it. Without one the button does nothing.
  using TAbreImportacionVias = void (*)(QWidget* AOwner, const QString& psAlias);
  static void RegistraImportacionVias(TAbreImportacionVias abre);

  // Creates the form and its controller on the alias, and chooses the
  // province by name (which filters the list to it).
  TFListadoMunicipios(QWidget* AOwner, const QString& psAlias, bool pbModuloCodigosPostales,
                      const QString& psProvincia);
  ~TFListadoMunicipios() override;

  // Controls.
  QGroupBox* advGBBusqueda;
  QComboBox* advCBProvincia;
  QLineEdit* advELocalidad;
  QLineEdit* advECodPostal;
  QLineEdit* advECodINE;
  QTableView* DBGListadoMunicipios;
  QPushButton* advGBImportarVias;
  QPushButton* advGBAceptar;
  QPushButton* advGBCancelar;
  QWidget* advPBotones;
  QStatusBar* sbEstado;

  TClaseCodPostales* oClaseCodPostales = nullptr;
  QString sAlias;

  // The chosen municipality, filled by advGBAceptarClick.
  QString sCodProv;
  QString sCodMun;
  QString sCodIne;
  QString sCodPostal;
  QString sNombre;

  // Handlers.
  void FormShow();
  void FormResize();
  void FormClose();
  void FormKeyDown(int& Key);
  void TomaFoco(QObject* Sender);
  void DejaFoco(QObject* Sender);
  void TomaFocoBoton(QObject* Sender);
  void DejaFocoBoton(QObject* Sender);
  void advGBAceptarClick();
  void DBGListadoMunicipiosDblClick();
  void advGBImportarViasClick();
  void advELocalidadKeyUp(QObject* Sender, int& Key);

 protected:
  void showEvent(QShowEvent* event) override;
  void resizeEvent(QResizeEvent* event) override;
  void closeEvent(QCloseEvent* event) override;
  void done(int resultado) override;
  bool eventFilter(QObject* watched, QEvent* event) override;

 private:
  void CreaControles();
  TEventosControles* oEventos = nullptr;
};
