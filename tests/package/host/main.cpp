// Loads the package, creates a controller without controls and looks MADRID
// up, then one bound to a form of its own with a default address, prints
// what its controls show, frees both and unloads the package. Controllers
// are created and freed only through CreateClassCodPostal and
// DestroyClassCodPostal, as the host program does.
//   anfitrion CARPETA
#include <QApplication>
#include <QComboBox>
#include <QLineEdit>
#include <QTableView>
#include <QVBoxLayout>
#include <QWidget>
#include <cstdio>
#include <exception>

#include "dbase/core/error.h"
#include "dbase/TTable.h"
#include "lookup/ClaseCodPostales.h"
#include "lookup/CodPostalesDM.h"
#include "package/Paquete.h"

namespace {

int BuscaMadrid(const QString& carpeta) {
  TClaseCodPostales* c = CreateClassCodPostal(nullptr, carpeta, false, QString());
  int salida = 0;
  if (c->BuscaLocalidadPorNombre(QStringLiteral("MADRID"), true)) {
    std::printf("COD_INE %s\n", c->oDataModule->TMunicipiCOD_INE->AsString().toUtf8().constData());
  } else {
    std::fprintf(stderr, "anfitrion: MADRID no encontrado\n");
    salida = 1;
  }
  DestroyClassCodPostal(c);
  return salida;
}

// A form with the host's controls, the controller showing Getafe by default.
int FichaConGetafe(const QString& carpeta) {
  QWidget ficha;
  auto* capa = new QVBoxLayout(&ficha);
  auto* pais = new QComboBox(&ficha);
  auto* provincia = new QComboBox(&ficha);
  auto* localidad = new QLineEdit(&ficha);
  auto* domicilio = new QLineEdit(&ficha);
  auto* numero = new QLineEdit(&ficha);
  auto* codPostal = new QLineEdit(&ficha);
  auto* codIne = new QLineEdit(&ficha);
  auto* tipoVia = new QComboBox(&ficha);
  for (QWidget* w : {static_cast<QWidget*>(pais), static_cast<QWidget*>(provincia), static_cast<QWidget*>(localidad),
                     static_cast<QWidget*>(domicilio), static_cast<QWidget*>(numero),
                     static_cast<QWidget*>(codPostal), static_cast<QWidget*>(codIne),
                     static_cast<QWidget*>(tipoVia)})
    capa->addWidget(w);
  auto* rejillaLocalidad = new QTableView(&ficha);
  auto* rejillaDomicilio = new QTableView(&ficha);
  rejillaLocalidad->hide();
  rejillaDomicilio->hide();
  TClaseCodPostales* c = CreateClassCodPostal(
      &ficha, carpeta, true, nullptr, provincia, localidad, rejillaLocalidad, domicilio, rejillaDomicilio, numero,
      codPostal, codIne, tipoVia, pais, domicilio, numero, QStringLiteral("28"), QStringLiteral("GETAFE"),
      QStringLiteral("28065"), QStringLiteral("28901"));
  std::printf("ficha: %s | %s | %s | %s\n", provincia->currentText().toUtf8().constData(),
              localidad->text().toUtf8().constData(), codIne->text().toUtf8().constData(),
              codPostal->text().toUtf8().constData());
  DestroyClassCodPostal(c);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "uso: anfitrion CARPETA\n");
    return 2;
  }
  QApplication app(argc, argv);
  Initialize();
  const CodPostalesInfoPaquete* info = GetPackageInfoTable();
  std::printf("paquete %s %s:", info->Paquete, info->Version);
  for (int i = 0; i < info->NumUnidades; ++i) std::printf(" %s", info->Unidades[i].Nombre);
  std::printf("\n");

  const QString carpeta = QString::fromLocal8Bit(argv[1]);
  int salida = 0;
  try {
    salida = BuscaMadrid(carpeta);
    if (salida == 0) salida = FichaConGetafe(carpeta);
  } catch (const dbase::Error& e) {
    std::fprintf(stderr, "anfitrion: %s\n", e.what());
    salida = 1;
  }
  Finalize();
  CodPostalesEstadoUnidad estado;
  CodPostalesEstadoDeUnidad("ClaseCodPostales", &estado);
  std::printf("ClaseCodPostales: arranques %d, cierres %d, cargas %d\n", estado.Arranques, estado.Cierres,
              estado.Cargas);
  return salida;
}
