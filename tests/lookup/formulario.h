// A host form for the controller's tests: the controls Zelmor hands over,
// laid out on a shown window (offscreen), and a reference set to open.
#pragma once

#include <QComboBox>
#include <QLineEdit>
#include <QStatusBar>
#include <QTableView>
#include <QWidget>
#include <memory>

#include "lookup/ClaseCodPostales.h"
#include "lookup/CodPostalesDM.h"
#include "platform/TLMDMessageHint.h"
#include "support/referencia.h"
#include "support/temp_dir.h"

namespace testsupport {

struct Formulario {
  Formulario();
  ~Formulario();

  // A controller bound to every control, in street mode, no defaults.
  std::unique_ptr<TClaseCodPostales> creaControlador(const QString& alias, bool postales = true);
  // The same, bound through Carga so it also has the province balloon.
  std::unique_ptr<TClaseCodPostales> creaControladorConGlobo(const QString& alias);
  // Chooses a province in the combo and leaves it, as a user would.
  void eligeProvincia(const QString& texto);
  // Types into an edit that has the focus, key by key.
  static void teclea(QWidget* control, const QString& texto);
  // Gives the focus to a control as a user's Tab would, and lets the
  // events arrive.
  static void enfoca(QWidget* control);

  QWidget ventana;
  QWidget* panelBotones;
  QStatusBar* barraEstado;
  QComboBox* pais;
  QComboBox* provincia;
  QLineEdit* localidad;
  QTableView* rejillaLocalidad;
  QLineEdit* domicilio;
  QTableView* rejillaDomicilio;
  QLineEdit* numero;
  QLineEdit* codPostal;
  QLineEdit* codIne;
  QComboBox* tipoVia;
  QWidget* otroControl;
  TLMDMessageHint* globo;
};

// A container class the host's forms use; the grid placement stops at it.
class TLMDFormDisplay : public QWidget {
  Q_OBJECT
 public:
  using QWidget::QWidget;
};

// Counts the Home key-downs a widget receives.
class ContadorTeclaInicio : public QObject {
  Q_OBJECT
 public:
  explicit ContadorTeclaInicio(QWidget* control);
  int cuenta = 0;

 protected:
  bool eventFilter(QObject* watched, QEvent* event) override;
};

// Appends a place to MUNICIPI.DBF through one of the controller's cursors.
struct Municipio {
  QString codIne, nombre, codProv, codPostal;
  bool entidadMenor = false;
};
void anadeMunicipio(TTable* municipios, const Municipio& m);

// Municipality or street names of a table's view, in order.
QStringList nombres(TTable* tabla, const char* campo);

}  // namespace testsupport
