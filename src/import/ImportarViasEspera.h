// The import dialog's wait window for the span of a handler or a run.
#pragma once

#include <QString>

#include "import/ImportarVias.h"
#include "services/Rmensaje.h"

// Opens the dialog's wait window with a text when none is open, and closes it
// (clearing the dialog's reference) however the span ends -- unless told to
// leave it open, as a province-wide run does between municipalities.
class EsperaDelDialogo {
 public:
  EsperaDelDialogo(TFImportarVias& dialogo, const QString& texto, bool cierraAlFinal = true)
      : dialogo_(dialogo), cierraAlFinal_(cierraAlFinal) {
    if (!dialogo_.oFormMensaje) dialogo_.oFormMensaje = MuestraMensaje(texto, &dialogo_);
  }
  ~EsperaDelDialogo() {
    if (cierraAlFinal_) Cierra();
  }
  EsperaDelDialogo(const EsperaDelDialogo&) = delete;
  EsperaDelDialogo& operator=(const EsperaDelDialogo&) = delete;

  void Cambia(const QString& texto) { CambiaMensaje(texto, dialogo_.oFormMensaje); }
  void Cierra() {
    CierraMensaje(dialogo_.oFormMensaje);
    dialogo_.oFormMensaje = nullptr;
  }

 private:
  TFImportarVias& dialogo_;
  bool cierraAlFinal_;
};
