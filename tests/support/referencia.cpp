#include "support/referencia.h"

#include <filesystem>

#include "support/tables.h"

namespace testsupport {

std::vector<dbase::FieldSpec> camposCalle() {
  return {charField("VIA", 45),      charField("TIPO_VIA", 5),  numField("IMPAR_INI", 5), numField("IMPAR_FIN", 5),
          numField("PAR_INI", 5),    numField("PAR_FIN", 5),    charField("CODPOSTAL", 5), charField("CAPITAL", 1),
          charField("PROVINCIA", 30), charField("MUNICIPI", 30), charField("COD_INE", 5),  charField("NOMBRE_2", 45),
          charField("CODIGO1", 8)};
}

namespace {

// PROVINCIA holds the province's two digits, as the street import writes it.
Row calle(const std::string& via, const std::string& tipo, const std::string& cp, const std::string& municipio,
          const std::string& ine, const std::string& provincia) {
  return {via, tipo, "1", "99", "2", "98", cp, "S", provincia, municipio, ine, via, ""};
}

}  // namespace

void escribeJuegoDeReferencia(const std::string& carpeta, const OpcionesReferencia& opciones) {
  makeTable(carpeta, "PROVIN.DBF", {numField("CODIGO", 3), charField("PROVINCIA", 30), numField("GRUPO", 1)},
            {{"28", "MADRID", "1"},
             {"8", "BARCELONA", "1"},
             {"15", "CORUÑA (A)", "1"},
             {"45", "TOLEDO", "1"},
             {"99", "EXTRANJERO", "1"},
             {"900", "ESPAÑA", "2"},
             {"250", "FRANCIA", "2"},
             {"4", "AFGANISTAN", "2"},
             {"620", "PORTUGAL", "2"}});
  makeTable(carpeta, "MUNICIPI.DBF",
            {charField("COD_INE", 5), charField("CODPOSTAL", 5), charField("UNICO", 1), charField("CAPITAL", 1),
             charField("NOMBRE", 30), charField("COD_PROV", 2), charField("COD_MUN", 4), charField("COD_MUNMJ", 3),
             logicalField("ENT_MENOR")},
            {{"28079", "28001", "N", "S", "MADRID", "28", "0079", "079", "F"},
             {"28079", "28055", "S", "N", "ARAVACA", "28", "0079", "079", "T"},
             {"28005", "28801", "N", "N", "ALCALA DE HENARES", "28", "0005", "005", "F"},
             {"28005", "28806", "S", "N", "ESPARTALES", "28", "0005", "005", "T"},
             {"28065", "28901", "N", "N", "GETAFE", "28", "0065", "065", "F"},
             {"28140", "28140", "S", "N", "SOBRADO", "28", "0140", "140", "F"},
             {"08019", "08001", "N", "S", "BARCELONA", "08", "0019", "019", "F"},
             {"08245", "08740", "S", "N", "SANT ANDREU DE LA BARCA", "08", "0245", "245", "F"},
             {"15079", "15960", "S", "N", "SOBRADO", "15", "0079", "079", "F"},
             {"15030", "15001", "N", "S", "CORUÑA (A)", "15", "0030", "030", "F"},
             {"99001", "99999", "S", "N", "SIN PROVINCIA", "AB", "0001", "001", "F"}});
  makeTable(carpeta, "MUNICIMJ.DBF", {charField("PROVCOD", 10), charField("POBLCOD", 10), charField("POBLLITE", 41)},
            {{"28", "079", "MADRID"}, {"08", "019", "BARCELONA"}});
  if (opciones.tipoVia)
    makeTable(carpeta, "TIPO_VIA.DBF", {charField("CODIGO", 5), charField("NOMBRE", 30)},
              {{"CL", "CALLE"}, {"AV", "AVENIDA"}, {"PZ", "PLAZA"}, {"PS", "PASEO"}, {"CJ", "CALLEJON"},
               {"C", "CAMINO"}});
  makeTable(carpeta, "POSTAL.DBF", camposCalle(),
            {calle("MAYOR", "CL", "28013", "MADRID", "28079", "28"),
             calle("TOLEDO", "CL", "45001", "TOLEDO", "45168", "45"),
             calle("DIAGONAL", "AV", "08019", "BARCELONA", "08019", "08")});
  if (!opciones.postales) return;
  const std::string postales = carpeta + "/Postales";
  std::filesystem::create_directories(postales);
  makeTable(postales, "POSTAL28.DBF", camposCalle(),
            {calle("MAYOR", "CL", "28013", "MADRID", "28079", "28"),
             calle("ALCALA", "CL", "28014", "MADRID", "28079", "28"),
             calle("CASTELLANA", "PS", "28046", "MADRID", "28079", "28"),
             calle("MADRID", "AV", "28902", "GETAFE", "28065", "28"),
             calle("TOLEDO", "CL", "28901", "GETAFE", "28065", "28")});
  makeTable(postales, "POSTAL08.DBF", camposCalle(),
            {calle("DIAGONAL", "AV", "08019", "BARCELONA", "08019", "08"),
             calle("ARAGO", "CL", "08009", "BARCELONA", "08019", "08")});
}

}  // namespace testsupport
