// The demo's scripted run: a user choosing a country and a province, typing
// a locality, a street and a house number with real key events, then what
// every control shows, and pictures of the form and of the municipality list.
#pragma once

#include <QString>

class TFZelmor;

// Returns the process exit code: 0 when the address came out whole.
int EjecutaGuion(TFZelmor& formulario, const QString& carpetaCapturas);
