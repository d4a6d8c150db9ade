// The command line of ovc-simulador: where the answers come from and how the
// server should misbehave, for the tests of the street import's client.
#pragma once

#include <QString>
#include <QStringList>
#include <cstdio>
#include <stdexcept>

namespace simulador {

inline constexpr int kSalidaBien = 0;
inline constexpr int kSalidaError = 2;

// A bad option or value; main reports it on stderr and exits with 2.
class ErrorDeUso : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Changes to the content of the answers that are otherwise correct.
struct Ajustes {
  int cuentaExtra = 0;             // added to cuprov / cumun / cuca
  bool bomba = false;              // internal DTD with an entity-expansion bomb
  bool entidadExterna = false;     // DTD with an external entity (file:///etc/passwd)
  bool nombresPeligrosos = false;  // municipality names that are paths
  bool nul = false;                // a raw NUL byte in a municipality name
};

struct Opciones {
  bool ayuda = false;
  quint16 puerto = 0;  // 0: any free port
  QString carpetaOvc;      // recorded answers; empty: the built-in list
  QString carpetaCalles;   // dBase street tables; empty: synthetic streets only
  QString registro;        // JSON lines, one per request; empty: none
  // Misbehaviour. Resets come first, then the 503s: with --cortar 1
  // --fallar 2, request 1 is reset, requests 2 and 3 get 503.
  int fallar = 0;
  int cortar = 0;
  // The first N street requests (ConsultaVia) get 503, whatever came before.
  int fallarVias = 0;
  int lentoMs = 0;
  bool html = false;
  bool truncado = false;
  int enormeMb = 0;
  Ajustes ajustes;
};

// Throws ErrorDeUso naming the option at fault.
Opciones leeOpciones(const QStringList& argumentos);

// Spanish usage text.
void muestraUso(std::FILE* salida);

}  // namespace simulador
