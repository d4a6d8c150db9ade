// The import dialog on real widgets: its controls and texts, the three
// modes, the form's keys and focus colouring, the service's lists and the
// host's own, and the two search buttons -- driven with keys, focus changes
// and mouse clicks, against the local simulator where the service answers.
#include <QAction>
#include <QFile>
#include <QFileInfo>
#include <QGroupBox>
#include <QHeaderView>
#include <QLabel>
#include <QMenu>
#include <QSignalSpy>
#include <QStatusBar>
#include <cmath>
#include <QFontMetricsF>
#include <QStyleOptionViewItem>
#include <QStyleFactory>
#include <gtest/gtest.h>

#include "dialogo_comun.h"
#include "services/Rvarias.h"

using namespace testsupport;

namespace {

using Dialogo = DialogoImportarTest;

// The service's province list has 48 names, A CORUÑA first.
constexpr int kProvinciasServicio = 48;
// MADRID's municipalities in the recorded answer.
constexpr int kMunicipiosMadrid = 179;

int SumaAnchos(const TStringGrid* g, std::initializer_list<int> columnas) {
  int suma = 0;
  for (int c : columnas) suma += g->ColWidths(c);
  return suma;
}

// The width rules of the name column.
void EsperaReglaDeSieteColumnas(const TStringGrid* g) {
  ASSERT_EQ(g->ColCount(), 7);
  EXPECT_EQ(g->ColWidths(1), g->ClientWidth() - SumaAnchos(g, {0, 2, 3, 4, 5, 6}) - 8);
}
void EsperaReglaDeDosColumnas(const TStringGrid* g) {
  ASSERT_EQ(g->ColCount(), 2);
  EXPECT_EQ(g->ColWidths(1), g->ClientWidth() - g->ColWidths(0) - 8);
}

// ---- Controls and texts ----

TEST_F(Dialogo, EveryControlCarriesItsCaptionTextAndHint) {
  auto d = crea();
  EXPECT_EQ(d->windowTitle(), "Importación de vías a través de la web");
  EXPECT_EQ(d->GBModo->title(), "  Eliga la forma de importación de calles  ");
  EXPECT_EQ(d->RBMasDeUno->text(), "1.  Importar calles de municipios con más de un código postal  ");
  EXPECT_EQ(d->RBUno->text(),
            "2.  Importar calles de municipios con un único código postal  /  Revisar tipos de vía con más de un código");
  EXPECT_EQ(d->RBTodosConUno->text(),
            "3.  Importar calles de todos los municipios, con un único código postal , de la provincia seleccionada");
  EXPECT_EQ(d->GBDatosBusqueda->title(), "  Selección de provincia y municipios. Búsqueda  ");
  EXPECT_EQ(d->LProvincia_->text(), "Provincia:");
  EXPECT_EQ(d->LMunicipio_->text(), "Municipio:");
  EXPECT_EQ(d->advGBBuscarViasPorMunicipio->text(), "Buscar las vías del municipio seleccionado");
  EXPECT_EQ(d->advGBBuscarViasPorMunicipio->toolTip(),
            "Pinche el botón para realizar una búsqueda de las vías del municipio seleccionado");
  EXPECT_EQ(d->advGBBuscarViasPorProvincia->text(), "Buscar las vías de los municipios de la provincia seleccionada");
  EXPECT_EQ(d->advGBBuscarViasPorProvincia->toolTip(),
            "Pinche el botón para realizar importar las vias de todos los municipios de la provincia seleccionada");
  EXPECT_EQ(d->advGBGuardarPorProvincia->text(), "&Guardar las vías de la provincia");
  EXPECT_EQ(d->advGBGuardarPorProvincia->toolTip(), "Almacena las vías de los municipios de la provincia seleccionada arriba");
  EXPECT_EQ(d->GBDatosZelmor->title(),
            "  Indique el municipio del programa en el que importar las vías y  pinche en Guardar  ");
  EXPECT_EQ(d->LProvinciaZelmor_->text(), "Provincia:");
  EXPECT_EQ(d->LMunicipioZelmor_->text(), "Municipio:");
  EXPECT_EQ(d->advGBGuardarPorMunicipio->text(), "&Guardar vías del municipio");
  EXPECT_EQ(d->advGBGuardarPorMunicipio->toolTip(), "Almacena las vías importadas al programa y cierra la pantalla");
  EXPECT_EQ(d->advGBCancelar->text(), "&Salir");
  EXPECT_EQ(d->advGBCancelar->toolTip(), "Cierra el listado sin seleccionar a ningún cliente");
  EXPECT_EQ(d->MIGuardarPorProvincia->text(), "Guardar las vias de todas las provincias importadas previamente");
  EXPECT_TRUE(d->PMGuardarPorProvincia->actions().contains(d->MIGuardarPorProvincia));
  EXPECT_TRUE(d->LMensaje_->text().isEmpty());
  EXPECT_TRUE(d->RBMasDeUno->isChecked());
  EXPECT_FALSE(d->RBUno->isChecked());
  EXPECT_FALSE(d->RBTodosConUno->isChecked());
  // The status bar lives in the lower panel.
  EXPECT_TRUE(d->advPBotones->isAncestorOf(d->sbEstado));
  EXPECT_TRUE(d->advPBotones->isAncestorOf(d->LMensaje_));
  EXPECT_TRUE(d->advPBotones->isAncestorOf(d->advGBCancelar));
}

TEST_F(Dialogo, CombosAreDropDownListsOfTwentyRows) {
  auto d = crea();
  for (QComboBox* c : {d->CBProvincias, d->CBMunicipios, d->CBProvinciasZelmor, d->CBMunicipiosZelmor}) {
    EXPECT_FALSE(c->isEditable()) << c->objectName().toStdString();
    EXPECT_EQ(c->maxVisibleItems(), 20) << c->objectName().toStdString();
  }
}

TEST_F(Dialogo, ListsShowTheirItemsInUpperCase) {
  ASSERT_TRUE(QDir().mkpath(carpetaPostal()));
  writeFile((carpetaPostal() + "/28-Getafe.txt").toStdString(), "28901: Mayor, calle\r\n");
  anadeProvincia(60, "Provincia de prueba");
  anadeMunicipio("60001", "60001", "Villa de Prueba");
  auto d = abre();  // mode 1: the postcode files
  EXPECT_EQ(elementos(d->CBProvincias), QStringList{"28-GETAFE"});
  EXPECT_TRUE(elementos(d->CBProvinciasZelmor).contains("PROVINCIA DE PRUEBA"));
  elige(d->CBProvinciasZelmor, "PROVINCIA DE PRUEBA");
  d->CBProvinciasZelmorExit(d->CBProvinciasZelmor);
  EXPECT_EQ(elementos(d->CBMunicipiosZelmor), QStringList{"VILLA DE PRUEBA"});
}

TEST_F(Dialogo, ModeOneFileShownInUpperCaseIsStillReadByItsOwnName) {
  ASSERT_TRUE(QDir().mkpath(carpetaPostal()));
  writeFile((carpetaPostal() + "/28-Alcalá de Prueba.txt").toStdString(), "28801: Mayor, calle\r\n");
  auto d = abre();
  ASSERT_EQ(elementos(d->CBProvincias), QStringList{"28-ALCALÁ DE PRUEBA"});
  d->CBProvincias->setCurrentIndex(0);
  pulsa(d->advGBBuscarViasPorMunicipio);
  EXPECT_EQ(d->SGVias->Cells(1, 1), "Mayor");
  EXPECT_EQ(d->SGVias->Cells(2, 1), "28801");
}

// Fusion opens a non-editable combo as a pop-up menu as tall as its items;
// the list must stop at twenty rows there too.
TEST_F(Dialogo, OpenListShowsTwentyRowsInTheFusionStyle) {
  const QString estiloAnterior = QApplication::style()->name();
  QApplication::setStyle(QStyleFactory::create(QStringLiteral("Fusion")));
  {
    auto d = abre();
    QComboBox* combo = d->CBMunicipiosZelmor;
    for (int i = 0; i < 150; ++i) combo->addItem(QStringLiteral("MUNICIPIO %1").arg(i, 3, 10, QLatin1Char('0')));
    combo->setCurrentIndex(0);
    combo->showPopup();
    QAbstractItemView* lista = combo->view();
    ASSERT_TRUE(QTest::qWaitFor([&] { return lista->isVisible(); }, 2000));
    QApplication::processEvents();
    int enteras = 0;
    for (int i = 0; i < combo->count(); ++i) {
      const QRect fila = lista->visualRect(lista->model()->index(i, 0));
      if (fila.top() >= 0 && fila.bottom() < lista->viewport()->height()) ++enteras;
    }
    EXPECT_EQ(enteras, 20);
    EXPECT_LT(lista->window()->height(), 40 * lista->sizeHintForRow(0)) << "not the whole screen";
    combo->hidePopup();
  }
  QApplication::setStyle(QStyleFactory::create(estiloAnterior));
}

TEST_F(Dialogo, StreetGridTakesTheFocusByClickButNotByTab) {
  auto d = abre();
  d->SGVias->SetRowCount(4);
  for (int r = 1; r < 4; ++r) d->SGVias->SetCells(1, r, QStringLiteral("CALLE %1").arg(r));
  enfoca(d->RBMasDeUno);
  QList<QWidget*> recorridos;
  for (int i = 0; i < 30; ++i) {
    tabula();
    recorridos << QApplication::focusWidget();
  }
  EXPECT_FALSE(recorridos.contains(d->SGVias)) << "not a tab stop";
  EXPECT_TRUE(recorridos.contains(d->CBProvinciasZelmor)) << "Tab walked the dialog";

  const QRect celda = d->SGVias->visualRect(d->SGVias->model()->index(1, 1));
  QTest::mouseClick(d->SGVias->viewport(), Qt::LeftButton, Qt::NoModifier, celda.center());
  QApplication::processEvents();
  EXPECT_EQ(QApplication::focusWidget(), d->SGVias);
  EXPECT_EQ(d->SGVias->currentRow(), 1);
  QTest::keyClick(d->SGVias, Qt::Key_Down);
  EXPECT_EQ(d->SGVias->currentRow(), 2) << "the keys walk it";
}

// The width a column needs for its title (row 0, the grid's header) whole.
int AnchoParaElTitulo(const TStringGrid* g, int columna) { return g->horizontalHeader()->sectionSizeHint(columna); }

TEST_F(Dialogo, ColumnWidthsAreTheGivenOnesAtTheHostsUsualFont) {
  auto d = crea();
  // A font whose average character is no wider than the host's: no scaling.
  QFont pequena = d->font();
  pequena.setPixelSize(6);
  d->setFont(pequena);
  d->SGVias->horizontalHeader()->setFont(pequena);  // the titles' own font
  ASSERT_LE(QFontMetricsF(d->SGVias->font()).averageCharWidth(), 5.0);
  EXPECT_EQ(d->EscalaColumnas(), 1.0);
  d->show();  // mode 1: the seven columns
  QApplication::processEvents();
  ASSERT_EQ(d->SGVias->ColCount(), 7);
  EXPECT_EQ(d->SGVias->ColWidths(0), 60);
  EXPECT_EQ(d->SGVias->ColWidths(2), 70);
  for (int c = 3; c <= 6; ++c) EXPECT_EQ(d->SGVias->ColWidths(c), 55) << c;
}

TEST_F(Dialogo, ColumnWidthsGrowWithTheFontSoEveryTitleReadsWhole) {
  for (int puntos : {0, 12, 16}) {
    auto d = crea();
    if (puntos > 0) {
      QFont f = d->font();
      f.setPointSize(puntos);
      d->setFont(f);
      d->SGVias->horizontalHeader()->setFont(f);  // the titles' own font
    }
    d->show();  // mode 1: the seven titled columns
    QApplication::processEvents();
    const TStringGrid* g = d->SGVias;
    ASSERT_EQ(g->ColCount(), 7);
    const double escala = d->EscalaColumnas();
    EXPECT_GE(escala, puntos >= 12 ? 1.5 : 1.0) << puntos;
    for (int c : {0, 2, 3, 4, 5, 6})
      EXPECT_GE(g->ColWidths(c), AnchoParaElTitulo(g, c))
          << puntos << " pt: «" << g->Cells(c, 0).toStdString() << "» is cut";
    // The given widths, scaled; wider only where a title needs it.
    for (const auto& [c, ancho] : {std::pair{0, 60}, {2, 70}, {3, 55}, {4, 55}, {5, 55}, {6, 55}})
      EXPECT_EQ(g->ColWidths(c), std::max<int>(std::lround(ancho * escala), AnchoParaElTitulo(g, c))) << puntos;
    EsperaReglaDeSieteColumnas(g);
  }
}

TEST_F(Dialogo, GridStartsWithTwoColumnsTwoRowsAndWholeRowSelection) {
  auto d = crea();
  const TStringGrid* g = d->SGVias;
  EXPECT_EQ(g->ColCount(), 2);
  EXPECT_EQ(g->RowCount(), 2);
  EXPECT_EQ(g->ColWidths(0), d->AnchoEscalado(60));
  EXPECT_EQ(g->ColWidths(1), d->AnchoEscalado(468));
  EXPECT_EQ(g->selectionBehavior(), QAbstractItemView::SelectRows);
  EXPECT_TRUE(g->verticalHeader()->sectionsMovable()) << "rows movable";
  EXPECT_TRUE(g->verticalHeader()->isHidden()) << "no fixed column";
}

// ---- FormShow and the modes ----

TEST_F(Dialogo, FormShowTitlesTheGridEntersModeOneAndLoadsTheHostProvinces) {
  auto d = abre();
  EXPECT_EQ(d->SGVias->Cells(0, 0), "Tipo de vía");
  EXPECT_EQ(d->SGVias->Cells(1, 0), "Nombre de la vía");
  EXPECT_EQ(d->SGVias->ColCount(), 7);
  EXPECT_EQ(d->LProvincia_->text(), "Municipio:");
  EXPECT_EQ(d->CBProvinciasZelmor->count(), 5);
  EXPECT_TRUE(mensajes.vacio()) << "mode 1 asks the service nothing";
}

TEST_F(Dialogo, ModeOneLaysOutTheFileSearchWithSevenColumns) {
  auto d = abre();
  EXPECT_EQ(d->LProvincia_->text(), "Municipio:");
  EXPECT_FALSE(d->LMunicipio_->isVisible());
  EXPECT_FALSE(d->CBMunicipios->isVisible());
  EXPECT_TRUE(d->advGBBuscarViasPorMunicipio->isVisible());
  EXPECT_FALSE(d->advGBBuscarViasPorProvincia->isVisible());
  EXPECT_FALSE(d->advGBGuardarPorProvincia->isVisible());
  EXPECT_TRUE(d->GBDatosZelmor->isVisible());
  EXPECT_EQ(fila(d->SGVias, 0), (QStringList{"Tipo de vía", "Nombre de la vía", "Código postal", "Impar INI",
                                             "Impar INI", "Par INI", "Par FIN"}));
  EXPECT_EQ(d->SGVias->ColWidths(0), AnchoFijoEsperado(d->SGVias, *d, 0, 60));
  EXPECT_EQ(d->SGVias->ColWidths(2), AnchoFijoEsperado(d->SGVias, *d, 2, 70));
  for (int c = 3; c <= 6; ++c) EXPECT_EQ(d->SGVias->ColWidths(c), AnchoFijoEsperado(d->SGVias, *d, c, 55)) << c;
  EsperaReglaDeSieteColumnas(d->SGVias);
}

TEST_F(Dialogo, ModeTwoLaysOutProvinceAndMunicipalityWithTwoColumns) {
  REQUIERE_DATOS_COMPARTIDOS();
  arrancaSimulador();
  auto d = abre();
  pulsa(d->RBUno);
  ASSERT_TRUE(d->RBUno->isChecked());
  EXPECT_EQ(d->LProvincia_->text(), "Provincia:");
  EXPECT_TRUE(d->LMunicipio_->isVisible());
  EXPECT_TRUE(d->CBMunicipios->isVisible());
  EXPECT_TRUE(d->advGBBuscarViasPorMunicipio->isVisible());
  EXPECT_FALSE(d->advGBBuscarViasPorProvincia->isVisible());
  EXPECT_FALSE(d->advGBGuardarPorProvincia->isVisible());
  EXPECT_TRUE(d->GBDatosZelmor->isVisible());
  EXPECT_EQ(fila(d->SGVias, 0), (QStringList{"Tipo de vía", "Nombre de la vía"}));
  EXPECT_EQ(d->SGVias->ColWidths(0), AnchoFijoEsperado(d->SGVias, *d, 0, 60));
  EsperaReglaDeDosColumnas(d->SGVias);
  EXPECT_EQ(d->CBProvincias->count(), kProvinciasServicio) << "the service's provinces";
}

TEST_F(Dialogo, ModeThreeLaysOutTheProvinceRunWithTwoColumns) {
  REQUIERE_DATOS_COMPARTIDOS();
  arrancaSimulador();
  auto d = abre();
  pulsa(d->RBTodosConUno);
  ASSERT_TRUE(d->RBTodosConUno->isChecked());
  EXPECT_EQ(d->LProvincia_->text(), "Provincia:");
  EXPECT_FALSE(d->LMunicipio_->isVisible());
  EXPECT_FALSE(d->CBMunicipios->isVisible());
  EXPECT_FALSE(d->advGBBuscarViasPorMunicipio->isVisible());
  EXPECT_TRUE(d->advGBBuscarViasPorProvincia->isVisible());
  EXPECT_TRUE(d->advGBGuardarPorProvincia->isVisible());
  EXPECT_FALSE(d->GBDatosZelmor->isVisible());
  EXPECT_EQ(d->SGVias->ColCount(), 2);
  EsperaReglaDeDosColumnas(d->SGVias);
  EXPECT_EQ(d->CBProvincias->count(), kProvinciasServicio);
}

TEST_F(Dialogo, BackToModeOneListsTheFilesAgainWithSevenColumns) {
  REQUIERE_DATOS_COMPARTIDOS();
  arrancaSimulador();
  ASSERT_TRUE(QDir().mkpath(carpetaPostal()));
  writeFile((carpetaPostal() + "/28-GETAFE.txt").toStdString(), "28901: MADRID, AVENIDA\r\n");
  auto d = abre();
  pulsa(d->RBUno);
  ASSERT_EQ(d->CBProvincias->count(), kProvinciasServicio);
  pulsa(d->RBMasDeUno);
  EXPECT_EQ(elementos(d->CBProvincias), QStringList{"28-GETAFE"}) << "the service's provinces are gone";
  EXPECT_EQ(d->LProvincia_->text(), "Municipio:");
  EXPECT_EQ(fila(d->SGVias, 0), (QStringList{"Tipo de vía", "Nombre de la vía", "Código postal", "Impar INI",
                                             "Impar INI", "Par INI", "Par FIN"}));
  EsperaReglaDeSieteColumnas(d->SGVias);
}

TEST_F(Dialogo, ClickOnTheModeInForceFetchesNothingAgain) {
  REQUIERE_DATOS_COMPARTIDOS();
  arrancaSimulador();
  auto d = abre();
  pulsa(d->RBUno);
  elige(d->CBProvincias, "MADRID");
  pulsa(d->RBUno);  // leaving the province fetches its municipalities, nothing more
  int provincias = 0;
  for (const PeticionOvc& p : simulador->peticiones()) provincias += p.soapAction.contains("ConsultaProvincia");
  EXPECT_EQ(provincias, 1);
  EXPECT_EQ(d->CBProvincias->currentText(), "MADRID") << "the choice stays";
}

TEST_F(Dialogo, ModeLayoutHoldsWhenTheServiceCannotBeReached) {
  auto d = abre();  // the closed port: every attempt fails
  pulsa(d->RBTodosConUno);
  EXPECT_EQ(d->SGVias->ColCount(), 2);
  EXPECT_FALSE(d->GBDatosZelmor->isVisible());
  EXPECT_TRUE(d->advGBBuscarViasPorProvincia->isVisible());
  EXPECT_EQ(d->CBProvincias->count(), 0);
  // The last attempt's failure, then the list's own message; Salir next.
  EXPECT_EQ(mensajes.textos(TipoMensaje::Error),
            (QStringList{"Se ha producido un error al localizar las provincias.\nReinténtelo más tarde",
                         "No se han podido cargar las provincias.Salga de la ventana y vuelva a intentarlo de nuevo "
                         "más tarde"}));
  EXPECT_EQ(QApplication::focusWidget(), d->advGBCancelar);
  EXPECT_EQ(d->oFormMensaje, nullptr);
}

TEST_F(Dialogo, ProvincesThatNeededARetryLoadWithoutAnyMessage) {
  REQUIERE_DATOS_COMPARTIDOS();
  arrancaSimulador({"--fallar", "2"});
  auto d = abre();
  pulsa(d->RBUno);
  EXPECT_EQ(d->CBProvincias->count(), kProvinciasServicio);
  EXPECT_EQ(QApplication::focusWidget(), d->CBProvincias);
  EXPECT_EQ(mensajes.cuenta(TipoMensaje::Error) + mensajes.cuenta(TipoMensaje::Emergente), 0);
  EXPECT_EQ(simulador->peticiones().size(), 3);
  EXPECT_EQ(d->oFormMensaje, nullptr);
}

TEST_F(Dialogo, FormResizeReappliesTheSevenColumnRule) {
  auto d = abre();
  const int antes = d->SGVias->ColWidths(1);
  d->resize(d->width() + 150, d->height());
  ASSERT_TRUE(QTest::qWaitFor([&] { return d->SGVias->ColWidths(1) != antes; }, 2000));
  EsperaReglaDeSieteColumnas(d->SGVias);
  EXPECT_EQ(d->SGVias->ColWidths(1), antes + 150);
}

TEST_F(Dialogo, FormResizeReappliesTheTwoColumnRule) {
  REQUIERE_DATOS_COMPARTIDOS();
  arrancaSimulador();
  auto d = abre();
  pulsa(d->RBUno);
  const int antes = d->SGVias->ColWidths(1);
  d->resize(d->width() - 100, d->height());
  ASSERT_TRUE(QTest::qWaitFor([&] { return d->SGVias->ColWidths(1) != antes; }, 2000));
  EsperaReglaDeDosColumnas(d->SGVias);
  EXPECT_EQ(d->SGVias->ColWidths(1), antes - 100);
}

// ---- Closing, keys and focus ----

TEST_F(Dialogo, FormCloseDeletesTempCallesAndEmptiesBothHostLists) {
  auto d = abre();
  elige(d->CBProvinciasZelmor, "MADRID");
  d->CBProvinciasZelmorExit(d->CBProvinciasZelmor);
  ASSERT_GT(d->CBMunicipiosZelmor->count(), 0);
  const QString temporal = TFImportarVias::RutaTempCalles();
  writeFile(temporal.toStdString(), "<respuesta/>");
  d->close();
  EXPECT_FALSE(QFile::exists(temporal));
  EXPECT_EQ(d->CBProvinciasZelmor->count(), 0);
  EXPECT_EQ(d->CBMunicipiosZelmor->count(), 0);
}

TEST_F(Dialogo, EnterMovesTheFocusToTheNextControl) {
  auto d = abre();
  enfoca(d->CBMunicipiosZelmor);
  ASSERT_EQ(QApplication::focusWidget(), d->CBMunicipiosZelmor);
  QTest::keyClick(d->CBMunicipiosZelmor, Qt::Key_Return);
  QApplication::processEvents();
  EXPECT_EQ(QApplication::focusWidget(), d->advGBGuardarPorMunicipio);
}

TEST_F(Dialogo, EnterOnAButtonMovesOnWithoutPressingIt) {
  auto d = abre();
  QSignalSpy pulsado(d->advGBGuardarPorMunicipio, &QPushButton::clicked);
  enfoca(d->advGBGuardarPorMunicipio);
  QTest::keyClick(d->advGBGuardarPorMunicipio, Qt::Key_Return);
  QApplication::processEvents();
  EXPECT_EQ(pulsado.count(), 0);
  EXPECT_EQ(QApplication::focusWidget(), d->advGBCancelar);
  EXPECT_TRUE(d->isVisible());
}

TEST_F(Dialogo, EscapeClicksSalirAndClosesWithTheCancelResult) {
  auto d = abre();
  d->setResult(QDialog::Accepted);
  QSignalSpy salir(d->advGBCancelar, &QPushButton::clicked);
  QSignalSpy terminado(d.get(), &QDialog::finished);
  enfoca(d->CBMunicipiosZelmor);
  QTest::keyClick(d->CBMunicipiosZelmor, Qt::Key_Escape);
  QApplication::processEvents();
  EXPECT_EQ(salir.count(), 1);
  ASSERT_EQ(terminado.count(), 1);
  EXPECT_EQ(terminado[0][0].toInt(), int(QDialog::Rejected));
  EXPECT_EQ(d->result(), int(QDialog::Rejected));
  EXPECT_FALSE(d->isVisible());
  EXPECT_EQ(d->CBProvinciasZelmor->count(), 0) << "FormClose ran";
}

TEST_F(Dialogo, ClickingSalirClosesWithTheCancelResult) {
  auto d = abre();
  d->setResult(QDialog::Accepted);
  pulsa(d->advGBCancelar);
  EXPECT_FALSE(d->isVisible());
  EXPECT_EQ(d->result(), int(QDialog::Rejected));
}

TEST_F(Dialogo, ComboTakingTheFocusIsColouredAndShowsItsHint) {
  auto d = abre();
  d->CBMunicipiosZelmor->setToolTip("Municipio del programa");
  const QColor antes = d->CBMunicipiosZelmor->palette().color(QPalette::Base);
  enfoca(d->CBMunicipiosZelmor);
  EXPECT_EQ(d->CBMunicipiosZelmor->palette().color(QPalette::Base), ColorFocoControl());
  EXPECT_EQ(d->sbEstado->currentMessage(), "Municipio del programa");
  ASSERT_NE(antes, ColorFocoControl());
}

TEST_F(Dialogo, ComboLosingTheFocusGetsItsColourBackAndClearsTheStatusBar) {
  auto d = abre();
  d->CBMunicipiosZelmor->setToolTip("Municipio del programa");
  const QColor antes = d->CBMunicipiosZelmor->palette().color(QPalette::Base);
  enfoca(d->CBMunicipiosZelmor);
  enfoca(d->RBUno);  // a control with no handlers of its own
  EXPECT_EQ(d->CBMunicipiosZelmor->palette().color(QPalette::Base), antes);
  EXPECT_TRUE(d->sbEstado->currentMessage().isEmpty());
}

TEST_F(Dialogo, ButtonTakingTheFocusShowsItsHintAndLosingItClearsIt) {
  auto d = abre();
  const QColor antes = d->advGBCancelar->palette().color(QPalette::Button);
  enfoca(d->advGBCancelar);
  EXPECT_EQ(d->sbEstado->currentMessage(), "Cierra el listado sin seleccionar a ningún cliente");
  EXPECT_EQ(d->advGBCancelar->palette().color(QPalette::Button), antes) << "buttons are not coloured";
  enfoca(d->RBUno);
  EXPECT_TRUE(d->sbEstado->currentMessage().isEmpty());
}

TEST_F(Dialogo, MouseOverAButtonShowsItsHintAndLeavingClearsIt) {
  auto d = abre();
  QTest::mouseMove(d->advGBGuardarPorMunicipio);
  QApplication::processEvents();
  EXPECT_EQ(d->sbEstado->currentMessage(), "Almacena las vías importadas al programa y cierra la pantalla");
  QTest::mouseMove(d->GBModo, QPoint(2, 2));
  QApplication::processEvents();
  EXPECT_TRUE(d->sbEstado->currentMessage().isEmpty());
}

// ---- The upper combo in mode 1 ----

TEST_F(Dialogo, WithoutThePostalFolderModeOneListsNothingAndLeavingTheComboShowsTheNotice) {
  auto d = abre();
  EXPECT_EQ(d->CBProvincias->count(), 0);
  enfoca(d->CBProvincias);
  tabula();
  ASSERT_EQ(mensajes.cuenta(TipoMensaje::Emergente), 1);
  const MensajeRegistrado aviso = mensajes.deTipo(TipoMensaje::Emergente)[0];
  EXPECT_EQ(aviso.texto,
            "Faltan los ficheros correspondientes a los CP múltiples.\npóngase en contacto con nuestro soporte técnico");
  EXPECT_EQ(aviso.posicion, "H");
  EXPECT_EQ(aviso.opcion, 4);
  EXPECT_EQ(mensajes.cuenta(TipoMensaje::Muestra), 0) << "mode 1 asks the service nothing";
}

TEST_F(Dialogo, WithNoTextFileInThePostalFolderLeavingTheComboShowsTheNotice) {
  ASSERT_TRUE(QDir().mkpath(carpetaPostal() + "/MADRID"));
  writeFile((carpetaPostal() + "/notas.csv").toStdString(), "x");
  writeFile((carpetaPostal() + "/MADRID/GETAFE.xml").toStdString(), "<x/>");
  auto d = abre();
  EXPECT_EQ(d->CBProvincias->count(), 0);
  enfoca(d->CBProvincias);
  tabula();
  EXPECT_EQ(mensajes.cuenta(TipoMensaje::Emergente), 1);
}

TEST_F(Dialogo, LeavingTheComboWithFilesListedSaysNothing) {
  ASSERT_TRUE(QDir().mkpath(carpetaPostal()));
  writeFile((carpetaPostal() + "/28-GETAFE.txt").toStdString(), "28901: MADRID, AVENIDA\r\n");
  auto d = abre();
  enfoca(d->CBProvincias);
  tabula();
  EXPECT_TRUE(mensajes.vacio());
}

// ---- The service's lists in modes 2 and 3 ----

TEST_F(Dialogo, ProvincesLoadedFromTheServiceTakeTheFocusToTheProvinceCombo) {
  REQUIERE_DATOS_COMPARTIDOS();
  arrancaSimulador();
  auto d = abre();
  pulsa(d->RBUno);
  EXPECT_EQ(d->CBProvincias->count(), kProvinciasServicio);
  EXPECT_EQ(QApplication::focusWidget(), d->CBProvincias);
  EXPECT_EQ(esperas(TipoMensaje::Muestra), QStringList{"Importando el listado de provincias"});
  EXPECT_EQ(mensajes.cuenta(TipoMensaje::Cierra), 1);
  EXPECT_EQ(d->oFormMensaje, nullptr);
  EXPECT_EQ(mensajes.cuenta(TipoMensaje::Error), 0);
}

TEST_F(Dialogo, ProvincesThatFailToLoadTakeTheFocusToSalirAndShowTheError) {
  REQUIERE_DATOS_COMPARTIDOS();
  arrancaSimulador({"--cuenta-extra", "1"});  // the list ends before its count
  auto d = abre();
  pulsa(d->RBUno);
  EXPECT_EQ(QApplication::focusWidget(), d->advGBCancelar);
  ASSERT_EQ(mensajes.cuenta(TipoMensaje::Error), 1);
  EXPECT_EQ(mensajes.ultimo().tipo, TipoMensaje::Error);
  EXPECT_EQ(mensajes.ultimo().texto,
            "No se han podido cargar las provincias.Salga de la ventana y vuelva a intentarlo de nuevo más tarde");
  EXPECT_EQ(mensajes.ultimo().titulo, "Error al importar los datos");
  EXPECT_EQ(d->oFormMensaje, nullptr);
  EXPECT_EQ(mensajes.cuenta(TipoMensaje::Muestra), mensajes.cuenta(TipoMensaje::Cierra));
}

TEST_F(Dialogo, LeavingTheProvinceInModeTwoLoadsItsMunicipalitiesAndDropsTheirList) {
  REQUIERE_DATOS_COMPARTIDOS();
  arrancaSimulador();
  auto d = abre();
  pulsa(d->RBUno);
  mensajes.limpia();
  elige(d->CBProvincias, "MADRID");
  tabula();
  EXPECT_EQ(d->CBMunicipios->count(), kMunicipiosMadrid);
  EXPECT_EQ(esperas(TipoMensaje::Muestra), QStringList{"Importando el listado de municipios de..."});
  EXPECT_EQ(esperas(TipoMensaje::Cambia),
            (QStringList{"MADRID", "Importando municipios de la provincia MADRID", "Cargando datos de municipios"}));
  EXPECT_EQ(mensajes.cuenta(TipoMensaje::Cierra), 1);
  EXPECT_EQ(d->oFormMensaje, nullptr);
  EXPECT_EQ(d->focusWidget(), d->CBMunicipios);
  EXPECT_TRUE(d->CBMunicipios->view()->isVisible()) << "its list dropped down";
  d->CBMunicipios->hidePopup();
  EXPECT_EQ(mensajes.cuenta(TipoMensaje::Error), 0);
}

TEST_F(Dialogo, LeavingTheProvinceInModeThreeTakesTheFocusToTheProvinceButton) {
  REQUIERE_DATOS_COMPARTIDOS();
  arrancaSimulador();
  auto d = abre();
  pulsa(d->RBTodosConUno);
  elige(d->CBProvincias, "SORIA");
  tabula();
  EXPECT_GT(d->CBMunicipios->count(), 100);
  EXPECT_EQ(QApplication::focusWidget(), d->advGBBuscarViasPorProvincia);
}

TEST_F(Dialogo, MunicipalitiesThatFailToLoadClearBothCombosAndShowTheError) {
  REQUIERE_DATOS_COMPARTIDOS();
  arrancaSimulador({"--cuenta-extra", "1"});
  auto d = abre();
  pulsa(d->RBUno);  // the provinces come short too, but come
  ASSERT_EQ(d->CBProvincias->count(), kProvinciasServicio);
  enfoca(d->CBProvincias);  // the failure sent the focus to Salir
  mensajes.limpia();
  elige(d->CBProvincias, "MADRID");
  tabula();
  EXPECT_EQ(d->CBProvincias->currentIndex(), -1);
  EXPECT_EQ(d->CBMunicipios->count(), 0);
  EXPECT_EQ(d->CBMunicipios->currentIndex(), -1);
  ASSERT_EQ(mensajes.cuenta(TipoMensaje::Error), 1);
  const MensajeRegistrado error = mensajes.deTipo(TipoMensaje::Error)[0];
  EXPECT_EQ(error.texto,
            "No se han podido cargar los municipios asociados a la provincia indicada.Inténtelo de nuevo más tarde");
  EXPECT_EQ(error.titulo, "Error al importar los datos");
  EXPECT_EQ(d->oFormMensaje, nullptr);
  EXPECT_EQ(d->focusWidget(), d->CBMunicipios);
  d->CBMunicipios->hidePopup();
}

// ---- The host's own lists ----

TEST_F(Dialogo, HostProvincesAreGroupOneInAlphabeticalOrderWithTheirCodesAndNoneChosen) {
  auto d = abre();
  EXPECT_EQ(elementos(d->CBProvinciasZelmor), (QStringList{"BARCELONA", "CORUÑA (A)", "EXTRANJERO", "MADRID", "TOLEDO"}));
  QList<int> codigos;
  for (int i = 0; i < d->CBProvinciasZelmor->count(); ++i) codigos << d->CBProvinciasZelmor->itemData(i).toInt();
  EXPECT_EQ(codigos, (QList<int>{8, 15, 99, 28, 45}));
  EXPECT_EQ(d->CBProvinciasZelmor->currentIndex(), -1);
  EXPECT_EQ(d->CBMunicipiosZelmor->count(), 0);
}

TEST_F(Dialogo, LoadingTheHostProvincesAgainEmptiesBothListsFirst) {
  auto d = abre();
  elige(d->CBProvinciasZelmor, "MADRID");
  d->CBProvinciasZelmorExit(d->CBProvinciasZelmor);
  ASSERT_GT(d->CBMunicipiosZelmor->count(), 0);
  d->CargaProvinciasZelmor();
  EXPECT_EQ(d->CBProvinciasZelmor->count(), 5);
  EXPECT_EQ(d->CBMunicipiosZelmor->count(), 0);
}

TEST_F(Dialogo, LeavingTheHostProvinceLoadsItsMunicipalitiesSortedWithTheirPostcodes) {
  auto d = abre();
  enfoca(d->CBProvinciasZelmor);
  elige(d->CBProvinciasZelmor, "MADRID");
  tabula();
  EXPECT_EQ(elementos(d->CBMunicipiosZelmor),
            (QStringList{"ALCALA DE HENARES", "ARAVACA", "ESPARTALES", "GETAFE", "MADRID", "SOBRADO"}));
  QList<int> postales;
  for (int i = 0; i < d->CBMunicipiosZelmor->count(); ++i) postales << d->CBMunicipiosZelmor->itemData(i).toInt();
  EXPECT_EQ(postales, (QList<int>{28801, 28055, 28806, 28901, 28001, 28140}));
  EXPECT_EQ(d->CBMunicipiosZelmor->currentIndex(), -1);
  EXPECT_EQ(esperas(TipoMensaje::Muestra), QStringList{"Cargando el listado de municipios de MADRID"});
  EXPECT_EQ(mensajes.cuenta(TipoMensaje::Cierra), 1);
  EXPECT_EQ(QApplication::focusWidget(), d->CBMunicipiosZelmor);
}

TEST_F(Dialogo, HostProvinceCodeIsLookedUpAsTwoDigits) {
  auto d = abre();
  elige(d->CBProvinciasZelmor, "BARCELONA");  // code 8, rows "08"
  d->CBProvinciasZelmorExit(d->CBProvinciasZelmor);
  EXPECT_EQ(elementos(d->CBMunicipiosZelmor), (QStringList{"BARCELONA", "SANT ANDREU DE LA BARCA"}));
}

TEST_F(Dialogo, SortedHostMunicipalitiesFollowSpanishOrder) {
  anadeMunicipio("28900", "28900", "ÑAÑA");
  anadeMunicipio("28901", "28902", "NAVAS");
  anadeMunicipio("28902", "28903", "ÁLAMO");
  auto d = abre();
  elige(d->CBProvinciasZelmor, "MADRID");
  d->CBProvinciasZelmorExit(d->CBProvinciasZelmor);
  EXPECT_EQ(elementos(d->CBMunicipiosZelmor),
            (QStringList{"ÁLAMO", "ALCALA DE HENARES", "ARAVACA", "ESPARTALES", "GETAFE", "MADRID", "NAVAS", "ÑAÑA",
                         "SOBRADO"}));
}

TEST_F(Dialogo, LeavingTheHostProvinceWithNoneChosenAsksForOne) {
  auto d = abre();
  enfoca(d->CBProvinciasZelmor);
  tabula();
  ASSERT_EQ(mensajes.cuenta(TipoMensaje::Info), 1);
  EXPECT_EQ(mensajes.ultimo().texto, "Indique una provincia para poder seleccionar el municipio");
  EXPECT_EQ(mensajes.ultimo().titulo, "Faltan datos");
  EXPECT_EQ(mensajes.cuenta(TipoMensaje::Muestra), 0);
  EXPECT_EQ(QApplication::focusWidget(), d->CBMunicipiosZelmor);
}

// ---- The search by municipality ----

TEST_F(Dialogo, SearchByMunicipalityInModeTwoFillsTheGridAndChoosesTheHostMunicipality) {
  REQUIERE_DATOS_COMPARTIDOS();
  arrancaSimulador();
  auto d = abre();
  pulsa(d->RBUno);
  elige(d->CBProvincias, "MADRID");
  tabula();
  d->CBMunicipios->hidePopup();
  elige(d->CBMunicipios, "GETAFE");
  mensajes.limpia();
  pulsa(d->advGBBuscarViasPorMunicipio);

  // GETAFE's streets in the reference set, as the simulator serves them.
  ASSERT_EQ(d->SGVias->RowCount(), 3);
  EXPECT_EQ(fila(d->SGVias, 1), (QStringList{"AV", "MADRID"}));
  EXPECT_EQ(fila(d->SGVias, 2), (QStringList{"CL", "TOLEDO"}));
  EXPECT_EQ(d->LMensaje_->text(), "Se han encontrado 2 vías");
  EXPECT_EQ(d->CBProvinciasZelmor->currentText(), "MADRID");
  EXPECT_EQ(d->CBMunicipiosZelmor->count(), 6);
  EXPECT_EQ(d->CBMunicipiosZelmor->currentText(), "GETAFE");
  EXPECT_EQ(d->CBMunicipiosZelmor->currentData().toInt(), 28901);
  EXPECT_EQ(esperas(TipoMensaje::Muestra), QStringList{"Importando el listado de vías del municipio..."});
  EXPECT_EQ(esperas(TipoMensaje::Cambia).value(0), "GETAFE");
  EXPECT_EQ(d->oFormMensaje, nullptr);
  EXPECT_EQ(mensajes.cuenta(TipoMensaje::Error) + mensajes.cuenta(TipoMensaje::Emergente), 0);
}

TEST_F(Dialogo, SearchByMunicipalityTakesTheServiceProvinceNameToTheHostName) {
  REQUIERE_DATOS_COMPARTIDOS();
  anadeProvincia(25, "LERIDA");
  anadeMunicipio("25120", "25001", "LLEIDA");
  arrancaSimulador();
  auto d = abre();
  pulsa(d->RBUno);
  elige(d->CBProvincias, "LLEIDA");
  tabula();
  d->CBMunicipios->hidePopup();
  elige(d->CBMunicipios, "LLEIDA");
  pulsa(d->advGBBuscarViasPorMunicipio);
  EXPECT_GT(d->SGVias->RowCount(), 2);
  EXPECT_EQ(d->LMensaje_->text(), QStringLiteral("Se han encontrado %1 vías").arg(d->SGVias->RowCount() - 1));
  EXPECT_EQ(d->CBProvinciasZelmor->currentText(), "LERIDA");
  EXPECT_EQ(d->CBMunicipiosZelmor->currentText(), "LLEIDA");
}

TEST_F(Dialogo, SearchByMunicipalityInModeThreeChoosesTheHostMunicipalityToo) {
  REQUIERE_DATOS_COMPARTIDOS();
  arrancaSimulador();
  auto d = abre();
  pulsa(d->RBTodosConUno);
  elige(d->CBProvincias, "MADRID");
  tabula();
  elige(d->CBMunicipios, "ALCALA DE HENARES");
  d->advGBBuscarViasPorMunicipioClick();  // its button is hidden in this mode
  EXPECT_GT(d->SGVias->RowCount(), 2);
  EXPECT_FALSE(d->SGVias->Cells(1, 1).isEmpty());
  EXPECT_EQ(d->CBProvinciasZelmor->currentText(), "MADRID");
  EXPECT_EQ(d->CBMunicipiosZelmor->currentText(), "ALCALA DE HENARES");
  EXPECT_EQ(d->oFormMensaje, nullptr);
}

TEST_F(Dialogo, SearchByMunicipalityWithoutOneAsksForProvinceAndMunicipality) {
  REQUIERE_DATOS_COMPARTIDOS();
  arrancaSimulador();
  auto d = abre();
  pulsa(d->RBUno);
  elige(d->CBProvincias, "MADRID");
  d->CBMunicipios->clear();
  mensajes.limpia();
  d->advGBBuscarViasPorMunicipioClick();
  ASSERT_EQ(mensajes.cuenta(TipoMensaje::Error), 1);
  EXPECT_EQ(mensajes.ultimo().texto,
            "Para importar vías de un municipio es necesario indicar la provincia y el nombre del municipio");
  EXPECT_EQ(mensajes.ultimo().titulo, "Faltan datos");
  EXPECT_EQ(mensajes.cuenta(TipoMensaje::Muestra), 0);
  EXPECT_EQ(simulador->peticiones().size(), 1) << "only the provinces were asked for";
}

TEST_F(Dialogo, SearchByMunicipalityWhoseStreetsFailToLoadShowsTheNotice) {
  REQUIERE_DATOS_COMPARTIDOS();
  arrancaSimulador({"--cuenta-extra", "1"});  // every list ends before its count
  auto d = abre();
  pulsa(d->RBUno);
  elige(d->CBProvincias, "MADRID");
  ClienteOvc::Elige(d->CBMunicipios, "GETAFE");
  elige(d->CBProvinciasZelmor, "TOLEDO");
  mensajes.limpia();
  d->advGBBuscarViasPorMunicipioClick();
  ASSERT_EQ(mensajes.cuenta(TipoMensaje::Emergente), 1);
  const MensajeRegistrado aviso = mensajes.deTipo(TipoMensaje::Emergente)[0];
  EXPECT_EQ(aviso.texto, "No se ha podido importar ningún nombre de vía");
  EXPECT_EQ(aviso.titulo, "Inténtelo de nuevo");
  EXPECT_EQ(d->oFormMensaje, nullptr);
  EXPECT_EQ(mensajes.cuenta(TipoMensaje::Muestra), mensajes.cuenta(TipoMensaje::Cierra));
  EXPECT_EQ(d->CBProvinciasZelmor->currentIndex(), -1) << "cleared before the search, none chosen after";
  EXPECT_EQ(d->CBMunicipiosZelmor->count(), 0);
}

// ---- The search by province ----

TEST_F(Dialogo, SearchByProvinceOutsideModeThreeAsksForOptionThree) {
  auto d = abre();
  d->advGBBuscarViasPorProvinciaClick();
  ASSERT_EQ(mensajes.cuenta(TipoMensaje::Error), 1);
  EXPECT_EQ(mensajes.ultimo().texto,
            "Para importar las vías de todos los municipios de una \nprovincia es necesario marcar la opción 3ª");
  EXPECT_EQ(mensajes.ultimo().titulo, "Faltan datos");
}

TEST_F(Dialogo, SearchByProvinceWithoutAProvinceAsksForOne) {
  REQUIERE_DATOS_COMPARTIDOS();
  arrancaSimulador();
  auto d = abre();
  pulsa(d->RBTodosConUno);
  d->CBProvincias->setCurrentIndex(-1);
  mensajes.limpia();
  d->advGBBuscarViasPorProvinciaClick();
  ASSERT_EQ(mensajes.cuenta(TipoMensaje::Error), 1);
  EXPECT_EQ(mensajes.ultimo().texto,
            "Para importar las vías de todos los \nmunicipios de una provincia es necesario indicarla");
  EXPECT_EQ(mensajes.ultimo().titulo, "Faltan datos");
}

TEST_F(Dialogo, SearchByProvinceInModeThreeSavesOneAnswerPerMunicipality) {
  REQUIERE_DATOS_COMPARTIDOS();
  arrancaSimulador();
  auto d = abre();
  pulsa(d->RBTodosConUno);
  elige(d->CBProvincias, "CEUTA");
  tabula();  // leaving the combo loads its municipalities and goes to the button
  ASSERT_EQ(QApplication::focusWidget(), d->advGBBuscarViasPorProvincia);
  mensajes.limpia();
  pulsa(d->advGBBuscarViasPorProvincia);

  EXPECT_EQ(elementos(d->CBMunicipios), QStringList{"CEUTA"});
  const QString guardado = carpetaPostal() + "/CEUTA/CEUTA.xml";
  ASSERT_TRUE(QFile::exists(guardado));
  EXPECT_TRUE(QByteArray::fromStdString(readFile(guardado.toStdString())).contains("<cuca>"));
  EXPECT_EQ(esperas(TipoMensaje::Muestra), (QStringList{"Importando el listado de municipios de...",
                                                         "Importando el listado de vías del municipioCEUTA"}));
  EXPECT_TRUE(esperas(TipoMensaje::Cambia).contains("CEUTA"));
  EXPECT_EQ(mensajes.cuenta(TipoMensaje::Cierra), 2);
  EXPECT_EQ(d->oFormMensaje, nullptr);
  EXPECT_TRUE(d->SGVias->Cells(1, 1).isEmpty()) << "saved, not loaded";
  // Provinces, municipalities on leaving the combo and again for the run,
  // then the one municipality's streets.
  const QList<PeticionOvc> p = simulador->peticiones();
  ASSERT_EQ(p.size(), 4);
  EXPECT_TRUE(p[3].soapAction.contains("ConsultaVia"));
  EXPECT_TRUE(p[3].cuerpo.contains(">CEUTA</Municipio>"));
  EXPECT_EQ(mensajes.cuenta(TipoMensaje::Error) + mensajes.cuenta(TipoMensaje::Emergente), 0);
}

TEST_F(Dialogo, SearchByProvinceWhoseStreetsFailSixTimesShowsTheNotice) {
  REQUIERE_DATOS_COMPARTIDOS();
  arrancaSimulador({"--fallar-vias", "6"});
  auto d = abre();
  pulsa(d->RBTodosConUno);
  elige(d->CBProvincias, "CEUTA");
  tabula();
  mensajes.limpia();
  pulsa(d->advGBBuscarViasPorProvincia);
  EXPECT_EQ(mensajes.textos(TipoMensaje::Error),
            QStringList{"Se ha producido un error al localizar las vías del municipio seleccionado CEUTA\nReinténtelo "
                        "más tarde"});
  const QList<MensajeRegistrado> avisos = mensajes.deTipo(TipoMensaje::Emergente);
  ASSERT_EQ(avisos.size(), 1);
  EXPECT_EQ(avisos[0].texto, "No se ha podido importar ningún nombre de vía");
  EXPECT_EQ(avisos[0].titulo, "Inténtelo de nuevo");
  EXPECT_FALSE(QFile::exists(carpetaPostal() + "/CEUTA/CEUTA.xml"));
  int calles = 0;
  for (const PeticionOvc& p : simulador->peticiones()) calles += p.soapAction.contains("ConsultaVia");
  EXPECT_EQ(calles, 6);
  EXPECT_EQ(d->oFormMensaje, nullptr);
}

TEST_F(Dialogo, SearchByProvinceWhoseStreetsCameAtTheSixthAttemptSavesThemSilently) {
  REQUIERE_DATOS_COMPARTIDOS();
  arrancaSimulador({"--fallar-vias", "5"});
  auto d = abre();
  pulsa(d->RBTodosConUno);
  elige(d->CBProvincias, "CEUTA");
  tabula();
  mensajes.limpia();
  pulsa(d->advGBBuscarViasPorProvincia);
  EXPECT_TRUE(QFile::exists(carpetaPostal() + "/CEUTA/CEUTA.xml"));
  EXPECT_EQ(mensajes.cuenta(TipoMensaje::Error) + mensajes.cuenta(TipoMensaje::Emergente), 0);
}

TEST_F(Dialogo, NoticeOfAFailedFetchHasAnEmptyFourthTextAndTheCauseGoesToTheLog) {
  REQUIERE_DATOS_COMPARTIDOS();
  arrancaSimulador({"--nombres-peligrosos"});
  auto d = abre();
  pulsa(d->RBTodosConUno);
  elige(d->CBProvincias, "SORIA");
  tabula();
  mensajes.limpia();
  AvisosDelRegistro registro("codpostales.ovc");
  pulsa(d->advGBBuscarViasPorProvincia);
  const QList<MensajeRegistrado> avisos = mensajes.deTipo(TipoMensaje::Emergente);
  ASSERT_EQ(avisos.size(), 1);
  EXPECT_EQ(avisos[0].posicion, "H");
  EXPECT_EQ(avisos[0].opcion, 4);
  EXPECT_EQ(avisos[0].detalle, QString());
  EXPECT_TRUE(registro.textos.join('\n').contains("no sirve como nombre")) << registro.textos.join('\n').toStdString();
}

TEST_F(Dialogo, SavedAnswerThatCannotBeDeletedLeavesTheNewAnswerUnsaved) {
  REQUIERE_DATOS_COMPARTIDOS();
  arrancaSimulador();
  // Where the answer would go stands something that cannot be deleted (a
  // folder with a file in it; permissions would not stop this user).
  const QString guardado = carpetaPostal() + "/CEUTA/CEUTA.xml";
  ASSERT_TRUE(QDir().mkpath(guardado));
  writeFile((guardado + "/dentro.txt").toStdString(), "viejo");
  auto d = abre();
  pulsa(d->RBTodosConUno);
  elige(d->CBProvincias, "CEUTA");
  tabula();
  mensajes.limpia();
  pulsa(d->advGBBuscarViasPorProvincia);
  EXPECT_TRUE(QFileInfo(guardado).isDir()) << "not replaced";
  EXPECT_EQ(readFile((guardado + "/dentro.txt").toStdString()), "viejo");
  EXPECT_EQ(QDir(carpetaPostal() + "/CEUTA").entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden),
            QStringList{"CEUTA.xml"});
  // Not saved, and not an error: the fetch itself worked.
  EXPECT_EQ(mensajes.cuenta(TipoMensaje::Error) + mensajes.cuenta(TipoMensaje::Emergente), 0);
  EXPECT_EQ(simulador->peticiones().size(), 4);
}

TEST_F(Dialogo, SearchByProvinceGoesOnPastAMunicipalityWhoseAnswerCannotBeSaved) {
  REQUIERE_DATOS_COMPARTIDOS();
  arrancaSimulador({"--nombres-peligrosos"});
  auto d = abre();
  pulsa(d->RBTodosConUno);
  elige(d->CBProvincias, "SORIA");
  tabula();
  mensajes.limpia();
  pulsa(d->advGBBuscarViasPorProvincia);
  const int municipios = d->CBMunicipios->count();
  ASSERT_GE(municipios, 5);
  // ".." names no file: its notice, and every other one is saved.
  const QList<MensajeRegistrado> avisos = mensajes.deTipo(TipoMensaje::Emergente);
  ASSERT_EQ(avisos.size(), 1);
  EXPECT_EQ(avisos[0].texto, "No se ha podido importar ningún nombre de vía");
  EXPECT_EQ(QDir(carpetaPostal() + "/SORIA").entryList(QDir::Files | QDir::Hidden).size(), municipios - 1);
  EXPECT_EQ(d->oFormMensaje, nullptr);
}

// ---- LimpiaDatos, ConvierteProvincia, Indice, the mode-1 name ----

TEST_F(Dialogo, LimpiaDatosEmptiesTheGridAndTheCountAndKeepsTheHostChoice) {
  auto d = abre();
  d->SGVias->SetRowCount(4);
  for (int c = 0; c < 7; ++c) d->SGVias->SetCells(c, 1, QString::number(c));
  d->SGVias->SetCells(1, 3, "OTRA");
  d->LMensaje_->setText("Se han encontrado 3 vías");
  elige(d->CBProvinciasZelmor, "MADRID");
  d->LimpiaDatos(false);
  EXPECT_EQ(d->SGVias->RowCount(), 2);
  EXPECT_EQ(fila(d->SGVias, 1), (QStringList{"", "", "", "", "", "", ""}));
  EXPECT_TRUE(d->LMensaje_->text().isEmpty());
  EXPECT_EQ(d->CBProvinciasZelmor->currentText(), "MADRID");
}

TEST_F(Dialogo, LimpiaDatosWithCombosAlsoClearsBothHostChoices) {
  auto d = abre();
  elige(d->CBProvinciasZelmor, "MADRID");
  d->CBProvinciasZelmorExit(d->CBProvinciasZelmor);
  elige(d->CBMunicipiosZelmor, "GETAFE");
  d->LimpiaDatos(true);
  EXPECT_EQ(d->CBProvinciasZelmor->currentIndex(), -1);
  EXPECT_EQ(d->CBMunicipiosZelmor->currentIndex(), -1);
  EXPECT_EQ(d->CBMunicipiosZelmor->count(), 6) << "the lists stay";
}

TEST_F(Dialogo, ConvierteProvinciaGivesTheHostNameOfEachServiceName) {
  const QList<std::pair<QString, QString>> tabla = {
      {"ALACANT", "ALICANTE"}, {"ILLES BALEARS", "BALEARES"}, {"CASTELLO", "CASTELLON"},
      {"A CORUÑA", "CORUÑA"},  {"GIRONA", "GERONA"},          {"LLEIDA", "LERIDA"},
      {"OURENSE", "ORENSE"},   {"LA RIOJA", "RIOJA"},         {"CANTABRIA", "SANTANDER"}};
  for (const auto& [servicio, programa] : tabla)
    EXPECT_EQ(TFImportarVias::ConvierteProvincia(servicio), programa) << servicio.toStdString();
}

TEST_F(Dialogo, ConvierteProvinciaLeavesOtherNamesAndOtherCasesAlone) {
  EXPECT_EQ(TFImportarVias::ConvierteProvincia("MADRID"), "MADRID");
  EXPECT_EQ(TFImportarVias::ConvierteProvincia("lleida"), "lleida");
  EXPECT_EQ(TFImportarVias::ConvierteProvincia("LERIDA"), "LERIDA") << "one direction only";
  EXPECT_EQ(TFImportarVias::ConvierteProvincia(""), "");
}

TEST_F(Dialogo, IndiceOnTheHostProvincesUpperCasesThenConverts) {
  anadeProvincia(25, "LERIDA");
  auto d = abre();
  EXPECT_EQ(d->Indice(d->CBProvinciasZelmor, "lleida"), d->CBProvinciasZelmor->findText("LERIDA"));
  EXPECT_GE(d->Indice(d->CBProvinciasZelmor, "lleida"), 0);
  EXPECT_EQ(d->Indice(d->CBProvinciasZelmor, "madrid"), d->CBProvinciasZelmor->findText("MADRID"));
  EXPECT_EQ(d->Indice(d->CBProvinciasZelmor, "coruña (a)"), d->CBProvinciasZelmor->findText("CORUÑA (A)"));
  EXPECT_EQ(d->Indice(d->CBProvinciasZelmor, "A CORUÑA"), -1) << "CORUÑA is not CORUÑA (A)";
  EXPECT_EQ(d->Indice(d->CBProvinciasZelmor, "ATLANTIDA"), -1);
}

TEST_F(Dialogo, IndiceOnOtherCombosOnlyUpperCases) {
  auto d = crea();
  d->CBProvincias->addItems({"LERIDA", "LLEIDA", "MADRID"});
  d->CBMunicipiosZelmor->addItems({"ALCALA DE HENARES", "GETAFE", "ÑAÑA"});
  EXPECT_EQ(d->Indice(d->CBProvincias, "lleida"), 1);
  EXPECT_EQ(d->Indice(d->CBMunicipiosZelmor, "getafe"), 1);
  EXPECT_EQ(d->Indice(d->CBMunicipiosZelmor, "ñaña"), 2);
  EXPECT_EQ(d->Indice(d->CBMunicipiosZelmor, "GETAF"), -1) << "the whole text";
  EXPECT_EQ(d->Indice(d->CBMunicipios, "GETAFE"), -1);
}

TEST_F(Dialogo, ModeOneEntryNamesTheMunicipalityAfterItsFirstDash) {
  EXPECT_EQ(TFImportarVias::MunicipioDeEntradaCP("28-ALCALA DE HENARES"), "ALCALA DE HENARES");
  EXPECT_EQ(TFImportarVias::MunicipioDeEntradaCP("03- ALACANT_ALICANTE "), "ALACANT/ALICANTE");
  EXPECT_EQ(TFImportarVias::MunicipioDeEntradaCP("46-A_B_C"), "A/B/C");
  EXPECT_EQ(TFImportarVias::MunicipioDeEntradaCP("28-SAN MARTIN-VALDEIGLESIAS"), "SAN MARTIN-VALDEIGLESIAS");
}

TEST_F(Dialogo, ModeOneEntryWithoutDashIsTheMunicipalityWhole) {
  EXPECT_EQ(TFImportarVias::MunicipioDeEntradaCP("GETAFE"), "GETAFE");
  EXPECT_EQ(TFImportarVias::MunicipioDeEntradaCP(" GETAFE "), "GETAFE");
  EXPECT_EQ(TFImportarVias::MunicipioDeEntradaCP("ALACANT_ALICANTE"), "ALACANT/ALICANTE");
}

}  // namespace
