// The SOAP side of the simulated service: reading a request envelope and
// writing the answers in the service's shape (ASMX, SOAP 1.1).
#pragma once

#include <QByteArray>
#include <QString>
#include <optional>

#include "datos.h"
#include "opciones.h"

namespace simulador {

inline constexpr char kRutaServicio[] = "/ovcservweb/OVCSWLocalizacionRC/OVCCallejero.asmx";
inline constexpr char kEspacioCatastro[] = "http://www.catastro.meh.es/";

enum class Operacion { Provincia, Municipio, Via };

// The operation a SOAPAction names (quoted or not), by what follows its last
// "/": http://tempuri.org/OVCServWeb/OVCCallejero/ConsultaVia.
std::optional<Operacion> operacionDe(const QByteArray& soapAction);

struct Consulta {
  Operacion operacion = Operacion::Provincia;
  // Parameters as sent (bare children of soap:Body in the catastro
  // namespace); an absent one is empty.
  QString provincia, municipio, tipoVia, nombreVia;
};

// A request the service refuses with a SOAP fault (HTTP 500).
struct Falta {
  QString codigo;   // soap:Client, soap:Server, soap:VersionMismatch
  QString mensaje;
};

// Reads the envelope of a request for `operacion`; a Falta when it is not
// well-formed XML or not a SOAP 1.1 envelope with a Body.
std::optional<Falta> leeConsulta(Operacion operacion, const QByteArray& cuerpo, Consulta& consulta);

// The whole answer document, envelope included, for a valid request.
// Throws ErrorDeDatos (or dbase::Error) when the data cannot be read.
QByteArray responde(Datos& datos, const Consulta& consulta, const Ajustes& ajustes);

// A SOAP 1.1 fault document.
QByteArray documentoDeFalta(const Falta& falta);

// The start of a street answer, the repeated element of an endless one,
// and its end: the body of --enorme.
QByteArray principioDeCallejeroEnorme();
QByteArray calleDeRelleno(qint64 numero);
QByteArray finDeCallejeroEnorme();

}  // namespace simulador
