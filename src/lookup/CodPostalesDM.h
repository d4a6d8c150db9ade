// TDMCodPostales: the reference tables of one address controller. Eight table
// objects over five files, the data sources the grids show, the persistent
// field objects (named table + field) and the calculated municipality fields.
//
// The tables only know their files and tags here; the controller points them
// at its alias and opens them (AbreTablas) and closes them (CierraTablas).
#pragma once

#include <QObject>

#include "dbase/TDataSource.h"
#include "dbase/TTable.h"

class TDMCodPostales : public QObject {
  Q_OBJECT
 public:
  explicit TDMCodPostales(QObject* AOwner = nullptr);
  ~TDMCodPostales() override;

  // Calculated fields of the current row of TMunicipi, respectively
  // TMunicipiSinFiltro. The argument is not used: each works on its own table.
  void TMunicipiCalcFields(TTable* DataSet);
  void TMunicipiSinFiltroCalcFields(TTable* DataSet);

  // Members in their declared order.
  TTable* TProvin;
  TTable* TMunicipiAux;
  TTable* TMunicipi;
  TDataSource* DSMunicipi;
  TDataSource* DSPostal;
  TTable* TPostal;
  TTable* TTipo_Via;
  TDataSource* DSProvin;
  TDataSource* DSTipo_Via;
  TTable* TPaises;
  TDataSource* DSPaises;
  TTable* TMunicipiMJ;
  TTable* TMunicipiSinFiltro;

  TField* TProvinCODIGO;
  TField* TProvinPROVINCIA;
  TField* TProvinGRUPO;

  TField* TMunicipiAuxCOD_INE;
  TField* TMunicipiAuxCODPOSTAL;
  TField* TMunicipiAuxUNICO;
  TField* TMunicipiAuxCAPITAL;
  TField* TMunicipiAuxNOMBRE;
  TField* TMunicipiAuxCOD_PROV;
  TField* TMunicipiAuxCOD_MUN;
  TField* TMunicipiAuxCOD_MUNMJ;
  TField* TMunicipiAuxENT_MENOR;

  TField* TMunicipiCOD_INE;
  TField* TMunicipiCODPOSTAL;
  TField* TMunicipiUNICO;
  TField* TMunicipiCAPITAL;
  TField* TMunicipiNOMBRE;
  TField* TMunicipiCOD_PROV;
  TField* TMunicipiCOD_MUN;
  TField* TMunicipiCOD_MUNMJ;
  TField* TMunicipiENT_MENOR;
  TField* TMunicipiccNOMBRE_COMPLETO;
  TField* TMunicipiccPROVINCIA;
  TField* TMunicipiccENT_MAYOR;

  TField* TPostalVIA;
  TField* TPostalTIPO_VIA;
  TField* TPostalIMPAR_INI;
  TField* TPostalIMPAR_FIN;
  TField* TPostalPAR_INI;
  TField* TPostalPAR_FIN;
  TField* TPostalCODPOSTAL;
  TField* TPostalCAPITAL;
  TField* TPostalPROVINCIA;
  TField* TPostalMUNICIPI;
  TField* TPostalCOD_INE;
  TField* TPostalNOMBRE_2;
  TField* TPostalCODIGO1;

  TField* TTipo_ViaCODIGO;
  TField* TTipo_ViaNOMBRE;

  TField* TPaisesCODIGO;
  TField* TPaisesPROVINCIA;
  TField* TPaisesGRUPO;

  TField* TMunicipiMJPROVCOD;
  TField* TMunicipiMJPOBLCOD;
  TField* TMunicipiMJPOBLLITE;

  TField* TMunicipiSinFiltroCOD_INE;
  TField* TMunicipiSinFiltroCODPOSTAL;
  TField* TMunicipiSinFiltroUNICO;
  TField* TMunicipiSinFiltroNOMBRE;
  TField* TMunicipiSinFiltroCAPITAL;
  TField* TMunicipiSinFiltroCOD_PROV;
  TField* TMunicipiSinFiltroCOD_MUN;
  TField* TMunicipiSinFiltroENT_MENOR;
  TField* TMunicipiSinFiltroccNOMBRE_COMPLETO;
  TField* TMunicipiSinFiltroccPROVINCIA;
  TField* TMunicipiSinFiltroccENT_MAYOR;

 private:
  // The fields the calculation reads and writes, per municipality table.
  struct CamposMunicipio {
    TField *nombre, *entMenor, *codIne, *codProv, *nombreCompleto, *provincia, *entMayor;
  };
  void CalculaMunicipio(TTable* tabla, const CamposMunicipio& c);
};
