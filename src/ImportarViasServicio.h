// The cadastre's street-directory service as the import calls it.
#pragma once

#include <QString>

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
