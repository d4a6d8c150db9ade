// The cadastre's street-directory service as the import calls it.
#pragma once

#include <QString>
#include <functional>

// The service's own address. CODPOSTALES_OVC_URL in the environment replaces
// it (the local simulator, another mirror); EndpointOvc() says which is used.
inline constexpr char kEndpointOvc[] = "http://ovc.catastro.meh.es/ovcservweb/OVCSWLocalizacionRC/OVCCallejero.asmx";
// SOAPAction = this prefix + the operation's name.
inline constexpr char kAccionOvc[] = "http://tempuri.org/OVCServWeb/OVCCallejero/";
// Namespace of the request's parameter elements and of the answers.
inline constexpr char kEspacioOvc[] = "http://www.catastro.meh.es/";

// Street names go into the grid cut to this length, whatever their source.
inline constexpr int kLongitudNombreVia = 45;

QString EndpointOvc();

// The file (or folder) name a saved answer takes from a municipality's (or
// province's) name: "/" written "()" and "\" written ")(". A name that would
// still leave its folder or that holds control characters throws
// std::runtime_error.
QString NombreDeFicheroGuardado(const QString& psNombre);

// A fetch that had to retry ends by reporting its first attempt's own, empty
// answer (ErrorRespuestaVacia) once the last attempt has loaded its list or
// shown its failure. Callers that tell the user take what that attempt left:
// this runs the fetch and, in that case, answers `quedoCargado()`.
bool ResultadoDeLaTraida(const std::function<bool()>& trae, const std::function<bool()>& quedoCargado);
