#include "support/tras_un_corte.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>

#include "dbase/core/dbf_file.h"
#include "dbase/core/mdx_tags.h"

namespace testsupport {

namespace {

// A writer killed between a row and the header's count leaves whole rows past
// the count; the engine reads them and says so. That is the one thing a cut
// may leave the table itself to say.
bool filasTrasLaCuenta(const std::string& aviso) {
  unsigned declaradas = 0, completas = 0;
  return std::sscanf(aviso.c_str(), "la cabecera declara %u registros y el fichero tiene %u completos", &declaradas,
                     &completas) == 2 &&
         completas > declaradas;
}

}  // namespace

TrasUnCorte abreTrasUnCorte(const std::string& dbf, const std::string& mdx) {
  const std::string marca = dbase::MdxTags::markFor(mdx);
  TrasUnCorte r;
  r.reparado = std::filesystem::exists(marca);
  {
    auto tabla = dbase::DbfFile::open(dbf);
    dbase::MdxTags& indice = dbase::MdxTags::of(*tabla);
    EXPECT_TRUE(indice.present()) << indice.problem();
    if (r.reparado) {
      EXPECT_EQ(indice.warnings().size(), 1u);
      for (const std::string& aviso : indice.warnings())
        EXPECT_NE(aviso.find("se ha rehecho"), std::string::npos) << aviso;
    } else {
      for (const std::string& aviso : indice.warnings()) ADD_FAILURE() << "aviso sin marca: " << aviso;
    }
    for (const std::string& aviso : tabla->warnings())
      if (!filasTrasLaCuenta(aviso)) ADD_FAILURE() << "aviso de la tabla: " << aviso;
    r.filas = tabla->recordCount();
  }
  EXPECT_FALSE(std::filesystem::exists(marca));
  return r;
}

}  // namespace testsupport
