// Reading INE's street directory: the street lines of both designs (real
// ones, and ones written from the layouts), the stretch lines, the bad lines
// told with their file and line, and how a street's stretches become ranges.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "support/callejero_ine.h"
#include "import/CallejeroIne.h"

using namespace inetest;

namespace {

struct Leido {
  ine::Callejero c;
  std::vector<ine::LineaMala> malas;
};

Leido lee(const std::string& tramos, const std::string& vias, const ine::Provincias& provincias = {}) {
  Leido l;
  ine::Avisos avisos;
  avisos.lineaMala = [&l](const ine::LineaMala& m) { l.malas.push_back(m); };
  l.c = ine::LeeCallejeroDeBytes(tramos, vias, provincias, avisos, "TRAM.P28", "VIAS.P28");
  return l;
}

std::string nombre(const ine::Callejero& c, size_t i) { return std::string(c.Nombre(c.vias[i])); }
std::string tipo(const ine::Callejero& c, size_t i) { return std::string(c.Tipo(c.vias[i])); }

TramoDePrueba impar(int via, const std::string& cp, int desde, int hasta, int seccion = 1) {
  return {"28", "079", via, cp, 1, desde, hasta, 0, seccion};
}
TramoDePrueba par(int via, const std::string& cp, int desde, int hasta, int seccion = 1) {
  return {"28", "079", via, cp, 2, desde, hasta, 0, seccion};
}
TramoDePrueba sinNumero(int via, const std::string& cp) { return {"28", "079", via, cp, 0, 0, 0, 0, 1}; }

const std::string kViasMadrid = texto({lineaVia(true, "28", "079", 1, "CALLE", "NUEVA"),
                                       lineaVia(true, "28", "079", 2, "PLAZA", "SOL (DEL)")});

ine::Tramo t(int tinum, int desde, int hasta, uint32_t cp) {
  ine::Tramo x;
  x.tinum = uint8_t(tinum);
  x.inicio = uint16_t(desde);
  x.fin = uint16_t(hasta);
  x.codPostal = cp;
  return x;
}

ine::Rango fila(uint32_t cp, int ii, int ifin, int pi, int pf) {
  ine::Rango r;
  r.codPostal = cp;
  r.imparIni = ii, r.imparFin = ifin, r.parIni = pi, r.parFin = pf;
  return r;
}

}  // namespace

TEST(CallejeroIneVias, RealOldDesignLinesGiveCodeTypeAndNameOfEachStreet) {
  const auto lineas = viasRealesAntiguas();
  if (lineas.empty()) GTEST_SKIP() << "sin la nota de referencia en ../shared";
  ASSERT_EQ(lineas.size(), 20u);
  const Leido l = lee(lineaTramo({"48", "912", 1, "48810", 1, 1, 9}), texto(lineas));
  EXPECT_TRUE(l.malas.empty()) << l.malas.front().fallo;
  EXPECT_EQ(l.c.diseno, ine::Diseno::Antiguo);
  ASSERT_EQ(l.c.vias.size(), 20u);
  EXPECT_EQ(l.c.vias[0].municipio, 48912);
  EXPECT_EQ(l.c.vias[0].codigo, 1);
  EXPECT_EQ(tipo(l.c, 0), "PLAZA");
  EXPECT_EQ(nombre(l.c, 0), "ANDRA MARI ENPARANTZA");
  EXPECT_EQ(tipo(l.c, 2), "CMNO");  // blank-padded in the file
  EXPECT_EQ(nombre(l.c, 9), "BARRANCA (LA)");
  EXPECT_EQ(nombre(l.c, 17), "LAS ESCUELAS, PLAZA");  // the full name, not the short one
  EXPECT_EQ(l.c.vias[18].codigo, 2160);
  EXPECT_EQ(nombre(l.c, 18), latin1("NUESTRA SEÑORA DE LA GUIA"));
  EXPECT_EQ(nombre(l.c, 19), latin1("PEÑAS ALTAS-IRAUREGUI"));
  ASSERT_EQ(l.c.tramos.size(), 1u);
  EXPECT_EQ(l.c.tramos[0].via, 0u);
}

TEST(CallejeroIneVias, RealNewDesignLinesGiveTheSameStreetsAsTheOld) {
  const auto antiguas = viasRealesAntiguas(), nuevas = viasRealesNuevas();
  if (nuevas.empty()) GTEST_SKIP() << "sin la nota de referencia en ../shared";
  const std::string tramo = lineaTramo({"48", "912", 1, "48810", 1, 1, 9});
  const Leido a = lee(tramo, texto(antiguas, "\n")), n = lee(tramo, texto(nuevas));
  EXPECT_TRUE(n.malas.empty());
  EXPECT_EQ(n.c.diseno, ine::Diseno::Nuevo);
  ASSERT_EQ(n.c.vias.size(), a.c.vias.size());
  for (size_t i = 0; i < a.c.vias.size(); ++i) {
    EXPECT_EQ(n.c.vias[i].municipio, a.c.vias[i].municipio);
    EXPECT_EQ(n.c.vias[i].codigo, a.c.vias[i].codigo);
    EXPECT_EQ(tipo(n.c, i), tipo(a.c, i));
    EXPECT_EQ(nombre(n.c, i), nombre(a.c, i));
  }
}

TEST(CallejeroIneTramos, StretchLineWrittenFromTheLayoutGivesItsFields) {
  ine::LineaTramo t;
  std::string fallo;
  ASSERT_TRUE(ine::LeeLineaTramo(lineaTramo(par(1234, "28013", 2, 10)), t, fallo)) << fallo;
  EXPECT_EQ(t.provincia, 28);
  EXPECT_EQ(t.municipio, 79);
  EXPECT_EQ(t.via, 1234);
  EXPECT_EQ(t.pseudovia, 0);
  EXPECT_EQ(t.codPostal, 28013);
  EXPECT_EQ(t.tinum, 2);
  EXPECT_EQ(t.inicio, 2);
  EXPECT_EQ(t.fin, 10);
  // The letter after a number is read past.
  std::string conLetra = lineaTramo(impar(7, "28013", 15, 21));
  conLetra[52] = 'B';
  conLetra[57] = 'A';
  ASSERT_TRUE(ine::LeeLineaTramo(conLetra, t, fallo)) << fallo;
  EXPECT_EQ(t.inicio, 15);
  EXPECT_EQ(t.fin, 21);
}

TEST(CallejeroIneFicheros, StreetFileOfNeitherDesignIsRefusedNamingFileAndLine) {
  const std::string tramos = texto({lineaTramo(impar(1, "28013", 1, 9))});
  try {
    lee(tramos, "\r\n" + std::string(120, 'X') + "\r\n");
    FAIL() << "leído";
  } catch (const std::runtime_error& e) {
    EXPECT_EQ(std::string(e.what()),
              "VIAS.P28, línea 2: no es un fichero de vías del INE: la línea tiene 120 caracteres, y una vía tiene "
              "108 (diseño antiguo) o 132 (diseño nuevo)");
  }
  // The two files swapped.
  try {
    lee(kViasMadrid, tramos);
    FAIL() << "leído";
  } catch (const std::runtime_error& e) {
    EXPECT_NE(std::string(e.what()).find("VIAS.P28, línea 1: no es un fichero de vías del INE"), std::string::npos);
    EXPECT_NE(std::string(e.what()).find("¿es el fichero de tramos?"), std::string::npos) << e.what();
  }
}

TEST(CallejeroIneFicheros, StretchFileOfAnotherLengthIsRefusedNamingFileAndLine) {
  try {
    lee(texto({lineaTramo(impar(1, "28013", 1, 9)).substr(0, 200)}), kViasMadrid);
    FAIL() << "leído";
  } catch (const std::runtime_error& e) {
    EXPECT_EQ(std::string(e.what()),
              "TRAM.P28, línea 1: no es un fichero de tramos del INE: la línea tiene 200 caracteres, y un tramo tiene "
              "273 en los dos diseños");
  }
  EXPECT_THROW(lee("", kViasMadrid), std::runtime_error);
  EXPECT_THROW(lee(texto({lineaTramo(impar(1, "28013", 1, 9))}), "\n\n"), std::runtime_error);
}

TEST(CallejeroIneFicheros, BadLinesAreToldWithTheirLineNumberCountedAndSkipped) {
  std::string utf8 = lineaTramo(impar(1, "28013", 1, 9));
  utf8.replace(110, 2, "\xC3\x91");  // Ñ as UTF-8 inside the entity's name
  std::string letras = lineaTramo(impar(1, "28013", 1, 9));
  letras.replace(42, 5, "28O13");
  const std::string tramos = texto({
      lineaTramo(impar(1, "28013", 1, 9)),                     // 1
      lineaTramo(impar(1, "28013", 11, 19)).substr(0, 250),    // 2: cut short
      utf8,                                                    // 3
      letras,                                                  // 4
      lineaTramo(impar(99, "28013", 1, 9)),                    // 5: no such street
      lineaTramo({"28", "079", 1, "28013", 3, 1, 9, 0, 1}),    // 6: TINUM 3
      lineaTramo(impar(1, "28013", 21, 11)),                   // 7: backwards
      lineaTramo(par(2, "28013", 2, 4)),                       // 8
  });
  const Leido l = lee(tramos, kViasMadrid);
  ASSERT_EQ(l.malas.size(), 6u);
  EXPECT_EQ(l.malas[0].fichero, "TRAM.P28");
  EXPECT_EQ(l.malas[0].linea, 2u);
  EXPECT_EQ(l.malas[0].fallo, "línea cortada: tiene 250 caracteres, y un tramo tiene 273");
  EXPECT_EQ(l.malas[1].linea, 3u);
  EXPECT_EQ(l.malas[1].fallo, "no es texto Latin-1: byte 0x91 en la columna 112 (parece texto en UTF-8)");
  EXPECT_EQ(l.malas[2].linea, 4u);
  EXPECT_EQ(l.malas[2].fallo, "el campo CPOS (columnas 43-47) no es un número: «28O13»");
  EXPECT_EQ(l.malas[3].linea, 5u);
  EXPECT_EQ(l.malas[3].fallo, "la vía 00099 del municipio 28079 no está en VIAS.P28");
  EXPECT_EQ(l.malas[4].linea, 6u);
  EXPECT_NE(l.malas[4].fallo.find("TINUM"), std::string::npos);
  EXPECT_EQ(l.malas[5].linea, 7u);
  EXPECT_EQ(l.malas[5].fallo, "el tramo empieza en el número 21 y acaba antes, en el 11");
  EXPECT_EQ(l.c.lineasTramos, 8u);
  EXPECT_EQ(l.c.tramos.size(), 2u);
  EXPECT_EQ(l.c.descartes.erroneas, 5u);
  EXPECT_EQ(l.c.descartes.viaDesconocida, 1u);
}

TEST(CallejeroIneFicheros, BadStreetLinesAreToldAndTheFirstOfARepeatedCodeStays) {
  const std::string vias = texto({lineaVia(false, "28", "079", 1, "CALLE", "NUEVA"),
                                  lineaVia(false, "28", "079", 1, "CALLE", "VIEJA"),
                                  lineaVia(false, "28", "079", 3, "CALLE", ""),
                                  lineaVia(false, "28", "079", 4, "CALLE", "CORTA").substr(0, 90)});
  const Leido l = lee(texto({lineaTramo(impar(1, "28013", 1, 9))}), vias);
  ASSERT_EQ(l.malas.size(), 3u);
  EXPECT_EQ(l.malas[0].fichero, "VIAS.P28");
  EXPECT_EQ(l.malas[0].linea, 2u);
  EXPECT_EQ(l.malas[1].linea, 3u);
  EXPECT_EQ(l.malas[2].linea, 4u);
  EXPECT_EQ(l.malas[2].fallo, "línea cortada o de otro diseño: tiene 90 caracteres, y una vía del diseño antiguo tiene 108");
  ASSERT_EQ(l.c.vias.size(), 1u);
  EXPECT_EQ(nombre(l.c, 0), "NUEVA");
  EXPECT_EQ(l.c.viasErroneas, 3u);
}

TEST(CallejeroIneFicheros, CrLfLfAndALastLineWithoutEndReadAlike) {
  const std::vector<std::string> lineas = {lineaTramo(impar(1, "28013", 1, 9)), lineaTramo(par(1, "28013", 2, 8)),
                                           lineaTramo(sinNumero(2, "28013"))};
  const Leido crlf = lee(texto(lineas), kViasMadrid);
  const Leido lf = lee(texto(lineas, "\n"), texto({lineaVia(true, "28", "079", 1, "CALLE", "NUEVA"),
                                                    lineaVia(true, "28", "079", 2, "PLAZA", "SOL (DEL)")},
                                                   "\n"));
  std::string sinFin = texto(lineas);
  sinFin.resize(sinFin.size() - 2);
  const Leido ultima = lee(sinFin + "\x1A", kViasMadrid);
  for (const Leido* l : {&crlf, &lf, &ultima}) {
    EXPECT_TRUE(l->malas.empty()) << l->malas.front().fallo;
    EXPECT_EQ(l->c.tramos.size(), 3u);
    EXPECT_EQ(l->c.lineasTramos, 3u);
  }
}

TEST(CallejeroIneFicheros, StretchesWithoutAStreetAreCountedByCause) {
  const Leido l = lee(texto({lineaTramo({"28", "079", 0, "28013", 1, 1, 9, 40, 1}),   // pseudo-street
                             lineaTramo({"28", "079", 0, "28013", 0, 0, 0, 0, 1}),    // population unit
                             lineaTramo({"28", "079", 0, "28013", 0, 0, 0, 0, 2}),
                             lineaTramo(impar(1, "28013", 1, 9))}),
                      kViasMadrid);
  EXPECT_TRUE(l.malas.empty());
  EXPECT_EQ(l.c.descartes.pseudovias, 1u);
  EXPECT_EQ(l.c.descartes.unidades, 2u);
  EXPECT_EQ(l.c.tramos.size(), 1u);
}

TEST(CallejeroIneFicheros, OnlyTheProvincesAskedForAreKept) {
  const std::string vias = texto({lineaVia(true, "28", "079", 1, "CALLE", "NUEVA"),
                                  lineaVia(true, "08", "019", 1, "C/", "ARAGO")});
  std::string malaDeOtra = lineaTramo({"08", "019", 1, "08009", 1, 1, 9, 0, 1}).substr(0, 100);
  const Leido l = lee(texto({lineaTramo({"08", "019", 1, "08009", 1, 1, 9, 0, 1}), malaDeOtra,
                             lineaTramo(impar(1, "28013", 1, 9))}),
                      vias, {28});
  EXPECT_TRUE(l.malas.empty());  // another province's bad line is none of this run's business
  EXPECT_EQ(l.c.vias.size(), 1u);
  EXPECT_EQ(l.c.tramos.size(), 1u);
  EXPECT_EQ(l.c.descartes.otrasProvincias, 2u);
}

TEST(RangosDeCalle, ConsecutiveStretchesOfOnePostcodeBecomeOneRange) {
  // Odd 1-9 and 11-19 in two sections, given out of order, and 21-29.
  const std::vector<ine::Tramo> tramos = {t(1, 11, 19, 28013), t(1, 21, 29, 28013), t(1, 1, 9, 28013)};
  const ine::Rangos r = ine::RangosDeCalle(tramos.data(), tramos.size());
  ASSERT_EQ(r.filas.size(), 1u);
  EXPECT_EQ(r.filas[0], fila(28013, 1, 29, 0, 0));
}

TEST(RangosDeCalle, AnotherPostcodeBetweenSplitsTheRange) {
  const std::vector<ine::Tramo> tramos = {t(1, 1, 9, 28013), t(1, 11, 19, 28014), t(1, 21, 29, 28013)};
  const ine::Rangos r = ine::RangosDeCalle(tramos.data(), tramos.size());
  ASSERT_EQ(r.filas.size(), 3u);
  EXPECT_EQ(r.filas[0], fila(28013, 1, 9, 0, 0));
  EXPECT_EQ(r.filas[1], fila(28013, 21, 29, 0, 0));
  EXPECT_EQ(r.filas[2], fila(28014, 11, 19, 0, 0));
}

TEST(RangosDeCalle, OddAndEvenRangesOfAPostcodeShareARow) {
  const std::vector<ine::Tramo> tramos = {t(1, 1, 19, 28013), t(2, 2, 10, 28013), t(1, 21, 29, 28014),
                                          t(2, 12, 40, 28014), t(2, 42, 50, 28014)};
  const ine::Rangos r = ine::RangosDeCalle(tramos.data(), tramos.size());
  ASSERT_EQ(r.filas.size(), 2u);
  EXPECT_EQ(r.filas[0], fila(28013, 1, 19, 2, 10));
  EXPECT_EQ(r.filas[1], fila(28014, 21, 29, 12, 50));
}

TEST(RangosDeCalle, UnnumberedStreetGivesOneWholeRowPerPostcode) {
  const std::vector<ine::Tramo> tramos = {t(0, 0, 0, 28014), t(0, 0, 0, 28013), t(0, 0, 0, 28014)};
  const ine::Rangos r = ine::RangosDeCalle(tramos.data(), tramos.size());
  ASSERT_EQ(r.filas.size(), 2u);
  EXPECT_EQ(r.filas[0].codPostal, 28013u);
  EXPECT_TRUE(r.filas[0].sinNumero);
  EXPECT_EQ(r.filas[1].codPostal, 28014u);
  EXPECT_EQ(r.filas[1].imparIni + r.filas[1].imparFin + r.filas[1].parIni + r.filas[1].parFin, 0);
}

TEST(RangosDeCalle, UnnumberedStretchesOfANumberedStreetAreLeftOutAndCounted) {
  const std::vector<ine::Tramo> tramos = {t(0, 0, 0, 28014), t(1, 1, 9, 28013)};
  const ine::Rangos r = ine::RangosDeCalle(tramos.data(), tramos.size());
  ASSERT_EQ(r.filas.size(), 1u);
  EXPECT_EQ(r.filas[0], fila(28013, 1, 9, 0, 0));
  EXPECT_EQ(r.sinNumeroDescartados, 1u);
}

TEST(CallejeroIneTexto, EveryControlByteIsFoundWhereverItIsAndLatin1LettersPass) {
  const std::string base = latin1("CALLE DE LA PEÑA ÁNGEL GÜELL Ç ÿ ") + std::string(40, 'X');
  EXPECT_EQ(ine::PrimerByteNoLatin1(base), std::string::npos);
  for (const unsigned char malo : {0x00, 0x09, 0x1F, 0x7F, 0x80, 0x91, 0x9F}) {
    for (size_t en = 0; en < base.size(); ++en) {
      std::string linea = base;
      linea[en] = char(malo);
      ASSERT_EQ(ine::PrimerByteNoLatin1(linea), en) << int(malo) << " en " << en;
    }
  }
  for (const unsigned char bueno : {0x20, 0x7E, 0xA0, 0xD1, 0xFF}) {
    std::string linea = base;
    linea[13] = char(bueno);
    EXPECT_EQ(ine::PrimerByteNoLatin1(linea), std::string::npos) << int(bueno);
  }
}
