// The HTTP side of the simulated service: one QTcpServer on 127.0.0.1, one
// Conexion per client connection, an answer per connection (Connection:
// close), and the misbehaviour the options ask for.
#pragma once

#include <QElapsedTimer>
#include <QFile>
#include <QObject>
#include <QTcpServer>

#include "datos.h"
#include "opciones.h"

namespace simulador {

class Conexion;

// One HTTP request as read from the socket. Header names are kept in lower
// case.
struct Peticion {
  QByteArray metodo, ruta, version;
  QList<QPair<QByteArray, QByteArray>> cabeceras;
  QByteArray cuerpo;
  // The first value of the header, or a null QByteArray when absent.
  QByteArray cabecera(const QByteArray& nombre) const;
};

class Servidor : public QObject {
 public:
  Servidor(Datos& datos, const Opciones& opciones);
  // Opens the log and listens. Throws ErrorDeDatos.
  void escucha();
  QString url() const;

 private:
  friend class Conexion;
  // A request read whole: logged, then answered (after --lento) as the
  // options say.
  void atiende(Conexion& conexion, const Peticion& peticion);
  // A request refused before its body was read (bad framing, too large).
  void anota(const Peticion& peticion);
  void contesta(Conexion& conexion, const Peticion& peticion, int numero);

  Datos& datos_;
  Opciones opciones_;
  QTcpServer tcp_;
  QFile registro_;
  QElapsedTimer reloj_;
  int anotadas_ = 0;  // requests logged (the "n" of the log)
  int leidas_ = 0;
  int viasLeidas_ = 0;  // street requests, for --fallar-vias    // requests read whole, which the misbehaviour counts
};

}  // namespace simulador
