// The host's province names in the generated reference sets, as the import
// meets them: every province the street-directory service lists must lead,
// through ConvierteProvincia and Indice, to the host province of the same
// INE code, or the import cannot choose where to store its streets.
#include <QDomDocument>
#include <QFile>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>

#include "dbase/TTable.h"
#include "dialogo_comun.h"
#include "lookup/ClaseCodPostales.h"
#include "lookup/CodPostalesDM.h"

using namespace testsupport;

namespace {

struct ProvinciaServicio {
  QString nombre;
  int codigo = 0;
};

// The provinces of the recorded ConsultaProvincia answer.
QList<ProvinciaServicio> ProvinciasDelServicio() {
  QFile f(QString::fromStdString(sharedDir()) + "/ovc/ConsultaProvincia-2017.xml");
  if (!f.open(QIODevice::ReadOnly)) return {};
  QDomDocument doc;
  if (!doc.setContent(&f)) return {};
  QList<ProvinciaServicio> lista;
  const QDomNodeList provincias = doc.elementsByTagName("prov");
  for (int i = 0; i < provincias.size(); ++i) {
    const QDomElement p = provincias.at(i).toElement();
    lista.append({p.firstChildElement("np").text(), p.firstChildElement("cpine").text().toInt()});
  }
  return lista;
}

// Every service province found among the host's, with its own code.
void EsperaTodasLasProvinciasDelServicio(const QString& carpeta) {
  const QList<ProvinciaServicio> servicio = ProvinciasDelServicio();
  ASSERT_EQ(servicio.size(), 48);
  RegistroMensajes mensajes;
  PresentadorMensajesTemporal presentador(&mensajes);
  TFImportarVias d(nullptr, nullptr);
  d.sAlias = carpeta;
  d.CargaProvinciasZelmor();
  QStringList sinProvincia;
  for (const ProvinciaServicio& p : servicio) {
    const int i = d.Indice(d.CBProvinciasZelmor, p.nombre);
    if (i < 0) {
      sinProvincia << p.nombre;
      continue;
    }
    EXPECT_EQ(d.CBProvinciasZelmor->itemData(i).toInt(), p.codigo)
        << p.nombre.toStdString() << " -> " << d.CBProvinciasZelmor->itemText(i).toStdString();
  }
  EXPECT_TRUE(sinProvincia.isEmpty()) << sinProvincia.join(", ").toStdString();
}

// The look-up on the same set: provinces by their host names and codes, a
// municipality with its province.
void EsperaQueLaBusquedaSigaFuncionando(const QString& carpeta) {
  TClaseCodPostales* c = CreateClassCodPostal(nullptr, carpeta, false, QString());
  EXPECT_TRUE(c->BuscaProvinciaPorNombre("CORUÑA", true));
  EXPECT_TRUE(c->BuscaProvinciaPorCodigo("17", true));
  EXPECT_EQ(c->oDataModule->TProvinPROVINCIA->AsString(), "GERONA");
  EXPECT_TRUE(c->BuscaLocalidadPorNombre("GETAFE", true));
  EXPECT_EQ(c->BuscaCodIne("GETAFE", "28"), "28065");
  DestroyClassCodPostal(c);
}

class ProvinciasDelPrograma : public ::testing::Test {
 protected:
  static QString muestra() { return QStringLiteral(CODPOSTALES_SOURCE_DIR "/data/muestra"); }

  // The national set, generated once with few street stretches.
  static void SetUpTestSuite() {
    const std::string programa = std::string(CODPOSTALES_BINARY_DIR) + "/bin/generar_nacional";
    if (sharedDir().empty() || !std::filesystem::exists(programa)) return;
    nacional_ = new TempDir;
    const std::string orden = programa + " " + sharedDir() + "/data " + nacional_->path() + " --tramos 2000 > " +
                              nacional_->file("salida.txt") + " 2>&1";
    if (std::system(orden.c_str()) != 0) {
      delete nacional_;
      nacional_ = nullptr;
    }
  }
  static void TearDownTestSuite() {
    delete nacional_;
    nacional_ = nullptr;
  }
  static QString nacional() { return nacional_ ? QString::fromStdString(nacional_->path()) : QString(); }
  static inline TempDir* nacional_ = nullptr;
};

TEST_F(ProvinciasDelPrograma, EveryServiceProvinceFindsItsHostProvinceInTheSampleSet) {
  REQUIERE_DATOS_COMPARTIDOS();
  EsperaTodasLasProvinciasDelServicio(muestra());
}

TEST_F(ProvinciasDelPrograma, EveryServiceProvinceFindsItsHostProvinceInTheNationalSet) {
  REQUIERE_DATOS_COMPARTIDOS();
  if (nacional().isEmpty()) GTEST_SKIP() << "generar_nacional sin compilar o sin terminar";
  EsperaTodasLasProvinciasDelServicio(nacional());
}

TEST_F(ProvinciasDelPrograma, LookUpStillWorksOnTheSampleSet) { EsperaQueLaBusquedaSigaFuncionando(muestra()); }

TEST_F(ProvinciasDelPrograma, LookUpStillWorksOnTheNationalSet) {
  REQUIERE_DATOS_COMPARTIDOS();
  if (nacional().isEmpty()) GTEST_SKIP() << "generar_nacional sin compilar o sin terminar";
  EsperaQueLaBusquedaSigaFuncionando(nacional());
}

}  // namespace
