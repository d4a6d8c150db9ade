// The runs over saved answers: one province (advGBGuardarPorProvincia) or
// every province folder (the context menu's MIGuardarPorProvincia), matching
// each file to a host municipality by name, asking when none matches, and
// storing only single-postcode municipalities.
#include <QAction>
#include <QApplication>
#include <QComboBox>
#include <QDir>
#include <QFile>
#include <QPushButton>
#include <QRadioButton>
#include <QRegularExpression>
#include <QStyle>
#include <QStyleOptionButton>
#include <QTest>
#include <QTimer>
#include <gtest/gtest.h>
#include <filesystem>
#include <memory>
#include <set>

#include "dbase/ReferenceTags.h"
#include "dbase/TTable.h"
#include "dbase/core/dbf_file.h"
#include "dbase/core/mdx_build.h"
#include "dbase/core/mdx_tags.h"
#include "import/ImportarVias.h"
#include "lookup/ClaseCodPostales.h"
#include "lookup/CodPostalesDM.h"
#include "municipalities/ListadoMunicipios.h"
#include "platform/TStringGrid.h"
#include "services/Ruttb.h"
#include "servicio_comun.h"
#include "support/recorrido_mdx.h"
#include "support/referencia.h"

using testsupport::EntornoTemporal;
using testsupport::RespuestaSoap;

namespace {

struct Municipio {
  QString codIne, codPostal, unico, nombre, codProv;
};

void AnadeMunicipios(const std::string& carpeta, const QList<Municipio>& municipios) {
  std::unique_ptr<TTable> t(CreaTabla(QString::fromStdString(carpeta), QStringLiteral("MUNICIPI.DBF"), QString(), false, true));
  for (const Municipio& m : municipios) {
    t->Append();
    t->FieldByName(QStringLiteral("COD_INE"))->SetAsString(m.codIne);
    t->FieldByName(QStringLiteral("CODPOSTAL"))->SetAsString(m.codPostal);
    t->FieldByName(QStringLiteral("UNICO"))->SetAsString(m.unico);
    t->FieldByName(QStringLiteral("CAPITAL"))->SetAsString(QStringLiteral("N"));
    t->FieldByName(QStringLiteral("NOMBRE"))->SetAsString(m.nombre);
    t->FieldByName(QStringLiteral("COD_PROV"))->SetAsString(m.codProv);
    t->FieldByName(QStringLiteral("COD_MUN"))->SetAsString(QStringLiteral("0") + m.codIne.right(3));
    t->FieldByName(QStringLiteral("ENT_MENOR"))->SetAsString(QStringLiteral("F"));
    t->Post();
  }
}

void AnadeProvincia(const std::string& carpeta, const QString& codigo, const QString& nombre) {
  std::unique_ptr<TTable> t(CreaTabla(QString::fromStdString(carpeta), QStringLiteral("PROVIN.DBF"), QString(), false, true));
  t->Append();
  t->FieldByName(QStringLiteral("CODIGO"))->SetAsString(codigo);
  t->FieldByName(QStringLiteral("PROVINCIA"))->SetAsString(nombre);
  t->FieldByName(QStringLiteral("GRUPO"))->SetAsString(QStringLiteral("1"));
  t->Post();
}

QString Calles(const QStringList& nombres) {
  QString calles;
  for (const QString& n : nombres)
    calles += QStringLiteral("<calle><loine><cp>28</cp><cm>1</cm></loine><dir><cv>1</cv><tv>CL</tv><nv>%1</nv></dir></calle>").arg(n);
  return QStringLiteral("<consulta_callejero><control><cuca>%1</cuca></control><callejero>%2</callejero></consulta_callejero>")
      .arg(nombres.size())
      .arg(calles);
}

// The reference set's street table holds this many rows before any import.
int FilasDeReferencia(const std::string& alias) {
  std::unique_ptr<TTable> t(CreaTabla(QString::fromStdString(alias), QStringLiteral("POSTAL.DBF"), QString(), false, true));
  return t->RecordCount();
}

// The street rows the import appended after the first `previas`, as
// "MUNICIPI|TIPO_VIA|VIA|CODPOSTAL".
std::multiset<QString> CallesImportadas(TTable* postal, int previas) {
  std::multiset<QString> filas;
  TBIndexa(QString(), postal);
  for (postal->First(); !postal->Eof(); postal->Next()) {
    if (postal->RecNo() <= previas) continue;
    filas.insert(postal->FieldByName(QStringLiteral("MUNICIPI"))->AsString().trimmed() + u'|' +
                 postal->FieldByName(QStringLiteral("TIPO_VIA"))->AsString().trimmed() + u'|' +
                 postal->FieldByName(QStringLiteral("VIA"))->AsString().trimmed() + u'|' +
                 postal->FieldByName(QStringLiteral("CODPOSTAL"))->AsString().trimmed());
  }
  return filas;
}

// A wait window that fails when given one text, as any step of a run may.
class EsperaQueFalla : public RegistroMensajes {
 public:
  explicit EsperaQueFalla(QString texto) : texto_(std::move(texto)) {}
  void cambia(TVentanaEspera* ventana, const QString& texto) override {
    if (texto == texto_) throw std::runtime_error("la ventana de espera ha fallado");
    RegistroMensajes::cambia(ventana, texto);
  }

 private:
  QString texto_;
};

// A host reference set (street table POSTAL.DBF) with a few municipalities
// of its own, and the import dialog on a bare controller over it.
class GuardadoPorProvincia : public ::testing::Test {
 protected:
  void SetUp() override {
    testsupport::OpcionesReferencia opciones;
    opciones.postales = false;
    testsupport::escribeJuegoDeReferencia(alias.path(), opciones);
    AnadeMunicipios(alias.path(), {{"28200", "28200", "S", "ROSA (LA)", "28"},
                                   {"28201", "28201", "S", "VILA/VILLA", "28"},
                                   {"28202", "28202", "N", "VARIOS CODIGOS", "28"}});
    previas = FilasDeReferencia(alias.path());
  }

  void AbreDialogo() {
    controlador = std::make_unique<TClaseCodPostales>(nullptr, QString::fromStdString(alias.path()), true, QString());
    dialogo = std::make_unique<TFImportarVias>(nullptr, controlador.get());
    // A test that expects a question answers it itself.
    dialogo->PreguntaMunicipio = [](const QString& titulo, QString&, QString&) {
      ADD_FAILURE() << "asked: " << titulo.toStdString();
      return false;
    };
  }

  // The dialog in mode 3 with the service's province chosen, as a user
  // leaves it after searching (the province list is the service's).
  void Modo3(const QString& provincia) {
    AbreDialogo();
    dialogo->CargaProvinciasZelmor();
    dialogo->RBTodosConUno->setChecked(true);
    dialogo->CBProvincias->addItem(provincia);
    dialogo->CBProvincias->setCurrentIndex(0);
  }

  void Guarda(const QString& provincia, const QString& fichero, const QStringList& calles) {
    const QString carpeta = QString::fromStdString(alias.path()) + QStringLiteral("/POSTAL/") + provincia;
    ASSERT_TRUE(QDir().mkpath(carpeta));
    testsupport::writeFile((carpeta + u'/' + fichero).toStdString(), RespuestaSoap("Callejero", Calles(calles)).toStdString());
  }

  std::multiset<QString> Importadas() { return CallesImportadas(controlador->oDataModule->TPostal, previas); }

  testsupport::TempDir alias;
  int previas = 0;
  RegistroMensajes mensajes;
  PresentadorMensajesTemporal presentador{&mensajes};
  std::unique_ptr<TClaseCodPostales> controlador;
  std::unique_ptr<TFImportarVias> dialogo;
};

TEST_F(GuardadoPorProvincia, FileOfLaRosaMatchesTheHostsRosaLa) {
  Guarda("MADRID", "LA ROSA.xml", {"MAYOR", "SOL"});
  Modo3("MADRID");
  dialogo->advGBGuardarPorProvinciaClick();
  EXPECT_EQ(Importadas(),
            (std::multiset<QString>{"ROSA (LA)|CL|MAYOR|28200", "ROSA (LA)|CL|SOL|28200"}));
  EXPECT_TRUE(mensajes.deTipo(TipoMensaje::Info).isEmpty()) << "no count message in a province run";
}

TEST_F(GuardadoPorProvincia, FileNameWithBracketsMatchesAMunicipalityWithASlash) {
  Guarda("MADRID", "VILA()VILLA.xml", {"PLAZA"});
  Modo3("MADRID");
  dialogo->advGBGuardarPorProvinciaClick();
  EXPECT_EQ(Importadas(), (std::multiset<QString>{"VILA/VILLA|CL|PLAZA|28201"}));
}

TEST_F(GuardadoPorProvincia, SingleProvinceRunInModeOneOrTwoGivesTheOptionTwoError) {
  Guarda("MADRID", "LA ROSA.xml", {"MAYOR"});
  for (const bool modo1 : {true, false}) {
    Modo3("MADRID");
    (modo1 ? dialogo->RBMasDeUno : dialogo->RBUno)->setChecked(true);
    mensajes.limpia();
    dialogo->advGBGuardarPorProvinciaClick();
    ASSERT_EQ(mensajes.cuenta(TipoMensaje::Error), 1);
    EXPECT_EQ(mensajes.ultimo().texto,
              QStringLiteral("Para importar las vías de todos los municipios de una \nprovincia es necesario marcar la "
                             "opción 2ª"));
    EXPECT_EQ(mensajes.ultimo().titulo, QStringLiteral("Faltan datos"));
    EXPECT_TRUE(Importadas().empty());
  }
}

TEST_F(GuardadoPorProvincia, SingleProvinceRunWithoutProvinceAsksForIt) {
  Modo3("MADRID");
  dialogo->CBProvincias->setCurrentIndex(-1);
  dialogo->advGBGuardarPorProvinciaClick();
  ASSERT_EQ(mensajes.cuenta(TipoMensaje::Error), 1);
  EXPECT_EQ(mensajes.ultimo().texto,
            QStringLiteral("Para importar las vías de todos los \nmunicipios de una provincia es necesario indicarla"));
}

TEST_F(GuardadoPorProvincia, MissingFolderOrFilesAsksToSearchFirst) {
  Modo3("MADRID");
  dialogo->advGBGuardarPorProvinciaClick();  // no POSTAL folder
  ASSERT_TRUE(QDir().mkpath(QString::fromStdString(alias.path()) + QStringLiteral("/POSTAL/MADRID")));
  dialogo->advGBGuardarPorProvinciaClick();  // the folder, no file
  dialogo->MIGuardarPorProvinciaClick();     // the menu: a folder without files
  const QList<MensajeRegistrado> avisos = mensajes.deTipo(TipoMensaje::Info);
  ASSERT_EQ(avisos.size(), 3);
  for (const MensajeRegistrado& aviso : avisos) {
    EXPECT_EQ(aviso.titulo, QStringLiteral("Faltan los ficheros XML"));
    EXPECT_EQ(aviso.texto, QStringLiteral("Para importar las calles de los municipios de una provincia\nes necesario "
                                          "antes pinchar en buscar vías"));
  }
}

TEST_F(GuardadoPorProvincia, ProvinceWithASlashIsReadFromItsSavedFolder) {
  Guarda("MADRID()NORTE", "LA ROSA.xml", {"MAYOR"});
  Modo3("MADRID/NORTE");
  dialogo->PreguntaMunicipio = [](const QString&, QString& p, QString& m) {
    p = QStringLiteral("MADRID");
    m = QStringLiteral("ROSA (LA)");
    return true;
  };
  dialogo->advGBGuardarPorProvinciaClick();
  EXPECT_EQ(mensajes.cuenta(TipoMensaje::Info), 0);
  EXPECT_EQ(Importadas(), (std::multiset<QString>{"ROSA (LA)|CL|MAYOR|28200"}));
}

TEST_F(GuardadoPorProvincia, ProvinceNamedDotDotIsRefusedRatherThanReadOutsideThePostalFolder) {
  ASSERT_TRUE(QDir().mkpath(QString::fromStdString(alias.file("POSTAL/MADRID"))));
  testsupport::writeFile(alias.file("LA ROSA.xml"), RespuestaSoap("Callejero", Calles({"MAYOR"})).toStdString());
  Modo3("..");
  try {
    dialogo->advGBGuardarPorProvinciaClick();
    ADD_FAILURE() << "no error";
  } catch (const std::runtime_error& e) {
    EXPECT_EQ(QString::fromUtf8(e.what()), QStringLiteral("«..» no sirve como nombre de fichero o carpeta"));
  }
  EXPECT_TRUE(Importadas().empty());
  EXPECT_EQ(dialogo->oFormMensaje, nullptr);
}

TEST_F(GuardadoPorProvincia, MenuCommandRunsWhateverTheMode) {
  Guarda("MADRID", "LA ROSA.xml", {"MAYOR"});
  Modo3("MADRID");
  dialogo->RBUno->setChecked(true);
  dialogo->MIGuardarPorProvincia->trigger();
  EXPECT_EQ(Importadas(), (std::multiset<QString>{"ROSA (LA)|CL|MAYOR|28200"}));
}

TEST_F(GuardadoPorProvincia, MenuCommandInModeOneStoresUnderTheMunicipalitysPostcode) {
  Guarda("MADRID", "LA ROSA.xml", {"MAYOR"});
  testsupport::writeFile(alias.file("POSTAL/28-GETAFE.txt"), "28901: MAYOR, CALLE\r\n");
  AbreDialogo();
  dialogo->CargaProvinciasZelmor();
  dialogo->RBTodosConUno->setChecked(true);
  // Mode 1 chosen as the user does: its list is the postcode files, so the
  // province folder names none of it and the municipality is asked for.
  QStyleOptionButton opcion;
  opcion.initFrom(dialogo->RBMasDeUno);
  QTest::mouseClick(dialogo->RBMasDeUno, Qt::LeftButton, Qt::NoModifier,
                    dialogo->RBMasDeUno->style()
                        ->subElementRect(QStyle::SE_RadioButtonIndicator, &opcion, dialogo->RBMasDeUno)
                        .center());
  ASSERT_TRUE(dialogo->RBMasDeUno->isChecked());
  ASSERT_EQ(dialogo->CBProvincias->findText(QStringLiteral("28-GETAFE")), 0) << "the mode's handler ran";
  int preguntas = 0;
  dialogo->PreguntaMunicipio = [&](const QString&, QString& p, QString& m) {
    ++preguntas;
    p = QStringLiteral("MADRID");
    m = QStringLiteral("ROSA (LA)");
    return true;
  };
  dialogo->MIGuardarPorProvincia->trigger();
  EXPECT_EQ(preguntas, 1);
  EXPECT_EQ(Importadas(), (std::multiset<QString>{"ROSA (LA)|CL|MAYOR|28200"}));
  // Saved answers bring no numbers either: the whole street.
  TTable* postal = controlador->oDataModule->TPostal;
  TBIndexa(QString(), postal);
  postal->Last();
  EXPECT_EQ(QStringList({postal->FieldByName(QStringLiteral("IMPAR_INI"))->AsString(),
                         postal->FieldByName(QStringLiteral("IMPAR_FIN"))->AsString(),
                         postal->FieldByName(QStringLiteral("PAR_INI"))->AsString(),
                         postal->FieldByName(QStringLiteral("PAR_FIN"))->AsString()}),
            QStringList({"1", "9999", "2", "9998"}));
}

TEST_F(GuardadoPorProvincia, MenuCommandTakesOnlyPlainFolders) {
  Guarda("MADRID", "LA ROSA.xml", {"MAYOR"});
  Guarda(".MADRID", "LA ROSA.xml", {"OCULTA"});
  Guarda("SOLO LECTURA", "LA ROSA.xml", {"LECTURA"});
  const QString raiz = QString::fromStdString(alias.path()) + QStringLiteral("/POSTAL/");
  QFile::setPermissions(raiz + QStringLiteral("SOLO LECTURA"), QFileDevice::ReadOwner | QFileDevice::ExeOwner);
  ASSERT_TRUE(QFile::link(raiz + QStringLiteral("MADRID"), raiz + QStringLiteral("ENLACE")));
  testsupport::writeFile((raiz + QStringLiteral("suelto.xml")).toStdString(), "no es una carpeta");
  Modo3("MADRID");
  // Every province of the folders is known to the service's list.
  for (const char* p : {".MADRID", "SOLO LECTURA", "ENLACE"}) dialogo->CBProvincias->addItem(QString::fromLatin1(p));
  dialogo->MIGuardarPorProvinciaClick();
  QFile::setPermissions(raiz + QStringLiteral("SOLO LECTURA"),
                        QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
  EXPECT_EQ(Importadas(), (std::multiset<QString>{"ROSA (LA)|CL|MAYOR|28200"}));
}

TEST_F(GuardadoPorProvincia, MenuCommandClearsBothProvinceChoicesAtEachFolder) {
  Guarda("MADRID", "LA ROSA.xml", {"MAYOR"});
  Modo3("MADRID");
  dialogo->CBProvinciasZelmor->setCurrentIndex(dialogo->Indice(dialogo->CBProvinciasZelmor, QStringLiteral("TOLEDO")));
  dialogo->MIGuardarPorProvinciaClick();
  EXPECT_EQ(Importadas(), (std::multiset<QString>{"ROSA (LA)|CL|MAYOR|28200"}))
      << "the host province follows the folder, not the earlier choice";
}

TEST_F(GuardadoPorProvincia, SeveralPostcodeMunicipalitiesAreSkippedSilently) {
  Guarda("MADRID", "VARIOS CODIGOS.xml", {"MAYOR"});
  Modo3("MADRID");
  dialogo->advGBGuardarPorProvinciaClick();
  EXPECT_TRUE(Importadas().empty());
  EXPECT_EQ(mensajes.cuenta(TipoMensaje::Info) + mensajes.cuenta(TipoMensaje::Error), 0);
  EXPECT_EQ(dialogo->oResumenGuardado.nVariosCodigos, 1);
}

TEST_F(GuardadoPorProvincia, UnmatchedNameIsAskedWithTheProvinceInTheHostsSpelling) {
  Guarda("A CORUÑA", "SOBRADO DOS MONXES.xml", {"MAYOR"});
  Modo3("A CORUÑA");
  QString titulo, provincia, municipio;
  dialogo->PreguntaMunicipio = [&](const QString& t, QString& p, QString& m) {
    titulo = t;
    provincia = p;
    municipio = m;
    return false;
  };
  dialogo->advGBGuardarPorProvinciaClick();
  EXPECT_EQ(titulo, QStringLiteral("Seleccione el municipio donde importar las vias de SOBRADO DOS MONXES (A CORUÑA)"));
  EXPECT_EQ(provincia, QStringLiteral("CORUÑA"));
  EXPECT_EQ(municipio, QStringLiteral("SOBRADO DOS MONXES"));
}

TEST_F(GuardadoPorProvincia, MunicipalityChosenByTheUserIsStored) {
  Guarda("MADRID", "NINGUNO.xml", {"MAYOR"});
  Modo3("MADRID");
  dialogo->PreguntaMunicipio = [&](const QString&, QString& p, QString& m) {
    EXPECT_EQ(p, QStringLiteral("MADRID"));
    m = QStringLiteral("SOBRADO");
    return true;
  };
  dialogo->advGBGuardarPorProvinciaClick();
  EXPECT_EQ(Importadas(), (std::multiset<QString>{"SOBRADO|CL|MAYOR|28140"}));
}

TEST_F(GuardadoPorProvincia, UnmatchedNameLeftUnchosenIsSkipped) {
  Guarda("MADRID", "NINGUNO.xml", {"MAYOR"});
  Guarda("MADRID", "LA ROSA.xml", {"SOL"});
  Modo3("MADRID");
  int preguntas = 0;
  dialogo->PreguntaMunicipio = [&](const QString&, QString&, QString&) { return ++preguntas, false; };
  dialogo->advGBGuardarPorProvinciaClick();
  EXPECT_EQ(preguntas, 1);
  EXPECT_EQ(Importadas(), (std::multiset<QString>{"ROSA (LA)|CL|SOL|28200"}));
  EXPECT_EQ(dialogo->oResumenGuardado.lSinMunicipio, QStringList{QStringLiteral("NINGUNO (MADRID)")});
}

TEST_F(GuardadoPorProvincia, UnmatchedNameOpensTheMunicipalityListTitledForIt) {
  Guarda("MADRID", "NINGUNO.xml", {"MAYOR"});
  Modo3("MADRID");
  dialogo->PreguntaMunicipio = nullptr;  // the municipality list itself
  QString titulo;
  int aceptados = 0;
  // The list is modal: answer it from the event loop, once to cancel and
  // once to accept SOBRADO.
  const auto responde = [&](bool acepta) {
    QTimer::singleShot(0, [&, acepta] {
      auto* listado = qobject_cast<TFListadoMunicipios*>(QApplication::activeModalWidget());
      ASSERT_NE(listado, nullptr);
      titulo = listado->windowTitle();
      if (!acepta) {
        listado->advGBCancelar->click();
        return;
      }
      ++aceptados;
      ASSERT_TRUE(listado->oClaseCodPostales->BuscaLocalidadPorNombre(QStringLiteral("SOBRADO"), true));
      listado->advGBAceptar->click();
    });
  };
  responde(false);
  dialogo->advGBGuardarPorProvinciaClick();
  EXPECT_EQ(titulo, QStringLiteral("Seleccione el municipio donde importar las vias de NINGUNO (MADRID)"));
  EXPECT_TRUE(Importadas().empty());
  responde(true);
  dialogo->advGBGuardarPorProvinciaClick();
  EXPECT_EQ(aceptados, 1);
  EXPECT_EQ(Importadas(), (std::multiset<QString>{"SOBRADO|CL|MAYOR|28140"}));
}

TEST_F(GuardadoPorProvincia, RunLeavesNoProvinceStateBehind) {
  Guarda("MADRID", "LA ROSA.xml", {"MAYOR"});
  Guarda("MADRID", "ROTO.xml", {});
  testsupport::writeFile(alias.file("POSTAL/MADRID/ROTO.xml"), "<soap:Envelope><roto");
  AnadeMunicipios(alias.path(), {{"28203", "28203", "S", "ROTO", "28"}});
  Modo3("MADRID");
  dialogo->advGBGuardarPorProvinciaClick();
  EXPECT_FALSE(dialogo->bPorProvincias);
  EXPECT_EQ(dialogo->oFormMensaje, nullptr);
  EXPECT_EQ(mensajes.cuenta(TipoMensaje::Muestra), mensajes.cuenta(TipoMensaje::Cierra)) << "every window closed";
  EXPECT_FALSE(controlador->oDataModule->TPostal->ControlsDisabled());
  EXPECT_EQ(Importadas(), (std::multiset<QString>{"ROSA (LA)|CL|MAYOR|28200"}));
  ASSERT_EQ(mensajes.cuenta(TipoMensaje::Error), 1) << "the unreadable answer is named at the end";
  EXPECT_EQ(mensajes.ultimo().titulo, QStringLiteral("Importación incompleta"));
  EXPECT_TRUE(mensajes.ultimo().texto.endsWith(QStringLiteral("\nROTO.xml")));
}

TEST_F(GuardadoPorProvincia, FailureBeforeStoringAFileClosesItsWaitWindow) {
  Guarda("MADRID", "LA ROSA.xml", {"MAYOR"});
  Modo3("MADRID");
  // The host province chosen beforehand, so the file's window stays open
  // until the step that names the matched municipality, which fails.
  dialogo->CBProvinciasZelmor->setCurrentIndex(dialogo->Indice(dialogo->CBProvinciasZelmor, QStringLiteral("MADRID")));
  dialogo->CBProvinciasZelmorExit(dialogo->CBProvinciasZelmor);
  EsperaQueFalla falla(QStringLiteral("Importando las calles de ROSA (LA)"));
  const PresentadorMensajesTemporal usa(&falla);
  EXPECT_THROW(dialogo->advGBGuardarPorProvinciaClick(), std::runtime_error);
  EXPECT_EQ(dialogo->oFormMensaje, nullptr);
  EXPECT_EQ(falla.cuenta(TipoMensaje::Muestra), 1);
  EXPECT_EQ(falla.cuenta(TipoMensaje::Cierra), 1);
  EXPECT_FALSE(dialogo->bPorProvincias);
  EXPECT_FALSE(controlador->oDataModule->TPostal->ControlsDisabled());
  EXPECT_TRUE(Importadas().empty());
}

TEST_F(GuardadoPorProvincia, FailureWhileStoringLeavesNoProvinceStateBehind) {
  Guarda("MADRID", "LA ROSA.xml", {"MAYOR"});
  // A street code that is no number: the next code cannot be worked out.
  {
    std::unique_ptr<TTable> t(CreaTabla(QString::fromStdString(alias.path()), QStringLiteral("POSTAL.DBF"), QString(), false, true));
    t->Append();
    t->FieldByName(QStringLiteral("VIA"))->SetAsString(QStringLiteral("ROTA"));
    t->FieldByName(QStringLiteral("CODIGO1"))->SetAsString(QStringLiteral("A-12"));
    t->Post();
  }
  ++previas;
  Modo3("MADRID");
  EXPECT_ANY_THROW(dialogo->advGBGuardarPorProvinciaClick());
  EXPECT_FALSE(dialogo->bPorProvincias);
  EXPECT_EQ(dialogo->oFormMensaje, nullptr);
  EXPECT_EQ(mensajes.cuenta(TipoMensaje::Muestra), mensajes.cuenta(TipoMensaje::Cierra));
  EXPECT_TRUE(Importadas().empty());
}

TEST_F(GuardadoPorProvincia, WaitWindowLeftOpenIsClosedBeforeTheFirstFile) {
  Guarda("MADRID", "LA ROSA.xml", {"MAYOR"});
  Modo3("MADRID");
  dialogo->oFormMensaje = MuestraMensaje(QStringLiteral("Otra tarea"), dialogo.get());
  mensajes.limpia();
  dialogo->advGBGuardarPorProvinciaClick();
  ASSERT_FALSE(mensajes.mensajes().isEmpty());
  EXPECT_EQ(mensajes.mensajes().first().tipo, TipoMensaje::Cierra);
  EXPECT_EQ(mensajes.mensajes().first().texto, QStringLiteral("Otra tarea"));
  EXPECT_EQ(mensajes.cuenta(TipoMensaje::Cierra), mensajes.cuenta(TipoMensaje::Muestra) + 1);
  EXPECT_EQ(dialogo->oFormMensaje, nullptr);
  EXPECT_EQ(Importadas(), (std::multiset<QString>{"ROSA (LA)|CL|MAYOR|28200"}));
}

const QString kIlegibles =
    QStringLiteral("No se han podido leer estas respuestas guardadas y sus vías no se han importado:\n");

TEST_F(GuardadoPorProvincia, UnreadableAnswersOfEveryFolderAreToldOnceAtTheEnd) {
  Guarda("MADRID", "LA ROSA.xml", {"MAYOR"});
  testsupport::writeFile(alias.file("POSTAL/MADRID/ROTO.xml"), "<soap:Envelope><roto");
  ASSERT_TRUE(QDir().mkpath(QString::fromStdString(alias.file("POSTAL/TOLEDO"))));
  testsupport::writeFile(alias.file("POSTAL/TOLEDO/MAL.xml"), "<soap:Envelope><mal");
  AnadeMunicipios(alias.path(), {{"28203", "28203", "S", "ROTO", "28"}, {"45900", "45900", "S", "MAL", "45"}});
  Modo3("MADRID");
  dialogo->CBProvincias->addItem(QStringLiteral("TOLEDO"));
  dialogo->MIGuardarPorProvinciaClick();
  EXPECT_EQ(Importadas(), (std::multiset<QString>{"ROSA (LA)|CL|MAYOR|28200"}));
  ASSERT_EQ(mensajes.cuenta(TipoMensaje::Error), 1);
  EXPECT_EQ(mensajes.ultimo().tipo, TipoMensaje::Error) << "after every folder";
  EXPECT_EQ(mensajes.ultimo().titulo, QStringLiteral("Importación incompleta"));
  EXPECT_EQ(mensajes.ultimo().texto, kIlegibles + QStringLiteral("ROTO.xml\nMAL.xml"));
}

TEST_F(GuardadoPorProvincia, UnreadableAnswersBeyondTwentyAreCounted) {
  QList<Municipio> rotos;
  for (int i = 1; i <= 23; ++i) {
    const QString nombre = QStringLiteral("ROTO %1").arg(i, 2, 10, QLatin1Char('0'));
    rotos << Municipio{QStringLiteral("28%1").arg(300 + i), QStringLiteral("28%1").arg(300 + i), "S", nombre, "28"};
    Guarda("MADRID", nombre + QStringLiteral(".xml"), {});
    testsupport::writeFile(alias.file(("POSTAL/MADRID/" + nombre + ".xml").toStdString()), "<roto");
  }
  AnadeMunicipios(alias.path(), rotos);
  Modo3("MADRID");
  dialogo->advGBGuardarPorProvinciaClick();
  const QStringList ilegibles = dialogo->oResumenGuardado.lIlegibles;
  ASSERT_EQ(ilegibles.size(), 23);
  ASSERT_EQ(mensajes.cuenta(TipoMensaje::Error), 1);
  EXPECT_EQ(mensajes.ultimo().titulo, QStringLiteral("Importación incompleta"));
  EXPECT_EQ(mensajes.ultimo().texto, kIlegibles + ilegibles.mid(0, 20).join(u'\n') + QStringLiteral("\ny 3 más"));
}

TEST_F(GuardadoPorProvincia, ProgressNamesTheFileThenTheMunicipality) {
  Guarda("MADRID", "LA ROSA.xml", {"MAYOR", "SOL"});
  Modo3("MADRID");
  dialogo->advGBGuardarPorProvinciaClick();
  QStringList llamadas;
  for (const MensajeRegistrado& m : mensajes.mensajes()) {
    if (m.tipo == TipoMensaje::Muestra) llamadas << QStringLiteral("Muestra: ") + m.texto;
    if (m.tipo == TipoMensaje::Cambia) llamadas << QStringLiteral("Cambia: ") + m.texto;
    if (m.tipo == TipoMensaje::Cierra) llamadas << QStringLiteral("Cierra");
  }
  const QString fichero = QDir::cleanPath(QString::fromStdString(alias.file("POSTAL/MADRID/LA ROSA.xml")));
  // Loading the host's municipalities of the province closes the file's
  // window, so the municipality's opens anew.
  EXPECT_EQ(llamadas, (QStringList{QStringLiteral("Muestra: Importando las calles de ") + fichero,
                                   "Cierra",
                                   "Muestra: Importando las calles de ROSA (LA)",
                                   "Cambia: Cargando datos de vías",
                                   "Cambia: Importando las calles... 1 de 2 de ROSA (LA)",
                                   "Cambia: Importando las calles... 2 de 2 de ROSA (LA)",
                                   "Cierra"}));
}

TEST_F(GuardadoPorProvincia, ProgressOfALaterFileRenamesItsWindowForTheMunicipality) {
  Guarda("MADRID", "LA ROSA.xml", {"MAYOR"});
  Guarda("MADRID", "VILA()VILLA.xml", {"PLAZA"});
  Modo3("MADRID");
  dialogo->advGBGuardarPorProvinciaClick();
  QStringList llamadas;
  bool segundo = false;
  for (const MensajeRegistrado& m : mensajes.mensajes()) {
    segundo = segundo || (m.tipo == TipoMensaje::Muestra && m.texto.endsWith(QStringLiteral("VILA()VILLA.xml")));
    if (!segundo) continue;
    if (m.tipo == TipoMensaje::Muestra) llamadas << QStringLiteral("Muestra: ") + m.texto;
    if (m.tipo == TipoMensaje::Cambia) llamadas << QStringLiteral("Cambia: ") + m.texto;
    if (m.tipo == TipoMensaje::Cierra) llamadas << QStringLiteral("Cierra");
  }
  // The host province stays chosen: the file's window goes on for the
  // municipality.
  const QString fichero = QDir::cleanPath(QString::fromStdString(alias.file("POSTAL/MADRID/VILA()VILLA.xml")));
  EXPECT_EQ(llamadas, (QStringList{QStringLiteral("Muestra: Importando las calles de ") + fichero,
                                   "Cambia: Importando las calles de VILA/VILLA",
                                   "Cambia: Cargando datos de vías",
                                   "Cambia: Importando las calles... 1 de 1 de VILA/VILLA",
                                   "Cierra"}));
}

TEST_F(GuardadoPorProvincia, SavedAnswerWithoutStreetsStoresNothing) {
  Guarda("MADRID", "LA ROSA.xml", {});
  Modo3("MADRID");
  dialogo->advGBGuardarPorProvinciaClick();
  EXPECT_TRUE(Importadas().empty());
  EXPECT_EQ(dialogo->oResumenGuardado.nViasGuardadas, 0);
}

TEST_F(GuardadoPorProvincia, ProvinceRunsRefuseADialogWithoutController) {
  Guarda("MADRID", "LA ROSA.xml", {"MAYOR"});
  TFImportarVias soloServicio(nullptr, nullptr);
  soloServicio.sAlias = QString::fromStdString(alias.path());
  soloServicio.RBTodosConUno->setChecked(true);
  soloServicio.CBProvincias->addItem(QStringLiteral("MADRID"));
  soloServicio.CBProvincias->setCurrentIndex(0);
  EXPECT_THROW(soloServicio.advGBGuardarPorProvinciaClick(), std::logic_error);
  EXPECT_THROW(soloServicio.MIGuardarPorProvinciaClick(), std::logic_error);
  EXPECT_TRUE(mensajes.vacio());
  // From the menu, the dialog says so.
  soloServicio.MIGuardarPorProvincia->trigger();
  ASSERT_EQ(mensajes.cuenta(TipoMensaje::Error), 1);
  EXPECT_EQ(mensajes.ultimo().texto, QStringLiteral("Guardar las vías de las provincias necesita el controlador de "
                                                    "códigos postales, y el diálogo no lo tiene"));
  EXPECT_EQ(soloServicio.oFormMensaje, nullptr);
  EXPECT_FALSE(soloServicio.bPorProvincias);
  EXPECT_EQ(FilasDeReferencia(alias.path()), previas);
}

TEST_F(GuardadoPorProvincia, SecondRunAddsNothing) {
  Guarda("MADRID", "LA ROSA.xml", {"MAYOR", "SOL"});
  Guarda("MADRID", "VILA()VILLA.xml", {"PLAZA"});
  Modo3("MADRID");
  dialogo->advGBGuardarPorProvinciaClick();
  const std::multiset<QString> primera = Importadas();
  ASSERT_EQ(primera.size(), 3u);
  dialogo->MIGuardarPorProvinciaClick();
  EXPECT_EQ(Importadas(), primera);
}

// Each town's run ends while the next town is read; the run over the
// province is over once the last one's index is on disk: nothing of the
// table is used again here before the file is walked.
TEST_F(GuardadoPorProvincia, StreetTableIndexIsWholeOnDiskWhenTheRunReturns) {
  const std::string postal = alias.path() + "/POSTAL.DBF";
  {
    auto tabla = dbase::DbfFile::open(postal);
    dbase::rebuildProductionIndex(*tabla, DefinicionesDeIndiceDeReferencia(QStringLiteral("POSTAL.DBF"), *tabla));
  }
  Guarda("MADRID", "LA ROSA.xml", {"MAYOR", "SOL", "ALCALA", "PRADO"});
  Guarda("MADRID", "VILA()VILLA.xml", {"PLAZA", "ATOCHA", "BAILEN"});
  Modo3("MADRID");
  dialogo->advGBGuardarPorProvinciaClick();
  const std::string indice = dbase::MdxTags::pathFor(postal);
  EXPECT_FALSE(std::filesystem::exists(dbase::MdxTags::markFor(indice)));
  const uint32_t filas = uint32_t(previas) + 7;
  const auto recorridos = testsupport::recorridosDelMotor(indice);
  ASSERT_EQ(recorridos.size(), 4u);
  for (const auto& [etiqueta, recorrido] : recorridos)
    EXPECT_EQ(testsupport::faltaOSobra(recorrido, filas), "") << "índice " << etiqueta;
  EXPECT_EQ(Importadas().size(), 7u);
}

// A real province end to end: its municipalities fetched from the simulator
// and saved (mode 3's search button), then stored with the menu command.
TEST(GuardadoDeUnaProvinciaReal, StoresExactlyTheStreetsOfItsSinglePostcodeMunicipalities) {
  REQUIERE_DATOS_COMPARTIDOS();
  testsupport::TempDir alias;
  testsupport::OpcionesReferencia opciones;
  opciones.postales = false;
  testsupport::escribeJuegoDeReferencia(alias.path(), opciones);
  AnadeProvincia(alias.path(), QStringLiteral("35"), QStringLiteral("LAS PALMAS"));
  const int previas = FilasDeReferencia(alias.path());

  // The host's municipalities of the province, from the service's own list:
  // leading articles at the end as the host writes them, every other one
  // with several postcodes, and one the host does not have.
  testsupport::SimuladorOvc simulador;
  EntornoTemporal url("CODPOSTALES_OVC_URL", simulador.url().toUtf8());
  EntornoTemporal intervalo("CODPOSTALES_OVC_INTERVALO_MS", "0");
  RegistroMensajes mensajes;
  PresentadorMensajesTemporal presentador(&mensajes);
  QStringList nombres;
  {
    TFImportarVias cliente(nullptr, nullptr);
    cliente.CBProvincias->addItem(QStringLiteral("LAS PALMAS"));
    ASSERT_TRUE(cliente.TraeMunicipios(0));
    for (int i = 0; i < cliente.CBMunicipios->count(); ++i) nombres << cliente.CBMunicipios->itemText(i);
  }
  ASSERT_EQ(nombres.size(), 34);
  QList<Municipio> municipios;
  QMap<QString, QString> deLaTabla;  // service name -> host name, single-postcode only
  int conPunto = 0;
  int variosCodigos = 0;
  for (int i = 0; i + 1 < nombres.size(); ++i) {  // the last one (YAIZA) is not the host's
    QString nombre = nombres[i];
    for (const char* articulo : {"LA ", "LAS "})
      if (nombre.startsWith(QLatin1String(articulo)))
        nombre = nombre.mid(int(strlen(articulo))) + QStringLiteral(" (") + QLatin1String(articulo).trimmed() + u')';
    const QString codigo = QStringLiteral("35%1").arg(i + 1, 3, 10, QLatin1Char('0'));
    municipios << Municipio{codigo, codigo, i % 2 == 0 ? "S" : "N", nombre, "35"};
    if (i % 2 == 1 && !nombres[i].contains(u'.')) ++variosCodigos;
    // A saved file's name is cut at its first ".", so S.BARTOLOME TIRAJANA
    // is asked about rather than matched.
    if (i % 2 == 0 && !nombres[i].contains(u'.')) deLaTabla[nombres[i]] = nombre;
    if (nombres[i].contains(u'.')) ++conPunto;
  }
  AnadeMunicipios(alias.path(), municipios);

  TClaseCodPostales controlador(nullptr, QString::fromStdString(alias.path()), true, QString());
  TFImportarVias dialogo(nullptr, &controlador);
  dialogo.show();
  QTest::mouseClick(dialogo.RBTodosConUno, Qt::LeftButton);
  ASSERT_EQ(dialogo.CBProvincias->count(), 48);
  dialogo.CBProvincias->setCurrentIndex(dialogo.CBProvincias->findText(QStringLiteral("LAS PALMAS")));
  QTest::mouseClick(dialogo.advGBBuscarViasPorProvincia, Qt::LeftButton);
  const QDir guardadas(QString::fromStdString(alias.path()) + QStringLiteral("/POSTAL/LAS PALMAS"));
  ASSERT_EQ(guardadas.entryList({QStringLiteral("*.xml")}).size(), 34);

  // What the saved answers hold for the single-postcode municipalities.
  std::multiset<QString> esperadas;
  for (auto it = deLaTabla.cbegin(); it != deLaTabla.cend(); ++it) {
    const QString respuesta = QString::fromStdString(
        testsupport::readFile(guardadas.filePath(QString(it.key()).replace(u'/', QStringLiteral("()")) + ".xml").toStdString()));
    const QRegularExpression calle(QStringLiteral("<tv>([^<]*)</tv>\\s*<nv>([^<]*)</nv>"));
    const QString postal = [&] {
      for (const Municipio& m : municipios)
        if (m.nombre == it.value()) return m.codPostal;
      return QString();
    }();
    for (auto m = calle.globalMatch(respuesta); m.hasNext();) {
      const QRegularExpressionMatch c = m.next();
      esperadas.insert(it.value() + u'|' + c.captured(1) + u'|' + c.captured(2) + u'|' + postal);
    }
  }
  ASSERT_GT(esperadas.size(), 50u);

  int preguntas = 0;
  dialogo.PreguntaMunicipio = [&](const QString&, QString&, QString&) { return ++preguntas, false; };
  dialogo.MIGuardarPorProvincia->trigger();
  EXPECT_EQ(CallesImportadas(controlador.oDataModule->TPostal, previas), esperadas);
  EXPECT_EQ(conPunto, 3);
  EXPECT_EQ(preguntas, 1 + conPunto) << "YAIZA, which the host lacks, and the names with a dot";
  EXPECT_EQ(dialogo.oResumenGuardado.nMunicipiosGuardados, int(deLaTabla.size()));
  EXPECT_EQ(dialogo.oResumenGuardado.nVariosCodigos, variosCodigos);

  dialogo.MIGuardarPorProvincia->trigger();
  EXPECT_EQ(CallesImportadas(controlador.oDataModule->TPostal, previas), esperadas) << "a second run adds nothing";
  EXPECT_EQ(dialogo.oResumenGuardado.nViasGuardadas, 0);
}

}  // namespace
