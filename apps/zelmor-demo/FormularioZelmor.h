// The address part of a Zelmor customer form: the host's own controls,
// handed to a TClaseCodPostales that turns them into an address assistant.
#pragma once

#include <QWidget>
#include <memory>

class QComboBox;
class QLineEdit;
class QPushButton;
class QStatusBar;
class QTableView;
class TClaseCodPostales;
class TLMDMessageHint;

class TFZelmor : public QWidget {
  Q_OBJECT
 public:
  explicit TFZelmor(const QString& alias, QWidget* parent = nullptr);
  ~TFZelmor() override;

  // Every control's text, one "label: text" line each, in form order.
  QStringList Textos() const;

  QString sAlias;
  QComboBox* advCBPais;
  QComboBox* advCBProvincia;
  QLineEdit* advELocalidad;
  QTableView* DBGLocalidad;
  QLineEdit* advEDomicilio;
  QTableView* DBGDomicilio;
  QLineEdit* advENumero;
  QLineEdit* advECodPostal;
  QLineEdit* advECodINE;
  QComboBox* advCBTipoVia;
  QWidget* advPBotones;
  QPushButton* advGBMunicipios;
  QPushButton* advGBImportarVias;
  QPushButton* advGBSalir;
  QStatusBar* sbEstado;
  TLMDMessageHint* LMDMHProvincias;
  // Created with CreateClassCodPostal, freed with DestroyClassCodPostal.
  TClaseCodPostales* oCodPostales = nullptr;

 private:
  void EligeMunicipio();
};
