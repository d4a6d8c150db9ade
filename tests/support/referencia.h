// A small reference set in a scratch folder: the five files the address
// controller opens, plus the per-province street files under "Postales".
#pragma once

#include <string>
#include <vector>

#include "dbase/core/dbf_file.h"

namespace testsupport {

struct OpcionesReferencia {
  bool postales = true;       // write the "Postales" folder with POSTAL28 and POSTAL08
  bool tipoVia = true;        // write TIPO_VIA.DBF
};

// Provinces 8 BARCELONA, 15 CORUÑA (A), 28 MADRID, 45 TOLEDO, 99 EXTRANJERO;
// countries 900 ESPAÑA, 250 FRANCIA, 4 AFGANISTAN, 620 PORTUGAL.
// Municipalities of 08, 15 and 28 (one with COD_PROV "AB"), minor entities
// of MADRID and of ALCALA DE HENARES; SOBRADO in 15 and 28.
// Streets of MADRID and GETAFE in POSTAL28, of BARCELONA in POSTAL08, and
// one each of MADRID, TOLEDO and BARCELONA in POSTAL.DBF.
void escribeJuegoDeReferencia(const std::string& carpeta, const OpcionesReferencia& opciones = {});

// The fields of POSTAL.DBF and of the per-province street files.
std::vector<dbase::FieldSpec> camposCalle();

}  // namespace testsupport
