// The import's side of the street-directory service: saved answers' names
// and how a retried fetch ends.
#pragma once

#include <QString>
#include <functional>

class QComboBox;
class QVariant;

// Adds an item to one of the dialog's lists, which show their items in upper
// case; `dato` travels with it (the host's codes, a file's own name).
void AnadeEnMayusculas(QComboBox* poCombo, const QString& psTexto, const QVariant& dato);
void AnadeEnMayusculas(QComboBox* poCombo, const QString& psTexto);

// Street names go into the grid cut to this length, whatever their source.
inline constexpr int kLongitudNombreVia = 45;

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
