#include "lookup/SugerenciasLocalidad.h"

#include <algorithm>
#include <array>

#include "dbase/TTable.h"
#include "services/Rnumcad.h"

namespace {

constexpr int kMaxDiferencias = 2;

// Letters, digits and blanks only, upper case, accents and Ñ dropped.
std::string letrasSinAcentos(const QString& texto) {
  const QString descompuesto = texto.toUpper().normalized(QString::NormalizationForm_D);
  std::string out;
  out.reserve(size_t(descompuesto.size()));
  for (QChar c : descompuesto) {
    if (c.category() == QChar::Mark_NonSpacing) continue;
    const char16_t u = c.unicode();
    if ((u >= u'A' && u <= u'Z') || (u >= u'0' && u <= u'9')) {
      out.push_back(char(u));
    } else if (!out.empty() && out.back() != ' ') {
      out.push_back(' ');  // any other character separates words
    }
  }
  while (!out.empty() && out.back() == ' ') out.pop_back();
  return out;
}

// Edits (change, add, drop, swap two neighbours) turning a into b, or
// kMaxDiferencias + 1 when more. Only the band of width 2k+1 around the
// diagonal is computed, and the walk stops once the band is all over k.
int diferencias(const std::string& a, const std::string& b) {
  constexpr int k = kMaxDiferencias, fuera = k + 1;
  const int n = int(a.size()), m = int(b.size());
  if (std::abs(n - m) > k) return fuera;
  // Three rows of the band: i-2, i-1, i. Column j is stored at j - i + k.
  constexpr int ancho = 2 * k + 1;
  std::array<int, ancho + 2> r2{}, r1{}, r0{};
  auto en = [&](const std::array<int, ancho + 2>& r, int i, int j) {
    const int d = j - i + k;
    return (d < 0 || d >= ancho || j < 0 || j > m) ? fuera : r[size_t(d)];
  };
  for (int d = 0; d < ancho; ++d) {
    const int j = d - k;
    r1[size_t(d)] = (j >= 0 && j <= m) ? std::min(j, fuera) : fuera;
  }
  r2.fill(fuera);
  for (int i = 1; i <= n; ++i) {
    int minimo = fuera;
    for (int d = 0; d < ancho; ++d) {
      const int j = i + d - k;
      int v = fuera;
      if (j == 0) {
        v = std::min(i, fuera);
      } else if (j > 0 && j <= m) {
        const int cambio = en(r1, i - 1, j - 1) + (a[size_t(i - 1)] == b[size_t(j - 1)] ? 0 : 1);
        v = std::min({cambio, en(r1, i - 1, j) + 1, en(r0, i, j - 1) + 1});
        if (i > 1 && j > 1 && a[size_t(i - 1)] == b[size_t(j - 2)] && a[size_t(i - 2)] == b[size_t(j - 1)])
          v = std::min(v, en(r2, i - 2, j - 2) + 1);
        v = std::min(v, fuera);
      }
      r0[size_t(d)] = v;
      minimo = std::min(minimo, v);
    }
    if (minimo > k) return fuera;
    r2 = r1;
    r1 = r0;
    r0.fill(fuera);
  }
  return en(r1, n, m);
}

}  // namespace

std::string TIndiceLocalidades::Clave(const QString& nombre) {
  QString texto = nombre.trimmed();
  // "GINETA (LA)" compares as "LA GINETA".
  if (texto.endsWith(u')')) {
    const qsizetype abre = texto.lastIndexOf(u'(');
    const QString articulo = texto.mid(abre + 1, texto.size() - abre - 2).trimmed();
    if (abre > 0 && !articulo.isEmpty() && articulo.size() <= 4 && !articulo.contains(u' '))
      texto = articulo + (articulo.endsWith(u'\'') ? QString() : QStringLiteral(" ")) + texto.left(abre).trimmed();
  }
  return letrasSinAcentos(texto);
}

void TIndiceLocalidades::Construye(TTable* municipios, const QHash<int, QString>& provincias) {
  filas_.clear();
  entradas_.clear();
  const TBookmark marca = municipios->GetBookmark();
  TField* nombre = municipios->FieldByName(QStringLiteral("NOMBRE"));
  TField* codIne = municipios->FieldByName(QStringLiteral("COD_INE"));
  TField* codPostal = municipios->FieldByName(QStringLiteral("CODPOSTAL"));
  TField* codProv = municipios->FieldByName(QStringLiteral("COD_PROV"));
  TField* entidadMenor = municipios->FieldByName(QStringLiteral("ENT_MENOR"));
  municipios->DisableControls();
  for (municipios->First(); !municipios->Eof(); municipios->Next()) {
    const uint32_t fila = uint32_t(filas_.size());
    const QString texto = nombre->AsString();
    filas_.push_back({texto, provincias.value(Cad_Int(codProv->AsString())), codIne->AsString(),
                      codPostal->AsString(), entidadMenor->AsBoolean()});
    // Each half of a bilingual name, and each without its article.
    QStringList formas = texto.split(u'/', Qt::SkipEmptyParts);
    if (formas.size() > 1) formas.prepend(texto);
    for (const QString& forma : formas) {
      const std::string clave = Clave(forma);
      entradas_.push_back({clave, fila});
      const std::string sinArticulo = letrasSinAcentos(forma.left(forma.lastIndexOf(u'(')));
      if (forma.trimmed().endsWith(u')') && !sinArticulo.empty() && sinArticulo != clave)
        entradas_.push_back({sinArticulo, fila});
    }
  }
  municipios->EnableControls();
  if (municipios->BookmarkValid(marca)) municipios->GotoBookmark(marca);
  std::sort(entradas_.begin(), entradas_.end(), [](const Entrada& a, const Entrada& b) { return a.clave < b.clave; });
}

QList<SugerenciaLocalidad> TIndiceLocalidades::Sugiere(const QString& texto, int maximo) const {
  const std::string buscada = Clave(texto);
  if (buscada.empty() || maximo <= 0) return {};
  // The best way each row matched: rank (0 whole name, 1 beginning,
  // 2 differences), then differences.
  struct Acierto {
    int rango = 3;
    int diferencias = 0;
  };
  std::vector<std::pair<uint32_t, Acierto>> aciertos;
  auto anota = [&](uint32_t fila, int rango, int dif) { aciertos.push_back({fila, {rango, dif}}); };

  // Names equal to the text or beginning with it are one range of the keys.
  auto desde = std::lower_bound(entradas_.begin(), entradas_.end(), buscada,
                                [](const Entrada& e, const std::string& c) { return e.clave < c; });
  for (auto it = desde; it != entradas_.end() && it->clave.compare(0, buscada.size(), buscada) == 0; ++it)
    anota(it->fila, it->clave.size() == buscada.size() ? 0 : 1, 0);
  // Typos: one difference allowed in short texts, two from five letters on.
  const int permitidas = buscada.size() < 5 ? 1 : kMaxDiferencias;
  for (const Entrada& e : entradas_) {
    const size_t largo = e.clave.size();
    if (largo + size_t(permitidas) < buscada.size() || largo > buscada.size() + size_t(permitidas)) continue;
    const int dif = diferencias(buscada, e.clave);
    if (dif > 0 && dif <= permitidas) anota(e.fila, 2, dif);
  }

  std::sort(aciertos.begin(), aciertos.end(), [&](const auto& x, const auto& y) {
    if (x.first != y.first) return x.first < y.first;
    return std::tie(x.second.rango, x.second.diferencias) < std::tie(y.second.rango, y.second.diferencias);
  });
  aciertos.erase(std::unique(aciertos.begin(), aciertos.end(),
                             [](const auto& x, const auto& y) { return x.first == y.first; }),
                 aciertos.end());
  auto antes = [&](const auto& x, const auto& y) {
    const Fila& a = filas_[x.first];
    const Fila& b = filas_[y.first];
    return std::make_tuple(x.second.rango, x.second.diferencias, a.entidadMenor, a.nombre.size(), a.nombre, x.first) <
           std::make_tuple(y.second.rango, y.second.diferencias, b.entidadMenor, b.nombre.size(), b.nombre, y.first);
  };
  const size_t cuantos = std::min(aciertos.size(), size_t(maximo));
  std::partial_sort(aciertos.begin(), aciertos.begin() + qsizetype(cuantos), aciertos.end(), antes);

  QList<SugerenciaLocalidad> resultado;
  for (size_t i = 0; i < cuantos; ++i) {
    const Fila& f = filas_[aciertos[i].first];
    resultado.push_back({f.nombre, f.provincia, f.codIne, f.codPostal, f.entidadMenor, aciertos[i].second.diferencias});
  }
  return resultado;
}
