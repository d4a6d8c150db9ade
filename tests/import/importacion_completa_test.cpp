// The import as a user does it, on the real dialog against the simulator:
// search a municipality's streets, choose the host's province and
// municipality, save, and read the street table back with the engine and
// with python3-dbfread; save again; and a municipality with several
// postcodes, which takes the review path instead.
#include <QApplication>
#include <QComboBox>
#include <QLabel>
#include <QPushButton>
#include <QRadioButton>
#include <QTest>
#include <gtest/gtest.h>
#include <memory>
#include <set>

#include "dialogo_comun.h"
#include "guarda_comun.h"
#include "import/ImportarVias.h"
#include "lookup/ClaseCodPostales.h"
#include "platform/TStringGrid.h"
#include "support/tables.h"

using guarda::Fila;
using testsupport::EntornoTemporal;
using testsupport::TempDir;

namespace {

class ImportacionCompleta : public testsupport::DialogoImportarTest {
 protected:
  void SetUp() override {
    // The host's tables: no "Postales" folder and an empty POSTAL.DBF, so
    // the import's codes start from the beginning.
    testsupport::OpcionesReferencia opciones;
    opciones.postales = false;
    testsupport::escribeJuegoDeReferencia(ref_.path(), opciones);
    testsupport::makeTable(ref_.path(), "POSTAL.DBF", testsupport::camposCalle(), {});
    // The service's streets come from a full reference set of their own.
    testsupport::escribeJuegoDeReferencia(calles_.path());
  }

  void arrancaServicio() {
    simulador = std::make_unique<testsupport::SimuladorOvc>(
        QStringList{QStringLiteral("--calles"), QString::fromStdString(calles_.path())});
    url_ = std::make_unique<EntornoTemporal>("CODPOSTALES_OVC_URL", simulador->url().toUtf8());
  }

  std::unique_ptr<TFImportarVias> abreConControlador() {
    controlador = std::make_unique<TClaseCodPostales>(nullptr, alias(), true, QString());
    auto d = std::make_unique<TFImportarVias>(nullptr, controlador.get());
    d->show();
    QApplication::setActiveWindow(d.get());
    (void)QTest::qWaitForWindowActive(d.get());
    QApplication::processEvents();
    return d;
  }

  // Mode 2: the service's province and municipality, then the search.
  void Busca(TFImportarVias* d, const QString& provincia, const QString& municipio) {
    elige(d->CBProvincias, provincia);
    enfoca(d->CBProvincias);
    tabula();  // leaving the province loads its municipalities
    d->CBMunicipios->hidePopup();
    elige(d->CBMunicipios, municipio);
    pulsa(d->advGBBuscarViasPorMunicipio);
  }

  // The host's province, left with Tab so its municipalities load, then the
  // municipality.
  void EligeDelPrograma(TFImportarVias* d, const QString& provincia, const QString& municipio) {
    elige(d->CBProvinciasZelmor, provincia);
    enfoca(d->CBProvinciasZelmor);
    tabula();
    elige(d->CBMunicipiosZelmor, municipio);
  }

  std::vector<Fila> Calles() const { return guarda::leeTabla(ref_.file("POSTAL.DBF")); }

  TempDir calles_;
  std::unique_ptr<TClaseCodPostales> controlador;
};

TEST_F(ImportacionCompleta, StreetsSearchedAndSavedAreInTheStreetTableOnceWithTheirFieldsAndCodes) {
  REQUIERE_DATOS_COMPARTIDOS();
  arrancaServicio();
  auto d = abreConControlador();
  pulsa(d->RBUno);
  Busca(d.get(), QStringLiteral("A CORUÑA"), QStringLiteral("SOBRADO"));
  const int vias = d->SGVias->RowCount() - 1;
  ASSERT_GE(vias, 3);
  ASSERT_EQ(d->LMensaje_->text(), QStringLiteral("Se han encontrado %1 vías").arg(vias));
  // The host spells the province CORUÑA (A): nothing was chosen for it.
  EXPECT_EQ(d->CBProvinciasZelmor->currentIndex(), -1);
  EligeDelPrograma(d.get(), QStringLiteral("CORUÑA (A)"), QStringLiteral("SOBRADO"));
  mensajes.limpia();
  pulsa(d->advGBGuardarPorMunicipio);

  ASSERT_EQ(mensajes.textos(TipoMensaje::Info),
            QStringList{QStringLiteral("Se han importado %1 calles al módulo de Códigos Postales").arg(vias)});
  const std::vector<Fila> filas = Calles();
  ASSERT_EQ(int(filas.size()), vias);
  std::set<QString> nombres;
  for (int i = 0; i < vias; ++i) {
    const Fila& f = filas[size_t(i)];
    const QString via = d->SGVias->Cells(1, i + 1);
    EXPECT_EQ(f["VIA"], via);
    EXPECT_EQ(f["TIPO_VIA"], d->SGVias->Cells(0, i + 1));
    EXPECT_EQ(f["NOMBRE_2"], via.toLower());
    EXPECT_EQ(f["PROVINCIA"], "15");
    EXPECT_EQ(f["CAPITAL"], "9");
    EXPECT_EQ(f["CODPOSTAL"], "15960");
    EXPECT_EQ(f["MUNICIPI"], "SOBRADO");
    EXPECT_EQ(f["COD_INE"], "15079");
    EXPECT_EQ(f["IMPAR_INI"], "1");
    EXPECT_EQ(f["IMPAR_FIN"], "9999");
    EXPECT_EQ(f["PAR_INI"], "2");
    EXPECT_EQ(f["PAR_FIN"], "9998");
    EXPECT_EQ(f["CODIGO1"], QString::number(99000000 + i));
    nombres.insert(via);
  }
  EXPECT_EQ(int(nombres.size()), vias) << "each street once";

  std::string error;
  const std::vector<Fila> leidas = guarda::leeConDbfread(ref_.file("POSTAL.DBF"), error);
  ASSERT_TRUE(error.empty()) << error;
  ASSERT_EQ(leidas.size(), filas.size());
  for (size_t i = 0; i < filas.size(); ++i) {
    EXPECT_EQ(leidas[i]["VIA"], filas[i]["VIA"]);
    EXPECT_EQ(leidas[i]["CODIGO1"], filas[i]["CODIGO1"]);
    EXPECT_EQ(leidas[i]["CODPOSTAL"], filas[i]["CODPOSTAL"]);
    EXPECT_EQ(leidas[i]["IMPAR_FIN"], filas[i]["IMPAR_FIN"]);
  }

  mensajes.limpia();
  pulsa(d->advGBGuardarPorMunicipio);
  EXPECT_EQ(mensajes.textos(TipoMensaje::Info),
            QStringList{QStringLiteral("Se han importado 0 calles al módulo de Códigos Postales")});
  EXPECT_EQ(Calles().size(), filas.size()) << "a second save stores nothing";
}

TEST_F(ImportacionCompleta, MunicipalityWithSeveralPostcodesOnlyReviewsStreetTypes) {
  REQUIERE_DATOS_COMPARTIDOS();
  arrancaServicio();
  auto d = abreConControlador();
  pulsa(d->RBUno);
  Busca(d.get(), QStringLiteral("MADRID"), QStringLiteral("GETAFE"));
  ASSERT_GE(d->SGVias->RowCount(), 2);
  ASSERT_FALSE(d->SGVias->Cells(1, 1).isEmpty());
  // MADRID is spelt alike on both sides: the host's province and municipality are chosen already.
  ASSERT_EQ(d->CBProvinciasZelmor->currentText(), QStringLiteral("MADRID"));
  ASSERT_EQ(d->CBMunicipiosZelmor->currentText(), QStringLiteral("GETAFE"));
  mensajes.limpia();
  pulsa(d->advGBGuardarPorMunicipio);
  EXPECT_TRUE(Calles().empty()) << "no street is added";
  EXPECT_EQ(mensajes.textos(TipoMensaje::Info),
            QStringList{QStringLiteral("Se han importado 0 calles al módulo de Códigos Postales")});
}

}  // namespace
