// The municipality list dialog and IMunicipios, driven by keys and clicks.
#include <gtest/gtest.h>

#include <QApplication>
#include <QComboBox>
#include <QGroupBox>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QStatusBar>
#include <QTableView>
#include <QTest>
#include <QTimer>
#include <functional>

#include "import/ImportarVias.h"
#include "lookup/ClaseCodPostales.h"
#include "lookup/CodPostalesDM.h"
#include "municipalities/IMunicipios.h"
#include "municipalities/ListadoMunicipios.h"
#include "platform/ControlesHost.h"
#include "services/Rmensaje.h"
#include "support/referencia.h"
#include "support/temp_dir.h"
#include "../services/qstring_print.h"

using namespace testsupport;

namespace {

class ListadoTest : public ::testing::Test {
 protected:
  void SetUp() override { escribeJuegoDeReferencia(dir.path()); }
  QString alias() const { return QString::fromStdString(dir.path()); }

  // A shown dialog on the province, with the focus where the form put it.
  std::unique_ptr<TFListadoMunicipios> abre(const QString& provincia = "MADRID") {
    auto d = std::make_unique<TFListadoMunicipios>(nullptr, alias(), false, provincia);
    d->show();
    QApplication::setActiveWindow(d.get());
    (void)QTest::qWaitForWindowActive(d.get());
    QApplication::processEvents();
    return d;
  }
  static QString filaActual(TFListadoMunicipios& d) {
    return d.oClaseCodPostales->oDataModule->TMunicipiNOMBRE->AsString();
  }

  // Runs IMunicipios; `usuario` acts on the modal dialog once it is up.
  bool muestra(const std::function<void(TFListadoMunicipios*)>& usuario) {
    QTimer::singleShot(0, [&] {
      auto* d = qobject_cast<TFListadoMunicipios*>(QApplication::activeModalWidget());
      ASSERT_NE(d, nullptr);
      (void)QTest::qWaitForWindowActive(d);
      usuario(d);
    });
    return IMunicipios(nullptr, alias(), false, ine, cp, municipio, provincia, codProvincia, codMunicipio, "",
                       "Elija el municipio");
  }

  TempDir dir;
  QString ine = "ine", cp = "cp", municipio = "GETAFE", provincia = "MADRID", codProvincia = "prov",
          codMunicipio = "mun";
};

}  // namespace

TEST_F(ListadoTest, ControlsCarryTheirTextsHintsAndTags) {
  auto d = abre();
  EXPECT_EQ(d->advGBAceptar->text(), "&Seleccionar");
  EXPECT_EQ(d->advGBAceptar->toolTip(), "Selecciona el municipio marcado en el listado");
  EXPECT_EQ(d->advGBCancelar->text(), "&Cancelar");
  EXPECT_EQ(d->advGBCancelar->toolTip(), "Cierra el listado sin seleccionar a ningún cliente");
  EXPECT_EQ(d->advGBImportarVias->text(), "Importar vías de la web");
  EXPECT_EQ(d->advGBBusqueda->title(), "  Establezca los parámetros de búsqueda  ");
  EXPECT_EQ(d->advCBProvincia->toolTip(), "Seleccione la provincia de residencia");
  EXPECT_EQ(d->advELocalidad->toolTip(), "Indique la localidad de residencia");
  EXPECT_EQ(d->advECodPostal->toolTip(), "Código postal asociado a la dirección del cliente");
  EXPECT_EQ(d->advECodINE->toolTip(), "Código INE asociado al municipio de residencia");
  EXPECT_EQ(Tag(d->advELocalidad), 1);
  EXPECT_EQ(Tag(d->advECodPostal), 2);
  EXPECT_EQ(Tag(d->advECodINE), 3);
  EXPECT_EQ(d->windowTitle(), "Listado de municipios");
  QStringList titulos;
  for (int c = 0; c < d->DBGListadoMunicipios->model()->columnCount(); ++c)
    titulos << d->DBGListadoMunicipios->model()->headerData(c, Qt::Horizontal).toString();
  EXPECT_EQ(titulos, (QStringList{"Nombre", "Provincia", "Cod. Postal", "Cod. INE", "Pertenece a"}));
  EXPECT_EQ(d->DBGListadoMunicipios->selectionBehavior(), QAbstractItemView::SelectRows);
  for (const char* etiqueta : {"Provincia:", "Localidad:", "Código postal:", "Código INE:"}) {
    bool vista = false;
    for (auto* l : d->findChildren<QLabel*>()) vista = vista || l->text() == QString::fromUtf8(etiqueta);
    EXPECT_TRUE(vista) << etiqueta;
  }
}

TEST_F(ListadoTest, PlaceholderProvincesGiveWayToTheProvinceList) {
  auto d = abre();
  EXPECT_EQ(d->advCBProvincia->count(), 6);
  EXPECT_EQ(d->advCBProvincia->itemText(0), "");
  EXPECT_EQ(d->advCBProvincia->currentText(), "MADRID [28]");
  EXPECT_EQ(d->DBGListadoMunicipios->model()->rowCount(), 6);  // province 28 only
}

TEST_F(ListadoTest, WithAProvinceTheFocusStartsOnTheLocality) {
  auto d = abre();
  EXPECT_EQ(QApplication::focusWidget(), d->advELocalidad);
}

TEST_F(ListadoTest, ProvinceMatchingNoItemStaysUnchosen) {
  auto d = abre("ATLANTIDA");
  EXPECT_EQ(d->advCBProvincia->currentIndex(), 0);
  EXPECT_NE(QApplication::focusWidget(), d->advELocalidad);
  EXPECT_EQ(d->DBGListadoMunicipios->model()->rowCount(), 11);  // no province filter
}

TEST_F(ListadoTest, TypingInTheLocalityEditPositionsByName) {
  auto d = abre();
  QTest::keyClicks(d->advELocalidad, "GET");
  EXPECT_EQ(filaActual(*d), "GETAFE");
  QApplication::processEvents();
  EXPECT_EQ(d->DBGListadoMunicipios->currentIndex().row(), d->oClaseCodPostales->oDataModule->TMunicipi->CurrentIndex());
}

TEST_F(ListadoTest, TypingInThePostcodeEditPositionsByPostcode) {
  auto d = abre();
  d->advECodPostal->setFocus();
  QTest::keyClicks(d->advECodPostal, "2880");
  EXPECT_EQ(filaActual(*d), "ALCALA DE HENARES");  // 28801, the nearest at or after
  EXPECT_EQ(d->oClaseCodPostales->oDataModule->TMunicipi->IndexName(), "CODPOSTAL");
}

TEST_F(ListadoTest, TypingInTheIneEditPositionsByIneCode) {
  auto d = abre();
  d->advECodINE->setFocus();
  QTest::keyClicks(d->advECodINE, "28140");
  EXPECT_EQ(filaActual(*d), "SOBRADO");
  EXPECT_EQ(d->oClaseCodPostales->oDataModule->TMunicipi->IndexName(), "COD_INE");
}

TEST_F(ListadoTest, ArrowKeysInAnEditDoNotSearchAndGoToTheGrid) {
  auto d = abre();
  QTest::keyClicks(d->advELocalidad, "GET");
  TTable* m = d->oClaseCodPostales->oDataModule->TMunicipi;
  m->First();
  QTest::keyClick(d->advELocalidad, Qt::Key_Down);
  QApplication::processEvents();
  EXPECT_EQ(QApplication::focusWidget(), d->DBGListadoMunicipios);
  EXPECT_NE(filaActual(*d), "GETAFE");  // the key did not search again
}

TEST_F(ListadoTest, EnterMovesToTheNextControl) {
  auto d = abre();
  QTest::keyClick(d->advELocalidad, Qt::Key_Return);
  QApplication::processEvents();
  EXPECT_EQ(QApplication::focusWidget(), d->advECodPostal);
  EXPECT_TRUE(d->isVisible());  // Enter does not close the list
}

TEST_F(ListadoTest, FocusShowsTheControlsHintInTheStatusBar) {
  auto d = abre();
  d->advECodINE->setFocus(Qt::TabFocusReason);
  QApplication::processEvents();
  EXPECT_EQ(d->sbEstado->currentMessage(), "Código INE asociado al municipio de residencia");
  d->advGBCancelar->setFocus(Qt::TabFocusReason);
  QApplication::processEvents();
  EXPECT_EQ(d->sbEstado->currentMessage(), "Cierra el listado sin seleccionar a ningún cliente");
}

TEST_F(ListadoTest, ColumnsShareTheGridsWidth) {
  auto d = abre();
  auto anchoTotal = [&] {
    int total = 0;
    for (int c = 0; c < 5; ++c) total += d->DBGListadoMunicipios->columnWidth(c);
    return total;
  };
  EXPECT_EQ(anchoTotal(), d->DBGListadoMunicipios->viewport()->width());  // from the first show
  d->resize(900, 500);
  QApplication::processEvents();
  int total = 0;
  for (int c = 0; c < 5; ++c) total += d->DBGListadoMunicipios->columnWidth(c);
  EXPECT_EQ(total, d->DBGListadoMunicipios->viewport()->width());
  EXPECT_GT(d->DBGListadoMunicipios->columnWidth(0), d->DBGListadoMunicipios->columnWidth(2));
}

TEST_F(ListadoTest, ImportButtonOpensTheImportDialogOnAStreetModeControllerOfItsOwn) {
  RegistroMensajes registro;
  PresentadorMensajesTemporal temporal(&registro);
  // Nothing reaches the cadastre from here.
  qputenv("CODPOSTALES_OVC_URL", "http://127.0.0.1:9/ovcservweb/OVCSWLocalizacionRC/OVCCallejero.asmx");
  auto d = abre();
  bool visto = false;
  QTimer::singleShot(0, [&] {
    auto* importar = qobject_cast<TFImportarVias*>(QApplication::activeModalWidget());
    ASSERT_NE(importar, nullptr);
    visto = true;
    EXPECT_EQ(importar->windowTitle(), "Importación de vías a través de la web");
    ASSERT_NE(importar->oCodPostales, nullptr);
    EXPECT_NE(importar->oCodPostales, d->oClaseCodPostales);
    EXPECT_TRUE(importar->oCodPostales->oDataModule->TPostal->Active()) << "the street table is open to append to";
    QTest::mouseClick(importar->advGBCancelar, Qt::LeftButton);
  });
  QTest::mouseClick(d->advGBImportarVias, Qt::LeftButton);
  qunsetenv("CODPOSTALES_OVC_URL");
  EXPECT_TRUE(visto);
  EXPECT_TRUE(d->isVisible());
  EXPECT_TRUE(registro.deTipo(TipoMensaje::Error).isEmpty());
}

TEST_F(ListadoTest, SeleccionarReturnsTheFiveCodes) {
  const bool elegido = muestra([](TFListadoMunicipios* d) {
    EXPECT_EQ(d->windowTitle(), "Elija el municipio");
    EXPECT_EQ(d->oClaseCodPostales->oDataModule->TMunicipiNOMBRE->AsString(), "GETAFE");  // positioned on the name
    QTest::mouseClick(d->advGBAceptar, Qt::LeftButton);
  });
  EXPECT_TRUE(elegido);
  EXPECT_EQ(ine, "28065");
  EXPECT_EQ(cp, "28901");
  EXPECT_EQ(municipio, "GETAFE");
  EXPECT_EQ(codProvincia, "28");
  EXPECT_EQ(codMunicipio, "0065");
  EXPECT_EQ(provincia, "MADRID");  // read, never written
}

TEST_F(ListadoTest, DoubleClickOnARowConfirmsIt) {
  const bool elegido = muestra([](TFListadoMunicipios* d) {
    QTest::keyClicks(d->advELocalidad, "SOB");
    QApplication::processEvents();
    QTableView* g = d->DBGListadoMunicipios;
    const QRect celda = g->visualRect(g->model()->index(g->currentIndex().row(), 0));
    QTest::mouseDClick(g->viewport(), Qt::LeftButton, {}, celda.center());
  });
  EXPECT_TRUE(elegido);
  EXPECT_EQ(municipio, "SOBRADO");
  EXPECT_EQ(ine, "28140");
}

TEST_F(ListadoTest, CancelReturnsFalseAndChangesNoVariable) {
  const bool elegido = muestra([](TFListadoMunicipios* d) {
    QTest::keyClicks(d->advELocalidad, "SOB");
    QTest::mouseClick(d->advGBCancelar, Qt::LeftButton);
  });
  EXPECT_FALSE(elegido);
  EXPECT_EQ(ine, "ine");
  EXPECT_EQ(cp, "cp");
  EXPECT_EQ(municipio, "GETAFE");
  EXPECT_EQ(codProvincia, "prov");
  EXPECT_EQ(codMunicipio, "mun");
}

TEST_F(ListadoTest, EscapeReturnsFalseAndChangesNoVariable) {
  const bool elegido = muestra([](TFListadoMunicipios* d) {
    QTest::keyClicks(d->advELocalidad, "SOB");
    QTest::keyClick(d->advELocalidad, Qt::Key_Escape);
  });
  EXPECT_FALSE(elegido);
  EXPECT_EQ(ine, "ine");
  EXPECT_EQ(cp, "cp");
  EXPECT_EQ(municipio, "GETAFE");
  EXPECT_EQ(provincia, "MADRID");
  EXPECT_EQ(codProvincia, "prov");
  EXPECT_EQ(codMunicipio, "mun");
}
