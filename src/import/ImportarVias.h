// TFImportarVias: the modal dialog that imports street names into the
// street tables. It fetches provinces, municipalities and streets from the
// cadastre's street-directory service OVCCallejero (or reads saved answers
// and postcode text files), shows the streets in SGVias and appends them to
// the street table of the host's municipality chosen in the two Zelmor
// combos, through the bare controller it is given.
//
// The implementation is split by concern:
//   ImportarVias.cpp            the form: controls, modes, focus and keys
//   ImportarViasServicio.cpp    the service client: requests and answers
//   ImportarViasListas.cpp      the selection lists and the search buttons
//   ImportarViasGuarda.cpp      storing the grid's streets
//   ImportarViasProvincia.cpp   the runs over saved answers of whole provinces
//   ImportarViasFicheroCP.cpp   the postcode text files of mode 1 (read by
//                               FicheroCodigosPostales.h)
#pragma once

#include <QDialog>
#include <QString>
#include <QStringList>
#include <functional>

class QComboBox;
class QGroupBox;
class QLabel;
class QMenu;
class QAction;
class QPushButton;
class QRadioButton;
class QStatusBar;
class TClaseCodPostales;
class TEventosControles;
class THTTPReqResp;
class TStringGrid;
class TVentanaEspera;
class TXMLDocument;

class TFImportarVias : public QDialog {
  Q_OBJECT

 public:
  // The controller may be null when the dialog only fetches from the
  // service (give it sAlias then, for the host's lists and saved answers);
  // storing streets needs it.
  TFImportarVias(QWidget* AOwner, TClaseCodPostales* poCodPostales);
  ~TFImportarVias() override;

  // Components, top to bottom.
  QGroupBox* GBModo;
  QRadioButton* RBMasDeUno;
  QRadioButton* RBUno;
  QRadioButton* RBTodosConUno;
  QGroupBox* GBDatosBusqueda;
  QLabel* LProvincia_;
  QComboBox* CBProvincias;
  QLabel* LMunicipio_;
  QComboBox* CBMunicipios;
  QPushButton* advGBBuscarViasPorMunicipio;
  QPushButton* advGBBuscarViasPorProvincia;
  QPushButton* advGBGuardarPorProvincia;
  TStringGrid* SGVias = nullptr;
  QGroupBox* GBDatosZelmor;
  QLabel* LProvinciaZelmor_;
  QComboBox* CBProvinciasZelmor;
  QLabel* LMunicipioZelmor_;
  QComboBox* CBMunicipiosZelmor;
  QPushButton* advGBGuardarPorMunicipio;
  QWidget* advPBotones;
  QStatusBar* sbEstado;
  QLabel* LMensaje_;
  QPushButton* advGBCancelar;
  QMenu* PMGuardarPorProvincia;
  QAction* MIGuardarPorProvincia;
  THTTPReqResp* HTTPWebServices;
  TXMLDocument* XML;

  TVentanaEspera* oFormMensaje = nullptr;
  TClaseCodPostales* oCodPostales;
  // The alias whose folder holds the "POSTAL" folder: the controller's. A
  // dialog used only as the service's client (no controller) is given one.
  QString sAlias;
  bool bPorProvincias = false;
  // What the last GuardaVias stored: rows appended, or on the review path
  // street types filled in (the count its final message gives).
  int nViasImportadas = 0;
  // Answers saved under POSTAL/ since the dialog opened.
  int nRespuestasGuardadas = 0;

  // The service client. pnIntento is the attempt (callers pass 0); a
  // transport failure retries up to six attempts in all.
  bool TraeProvincias(int pnIntento);
  bool TraeMunicipios(int pnIntento);
  bool TraeVias(int pnIntento, const QString& psProvincia, const QString& psMunicipio);
  bool CargaProvincias();
  bool CargaMunicipios();
  bool CargaVias();

  // Form handlers.
  void FormShow();
  void FormResize();
  // The grid's fixed column widths are given at the host's usual font; with
  // the font in use they are this many times wider (never narrower).
  double EscalaColumnas() const;
  int AnchoEscalado(int piAnchoAnfitrion) const;
  void FormClose();
  void FormKeyDown(int& Key);
  void TomaFoco(QObject* Sender);
  void DejaFoco(QObject* Sender);
  void TomaFocoBoton(QObject* Sender);
  void DejaFocoBoton(QObject* Sender);
  void RBMasDeUnoClick(QObject* Sender);

  // Selection lists and searches.
  void CBProvinciasExit(QObject* Sender);
  void CBProvinciasZelmorExit(QObject* Sender);
  void advGBBuscarViasPorMunicipioClick();
  void advGBBuscarViasPorProvinciaClick();
  void LimpiaDatos(bool pbLimbiarCombos);
  void CargaMunicipiosUnCodigo();
  void CargaMunicipiosMasDeUnCodigo();
  void CargaProvinciasZelmor();
  void LiberaProvinciasZelmor();
  void LiberaMunicipiosZelmor();
  static QString ConvierteProvincia(const QString& psProvincia);
  int Indice(QComboBox* poCombo, const QString& psTexto) const;
  // Mode 1: the municipality an entry of CBProvincias names -- the text after
  // its first "-" (the whole entry without one), trimmed, "_" read as "/".
  static QString MunicipioDeEntradaCP(const QString& psEntrada);

  // Storing the grid's streets.
  void advGBGuardarPorMunicipioClick();
  void GuardaVias();
  bool CompruebaMunicipioConUnicoCP();

  // Runs over saved answers.
  void advGBGuardarPorProvinciaClick();
  void MIGuardarPorProvinciaClick();
  // Who picks the host's municipality for a saved answer whose name matches
  // none: IMunicipios with this title, the host's province name and the
  // municipality's name; true with both chosen. A caller without a user
  // (the command line) puts its own here.
  std::function<bool(const QString& psTitulo, QString& psProvincia, QString& psMunicipio)> PreguntaMunicipio;
  // What the last run over saved answers did, for callers that report it.
  struct TResumenGuardado {
    int nFicheros = 0;            // answers looked at
    int nMunicipiosGuardados = 0;  // single-postcode municipalities stored
    int nViasGuardadas = 0;        // street rows appended
    int nVariosCodigos = 0;        // skipped: several postcodes
    QStringList lSinMunicipio;     // no host municipality matched or chosen
    QStringList lIlegibles;        // answers that could not be read
  };
  TResumenGuardado oResumenGuardado;

  // Mode 1: the postcode text file of the municipality in CBProvincias.
  bool ImportarViasMasUnCodigo();

  // The "POSTAL" folder under the folder of the controller's alias.
  QString CarpetaPostal() const;
  // TempCalles.XML in the executable's folder (the user's cache folder when
  // that one cannot be written).
  static QString RutaTempCalles();

 protected:
  void changeEvent(QEvent* event) override;
  void showEvent(QShowEvent* event) override;
  void resizeEvent(QResizeEvent* event) override;
  void closeEvent(QCloseEvent* event) override;
  void done(int resultado) override;
  bool eventFilter(QObject* watched, QEvent* event) override;

 private:
  void CreaControles();
  // Saves the answer in the XML document as POSTAL/<province>/<name>.xml.
  void GuardaRespuesta(const QString& psProvincia, const QString& psMunicipio);
  // The body of the runs over saved answers, for the files of one province.
  void GuardaFicherosDeProvincia(const QStringList& plFicheros);
  // The province and municipality loaders: the names of a list's entries.
  bool CargaLista(QComboBox* poCombo, const QString& psTextoEspera, const QString& psCuenta, const QString& psLista,
                  const char* psNombre);
  // The loaders' frame: runs the walk, turns its faults into false.
  bool RecorreRespuesta(const QString& psTextoEspera, const std::function<void()>& recorrido);
  void AsignaManejadores();
  void CierraFormMensaje();
  // The grid's seven columns of mode 1: type, name, postcode and the four
  // number ranges, with their titles and widths.
  void ColumnasMasDeUno();
  // The width rule of the grid's name column for the mode in force.
  void AjustaColumnas();
  // The widths of the columns other than the name's, for the font in use.
  void AnchosFijos();
  TEventosControles* oEventos = nullptr;
  QRadioButton* oModoEnCurso = nullptr;  // the mode the lists were last loaded for
};
