#include "lookup/CodPostalesDM.h"

#include "dbase/ReferenceTags.h"
#include "services/Rnumcad.h"
#include "services/Ruttb.h"

namespace {

// A table on a reference file with the tags the file declares and its
// design-time tag in force.
TTable* tablaDeReferencia(QObject* owner, const QString& fichero, const QString& indice) {
  auto* tabla = new TTable(owner);
  tabla->SetTableName(fichero);
  DeclaraIndicesDeReferencia(tabla);
  tabla->SetIndexName(indice);
  return tabla;
}

TDataSource* fuenteDeDatos(QObject* owner, TTable* tabla) {
  auto* fuente = new TDataSource(owner);
  fuente->SetDataSet(tabla);
  return fuente;
}

}  // namespace

TDMCodPostales::TDMCodPostales(QObject* AOwner) : QObject(AOwner) {
  TProvin = tablaDeReferencia(this, QStringLiteral("PROVIN.DBF"), QStringLiteral("CODIGO"));
  TMunicipiAux = tablaDeReferencia(this, QStringLiteral("MUNICIPI.DBF"), QStringLiteral("COD_INE"));
  TMunicipi = tablaDeReferencia(this, QStringLiteral("MUNICIPI.DBF"), QStringLiteral("COD_INE"));
  DSMunicipi = fuenteDeDatos(this, TMunicipi);
  TPostal = tablaDeReferencia(this, QStringLiteral("POSTAL.DBF"), QStringLiteral("VIA"));
  DSPostal = fuenteDeDatos(this, TPostal);
  TTipo_Via = tablaDeReferencia(this, QStringLiteral("TIPO_VIA.DBF"), QStringLiteral("CODIGO"));
  DSProvin = fuenteDeDatos(this, TProvin);
  DSTipo_Via = fuenteDeDatos(this, TTipo_Via);
  TPaises = tablaDeReferencia(this, QStringLiteral("PROVIN.DBF"), QStringLiteral("CODIGO"));
  DSPaises = fuenteDeDatos(this, TPaises);
  TMunicipiMJ = tablaDeReferencia(this, QStringLiteral("MUNICIMJ.DBF"), QStringLiteral("POBLLITE"));
  TMunicipiSinFiltro = tablaDeReferencia(this, QStringLiteral("MUNICIPI.DBF"), QStringLiteral("COD_INE"));
  // Named as the members, so messages and the host's inspection tell them apart.
  TProvin->setObjectName(QStringLiteral("TProvin"));
  TMunicipiAux->setObjectName(QStringLiteral("TMunicipiAux"));
  TMunicipi->setObjectName(QStringLiteral("TMunicipi"));
  DSMunicipi->setObjectName(QStringLiteral("DSMunicipi"));
  DSPostal->setObjectName(QStringLiteral("DSPostal"));
  TPostal->setObjectName(QStringLiteral("TPostal"));
  TTipo_Via->setObjectName(QStringLiteral("TTipo_Via"));
  DSProvin->setObjectName(QStringLiteral("DSProvin"));
  DSTipo_Via->setObjectName(QStringLiteral("DSTipo_Via"));
  TPaises->setObjectName(QStringLiteral("TPaises"));
  DSPaises->setObjectName(QStringLiteral("DSPaises"));
  TMunicipiMJ->setObjectName(QStringLiteral("TMunicipiMJ"));
  TMunicipiSinFiltro->setObjectName(QStringLiteral("TMunicipiSinFiltro"));

  TProvinCODIGO = TProvin->AddField("CODIGO");
  TProvinPROVINCIA = TProvin->AddField("PROVINCIA");
  TProvinGRUPO = TProvin->AddField("GRUPO");

  TMunicipiAuxCOD_INE = TMunicipiAux->AddField("COD_INE");
  TMunicipiAuxCODPOSTAL = TMunicipiAux->AddField("CODPOSTAL");
  TMunicipiAuxUNICO = TMunicipiAux->AddField("UNICO");
  TMunicipiAuxCAPITAL = TMunicipiAux->AddField("CAPITAL");
  TMunicipiAuxNOMBRE = TMunicipiAux->AddField("NOMBRE");
  TMunicipiAuxCOD_PROV = TMunicipiAux->AddField("COD_PROV");
  TMunicipiAuxCOD_MUN = TMunicipiAux->AddField("COD_MUN");
  TMunicipiAuxCOD_MUNMJ = TMunicipiAux->AddField("COD_MUNMJ");
  TMunicipiAuxENT_MENOR = TMunicipiAux->AddField("ENT_MENOR");

  TMunicipiCOD_INE = TMunicipi->AddField("COD_INE");
  TMunicipiCODPOSTAL = TMunicipi->AddField("CODPOSTAL");
  TMunicipiUNICO = TMunicipi->AddField("UNICO");
  TMunicipiCAPITAL = TMunicipi->AddField("CAPITAL");
  TMunicipiNOMBRE = TMunicipi->AddField("NOMBRE");
  TMunicipiCOD_PROV = TMunicipi->AddField("COD_PROV");
  TMunicipiCOD_MUN = TMunicipi->AddField("COD_MUN");
  TMunicipiCOD_MUNMJ = TMunicipi->AddField("COD_MUNMJ");
  TMunicipiENT_MENOR = TMunicipi->AddField("ENT_MENOR");
  TMunicipiccNOMBRE_COMPLETO = TMunicipi->AddCalcField("ccNOMBRE_COMPLETO", 100);
  TMunicipiccPROVINCIA = TMunicipi->AddCalcField("ccPROVINCIA", 100);
  TMunicipiccENT_MAYOR = TMunicipi->AddCalcField("ccENT_MAYOR", 30);
  TMunicipi->OnCalcFields = [this](TTable* t) { TMunicipiCalcFields(t); };

  TPostalVIA = TPostal->AddField("VIA");
  TPostalTIPO_VIA = TPostal->AddField("TIPO_VIA");
  TPostalIMPAR_INI = TPostal->AddField("IMPAR_INI");
  TPostalIMPAR_FIN = TPostal->AddField("IMPAR_FIN");
  TPostalPAR_INI = TPostal->AddField("PAR_INI");
  TPostalPAR_FIN = TPostal->AddField("PAR_FIN");
  TPostalCODPOSTAL = TPostal->AddField("CODPOSTAL");
  TPostalCAPITAL = TPostal->AddField("CAPITAL");
  TPostalPROVINCIA = TPostal->AddField("PROVINCIA");
  TPostalMUNICIPI = TPostal->AddField("MUNICIPI");
  TPostalCOD_INE = TPostal->AddField("COD_INE");
  TPostalNOMBRE_2 = TPostal->AddField("NOMBRE_2");
  TPostalCODIGO1 = TPostal->AddField("CODIGO1");

  TTipo_ViaCODIGO = TTipo_Via->AddField("CODIGO");
  TTipo_ViaNOMBRE = TTipo_Via->AddField("NOMBRE");

  TPaisesCODIGO = TPaises->AddField("CODIGO");
  TPaisesPROVINCIA = TPaises->AddField("PROVINCIA");
  TPaisesGRUPO = TPaises->AddField("GRUPO");

  TMunicipiMJPROVCOD = TMunicipiMJ->AddField("PROVCOD");
  TMunicipiMJPOBLCOD = TMunicipiMJ->AddField("POBLCOD");
  TMunicipiMJPOBLLITE = TMunicipiMJ->AddField("POBLLITE");
  // The municipality handler: it works on TMunicipi whatever calls it, and
  // this table has no calculated fields of its own, so it never runs here.
  TMunicipiMJ->OnCalcFields = [this](TTable* t) { TMunicipiCalcFields(t); };

  TMunicipiSinFiltroCOD_INE = TMunicipiSinFiltro->AddField("COD_INE");
  TMunicipiSinFiltroCODPOSTAL = TMunicipiSinFiltro->AddField("CODPOSTAL");
  TMunicipiSinFiltroUNICO = TMunicipiSinFiltro->AddField("UNICO");
  TMunicipiSinFiltroNOMBRE = TMunicipiSinFiltro->AddField("NOMBRE");
  TMunicipiSinFiltroCAPITAL = TMunicipiSinFiltro->AddField("CAPITAL");
  TMunicipiSinFiltroCOD_PROV = TMunicipiSinFiltro->AddField("COD_PROV");
  TMunicipiSinFiltroCOD_MUN = TMunicipiSinFiltro->AddField("COD_MUN");
  TMunicipiSinFiltroENT_MENOR = TMunicipiSinFiltro->AddField("ENT_MENOR");
  TMunicipiSinFiltroccNOMBRE_COMPLETO = TMunicipiSinFiltro->AddCalcField("ccNOMBRE_COMPLETO", 100);
  TMunicipiSinFiltroccPROVINCIA = TMunicipiSinFiltro->AddCalcField("ccPROVINCIA", 100);
  TMunicipiSinFiltroccENT_MAYOR = TMunicipiSinFiltro->AddCalcField("ccENT_MAYOR", 30);
  TMunicipiSinFiltro->OnCalcFields = [this](TTable* t) { TMunicipiSinFiltroCalcFields(t); };
}

TDMCodPostales::~TDMCodPostales() = default;

void TDMCodPostales::TMunicipiCalcFields(TTable*) {
  CalculaMunicipio(TMunicipi, {TMunicipiNOMBRE, TMunicipiENT_MENOR, TMunicipiCOD_INE, TMunicipiCOD_PROV,
                               TMunicipiccNOMBRE_COMPLETO, TMunicipiccPROVINCIA, TMunicipiccENT_MAYOR});
}

void TDMCodPostales::TMunicipiSinFiltroCalcFields(TTable*) {
  CalculaMunicipio(TMunicipiSinFiltro,
                   {TMunicipiSinFiltroNOMBRE, TMunicipiSinFiltroENT_MENOR, TMunicipiSinFiltroCOD_INE,
                    TMunicipiSinFiltroCOD_PROV, TMunicipiSinFiltroccNOMBRE_COMPLETO, TMunicipiSinFiltroccPROVINCIA,
                    TMunicipiSinFiltroccENT_MAYOR});
}

// The display name, the municipality a minor entity belongs to and the
// province name of the row being calculated.
//
// The walk over TMunicipiAux has no end-of-table test (Next on the last row
// stays there): it relies on the data holding the municipality's own row
// (ENT_MENOR false) for every code that has minor entities. The rows of one
// code are adjacent in the COD_INE order, so the walk stops on that row. The
// reference sets we write keep it (see data/muestra/README.md).
void TDMCodPostales::CalculaMunicipio(TTable* tabla, const CamposMunicipio& c) {
  if (tabla->State() != dsCalcFields) return;  // only while the table asks for its row
  const QString nombre = c.nombre->AsString();
  c.nombreCompleto->SetAsString(nombre);
  c.entMayor->Clear();
  if (c.entMenor->AsBoolean()) {
    TBIndexa(QStringLiteral("COD_INE"), TMunicipiAux);
    if (TBBusca(TMunicipiAux, {QStringLiteral("COD_INE"), c.codIne->AsString()}, true)) {
      while (TMunicipiAuxENT_MENOR->AsBoolean()) TMunicipiAux->Next();
      const QString mayor = TMunicipiAuxNOMBRE->AsString();
      c.nombreCompleto->SetAsString(nombre + QStringLiteral(" --> [") + mayor + QStringLiteral("]"));
      c.entMayor->SetAsString(mayor);
    }
  }

  TBIndexa(QStringLiteral("CODIGO"), TProvin);
  if (TBBusca(TProvin, {QStringLiteral("CODIGO"), Cad_Int(c.codProv->AsString())}, true))
    c.provincia->SetAsString(TProvinPROVINCIA->AsString());
}
