// TClaseCodPostales: the address look-up controller a host screen creates to
// turn its own controls (country, province, locality with its results grid,
// street with its grid, number, postcode, INE code, street type) into an
// address-entry assistant. It owns its reference tables (TDMCodPostales) and
// two timers; the host owns the controls, which are never freed here.
//
// The implementation is split by concern:
//   ClaseCodPostales.cpp          construction, binding, focus, timers
//   ClaseCodPostalesTablas.cpp    opening, closing and filtering the tables
//   ClaseCodPostalesListas.cpp    the country, province and street-type lists
//   ClaseCodPostalesLocalidad.cpp the locality search and its handlers
//   ClaseCodPostalesDomicilio.cpp the street and number search and handlers
//   ClaseCodPostalesCarga.cpp     writing an address into the controls
//
// Every control may be absent (null). Engine errors are not caught: they
// reach the host.
#pragma once

#include <QList>
#include <QObject>
#include <QPointer>
#include <QString>
#include <memory>
#include <stdexcept>

#include "lookup/SugerenciasLocalidad.h"

class QComboBox;
class QLineEdit;
class QTableView;
class QTimer;
class QWidget;
class TDataSource;
class TField;
class TDMCodPostales;
class TEventosControles;
class TLMDMessageHint;

class TClaseCodPostales {
 public:
  // Without controls: searches only (the dialogs use it). Opens the tables.
  TClaseCodPostales(QObject* AOwner, const QString& psAlias, bool pbPostales, const QString& psDefectoCodINE);
  // Bound to the host's controls, with a default address to show.
  TClaseCodPostales(QObject* AOwner, const QString& psAlias, bool pbPostales, QWidget* poadvPBotones,
                    QComboBox* poadvCBProvincia, QLineEdit* poadvELocalidad, QTableView* poDBGLocalidad,
                    QLineEdit* poadvEDomicilio, QTableView* poDBGDomicilio, QLineEdit* poadvENumero,
                    QLineEdit* poadvECodPostal, QLineEdit* poadvECodINE, QComboBox* poadvCBTipoVia,
                    QComboBox* poadvCBPais, QWidget* poControlSiguienteAlDBGLocalidad,
                    QWidget* poControlSiguienteAlDBGDomicilio, const QString& psDefectoCodProvincia,
                    const QString& psDefectoLocalidad, const QString& psDefectoCodINE,
                    const QString& psDefectoCodPostal);
  // DestroyClassCodPostal: stops the timers, closes the tables.
  ~TClaseCodPostales();
  TClaseCodPostales(const TClaseCodPostales&) = delete;
  TClaseCodPostales& operator=(const TClaseCodPostales&) = delete;

  // Binds (or binds again) to a set of controls.
  void Carga(QWidget* poadvPBotones, QComboBox* poadvCBProvincia, QLineEdit* poadvELocalidad,
             QTableView* poDBGLocalidad, QLineEdit* poadvEDomicilio, QTableView* poDBGDomicilio,
             QLineEdit* poadvENumero, QLineEdit* poadvECodPostal, QLineEdit* poadvECodINE,
             QComboBox* poadvCBTipoVia, QComboBox* poadvCBPais, QWidget* poControlSiguienteAlDBGLocalidad,
             QWidget* poControlSiguienteAlDBGDomicilio, TLMDMessageHint* poLMDMHProvincias,
             const QString& psDefectoCodProvincia, const QString& psDefectoLocalidad,
             const QString& psDefectoCodINE, const QString& psDefectoCodPostal);

  // Shared focus handlers and the balloon's timer.
  void TomaFoco(QObject* Sender);
  void DejaFoco(QObject* Sender);
  void TMensajesTimer(QObject* Sender);

  // Tables.
  void AbreTablas();
  void CierraTablas();
  void ActualizaTablaPostal(const QString& psCodIne);
  void FiltraProvincias(const QString& psCodPais);
  void FiltraLocalidades(const QString& psCodProv);
  bool FiltraVias(const QString& psCodIne, const QString& psNombre);
  bool FiltraVias(const QString& psCodIne);

  // Country, province and street-type lists. A null combo means the
  // controller's own.
  void CargaPaises(QComboBox* poadvPaises = nullptr);
  void CargaProvincias(QComboBox* poadvProvincias = nullptr);
  void CargaTiposVia(QComboBox* poadvTipo_Vias = nullptr);
  void DescargaPaises(QComboBox* poadvPaises = nullptr);
  void DescargaProvincias(QComboBox* poadvProvincias = nullptr);
  bool BuscaPaisPorCodigo(const QString& psCodPais, bool pbExacto);
  bool BuscaPaisPorNombre(const QString& psPais, bool pbExacto);
  bool BuscaProvinciaPorCodigo(const QString& psCodProv, bool pbExacto);
  bool BuscaProvinciaPorNombre(const QString& psProvincia, bool pbExacto);
  int BuscaEnPaisPorCodigo(const QString& psCodPais, QComboBox* poadvPaises = nullptr);
  // Walks one item past the end when nothing matches, as the host's list
  // did: that ends in EListError.
  int BuscaEnPaisPorNombre(const QString& psPais, QComboBox* poadvPaises = nullptr);
  int BuscaEnProvinciaPorCodigo(const QString& psCodProv, QComboBox* poadvProvincias = nullptr,
                                QComboBox* poadvPaises = nullptr);
  int BuscaEnProvinciaPorNombre(const QString& psProvincia, QComboBox* poadvProvincias = nullptr);
  int BuscaEnTipoViaPorCodigo(const QString& psCodTipoVia, QComboBox* poadvTipo_Vias = nullptr);
  QString DevuelveCodPais(QComboBox* poadvPaises = nullptr);
  QString DevuelveCodProv(QComboBox* poadvProvincias = nullptr);
  void advCBPaisExit(QObject* Sender);
  void advCBProvinciaExit(QObject* Sender);

  // Locality search. The searches leave TMunicipi on the row found.
  bool BuscaLocalidadPorNombre(const QString& psNombre, bool pbExacto);
  bool BuscaLocalidadPorCodPostal(const QString& psCodPostal, bool pbExacto);
  bool BuscaLocalidadPorCodIne(const QString& psCodIne, bool pbExacto);
  bool BuscaLocalidadPorCodMun(const QString& psCodProvincia, const QString& psCodMun);
  // "LA ROSA" as the reference tables write it, "ROSA (LA)", cut exactly
  // as the host always cut it (see the definition).
  static QString NombreMunicipioConParentesis(const QString& psNombreMunicipio);
  void BuscaLocalidad();
  // Ranked candidates for a locality the strict search does not find,
  // tolerant of accents, articles and one or two typos, from every province
  // (SugerenciasLocalidad.h). Changes no control and moves no table.
  QList<SugerenciaLocalidad> SugiereLocalidades(const QString& texto, int maximo);
  void advELocalidadEnter(QObject* Sender);
  void advELocalidadExit(QObject* Sender);
  void advELocalidadKeyDown(QObject* Sender, int& Key, Qt::KeyboardModifiers Shift);
  void advELocalidadKeyUp(QObject* Sender, int& Key, Qt::KeyboardModifiers Shift);
  void DBGLocalidadExit(QObject* Sender);
  void DBGLocalidadKeyDown(QObject* Sender, int& Key, Qt::KeyboardModifiers Shift);
  void DBGLocalidadMouseDown(QObject* Sender, Qt::MouseButton Button, Qt::KeyboardModifiers Shift, int X, int Y);
  void DBGLocalidadDblClick(QObject* Sender);

  // Street and number search.
  bool BuscaDomicilioPorVia(const QString& psVia, const QString& psProvincia, const QString& psTipoVia,
                            bool pbExacto);
  // A municipality's postcode / INE code by its name and province code,
  // without moving the tables on screen; empty when none matches.
  QString BuscaCodPostal(const QString& psLocalidad, const QString& psCodProvincia);
  QString BuscaCodIne(const QString& psLocalidad, const QString& psCodProvincia);
  // The street's accented name (NOMBRE_2) into psNombreAcentos; false when
  // the street is not found or the street table is closed (the user is told).
  bool BuscaDomicilioAcentos(const QString& psVia, QString& psNombreAcentos);
  void TDomicilioTimer(QObject* Sender);
  void advEDomicilioEnter(QObject* Sender);
  void advEDomicilioExit(QObject* Sender);
  void advEDomicilioKeyDown(QObject* Sender, int& Key, Qt::KeyboardModifiers Shift);
  void advEDomicilioKeyUp(QObject* Sender, int& Key, Qt::KeyboardModifiers Shift);
  void DBGDomicilioExit(QObject* Sender);
  void DBGDomicilioKeyDown(QObject* Sender, int& Key, Qt::KeyboardModifiers Shift);
  void DBGDomicilioMouseDown(QObject* Sender, Qt::MouseButton Button, Qt::KeyboardModifiers Shift, int X, int Y);
  void DBGDomicilioDblClick(QObject* Sender);
  void advENumeroExit(QObject* Sender);

  // Writing an address into the controls, as if the user had typed it.
  void CargaEnComponentes(const QString& psCodProvincia, const QString& psProvincia, const QString& psLocalidad,
                          const QString& psCod_INE, const QString& psCodPostal, const QString& psTipoVia,
                          const QString& psDomicilio, const QString& psNumero);
  void CargaEnComponentes(const QString& psPais, const QString& psProvincia, const QString& psLocalidad);

  // Fields, in their declared order.
  QObject* Owner = nullptr;
  QComboBox* oadvCBProvincia = nullptr;
  QLineEdit* oadvELocalidad = nullptr;
  QTableView* oDBGLocalidad = nullptr;
  QLineEdit* oadvEDomicilio = nullptr;
  QTableView* oDBGDomicilio = nullptr;
  QLineEdit* oadvENumero = nullptr;
  QLineEdit* oadvECodPostal = nullptr;
  QLineEdit* oadvECodINE = nullptr;
  QComboBox* oadvCBTipoVia = nullptr;
  QComboBox* oadvCBPais = nullptr;
  QWidget* oadvPBotones = nullptr;
  QWidget* oControlSiguienteAlDBGLocalidad = nullptr;
  QWidget* oControlSiguienteAlDBGDomicilio = nullptr;
  TLMDMessageHint* oLMDMHProvincias = nullptr;
  QTimer* oTDomicilio = nullptr;
  QTimer* oTMensajes = nullptr;
  QString sFiltroVias;
  bool bPostales = false;
  bool bDefectoPostal = false;
  QString sDefectoCodINE;
  QString sAlias;
  TDMCodPostales* oDataModule = nullptr;
  bool bHazCambioFoco = false;
  QString sMensajeProvincias;

 private:
  void CreaModuloDeDatos(QObject* AOwner, const QString& psAlias, bool pbPostales);
  void Enlaza(QWidget* poadvPBotones, QComboBox* poadvCBProvincia, QLineEdit* poadvELocalidad,
              QTableView* poDBGLocalidad, QLineEdit* poadvEDomicilio, QTableView* poDBGDomicilio,
              QLineEdit* poadvENumero, QLineEdit* poadvECodPostal, QLineEdit* poadvECodINE,
              QComboBox* poadvCBTipoVia, QComboBox* poadvCBPais, QWidget* poControlSiguienteAlDBGLocalidad,
              QWidget* poControlSiguienteAlDBGDomicilio, bool pbReutilizaTemporizadores,
              const QString& psDefectoCodProvincia, const QString& psDefectoLocalidad,
              const QString& psDefectoCodINE, const QString& psDefectoCodPostal);
  void AsignaManejadores();
  void ColocaRejilla(QLineEdit* edit, QTableView* rejilla, int columnaLibre);
  void CreaTemporizadores(bool pbReutiliza);
  void CargaValoresPorDefecto(const QString& psDefectoCodProvincia, const QString& psDefectoLocalidad,
                              const QString& psDefectoCodINE, const QString& psDefectoCodPostal);
  void LiberaTemporizador(QTimer*& temporizador);
  // What the destructor does: timers, event bindings, tables, data module.
  void Libera();
  void MuestraInicioDelTipoVia(QObject* Sender);
  QString CodigoProvinciaElegida() const;
  // Locality and street search helpers.
  static void Completa(QLineEdit* edit, const QString& completo);
  static void MuestraRejilla(QTableView* rejilla, bool visible);
  void EntraEnRejilla(QTableView* rejilla, int Key);
  void RellenaCodigosDeLocalidad();
  void ListaOtrasProvincias();
  void ResuelveOtrasProvincias();
  void FiltraCallesDeLocalidad();
  void FocoTrasLocalidad();
  void TomaLocalidadDeLaRejilla();
  void RellenaDatosDeVia();
  bool EditaLaViaActual() const;
  QString BuscaEnMunicipioAuxiliar(const QString& psLocalidad, const QString& psCodProvincia, TField* campo);
  void CargaLocalidad(const QString& psLocalidad);
  void CompruebaLocalidad() const;

  std::unique_ptr<TEventosControles> oEventos;
  // Built on the first suggestion, again when MUNICIPI.DBF grows.
  std::unique_ptr<TIndiceLocalidades> oIndiceLocalidades;
  int iFilasIndiceLocalidades = -1;
  // The data module and timers have the host's owner as parent, which may
  // free them first; these notice it.
  QPointer<TDMCodPostales> oDataModuleVivo;
  QPointer<QTimer> oTDomicilioVivo;
  QPointer<QTimer> oTMensajesVivo;
};

// The names the host creates and frees a controller by. The two creating
// forms take the constructors' arguments in the same order and return a
// controller the host frees with DestroyClassCodPostal (null does nothing).
// Errors opening the tables reach the caller, as from the constructors.
TClaseCodPostales* CreateClassCodPostal(QObject* AOwner, const QString& psAlias, bool pbPostales,
                                        const QString& psDefectoCodINE);
TClaseCodPostales* CreateClassCodPostal(QObject* AOwner, const QString& psAlias, bool pbPostales,
                                        QWidget* poadvPBotones, QComboBox* poadvCBProvincia,
                                        QLineEdit* poadvELocalidad, QTableView* poDBGLocalidad,
                                        QLineEdit* poadvEDomicilio, QTableView* poDBGDomicilio,
                                        QLineEdit* poadvENumero, QLineEdit* poadvECodPostal,
                                        QLineEdit* poadvECodINE, QComboBox* poadvCBTipoVia,
                                        QComboBox* poadvCBPais, QWidget* poControlSiguienteAlDBGLocalidad,
                                        QWidget* poControlSiguienteAlDBGDomicilio,
                                        const QString& psDefectoCodProvincia, const QString& psDefectoLocalidad,
                                        const QString& psDefectoCodINE, const QString& psDefectoCodPostal);
void DestroyClassCodPostal(TClaseCodPostales* poCodPostales);

// The failure of BuscaEnPaisPorNombre's walk past the end of the list, as
// the host's list classes report a bad index.
class EListError : public std::out_of_range {
 public:
  explicit EListError(int indice);
  int Indice;
};
