#include "services/Rvarias.h"

#include <QComboBox>
#include <QPalette>
#include <QVariant>
#include <QWidget>

namespace {

// Dynamic properties that keep what the control looked like before the focus.
constexpr const char* kPaletaPrevia = "_codpostales_paletaPrevia";
constexpr const char* kPaletaPropia = "_codpostales_paletaPropia";

}  // namespace

QColor ColorFocoControl() { return QColor(255, 255, 192); }

void TomaFocoControl(QWidget* control) {
  if (!control) return;
  if (!control->property(kPaletaPrevia).isValid()) {
    control->setProperty(kPaletaPropia, control->testAttribute(Qt::WA_SetPalette));
    control->setProperty(kPaletaPrevia, QVariant::fromValue(control->palette()));
  }
  QPalette paleta = control->palette();
  for (auto grupo : {QPalette::Active, QPalette::Inactive}) {
    paleta.setColor(grupo, QPalette::Base, ColorFocoControl());
    // A closed, non-editable combo box paints its face with the button role.
    if (qobject_cast<QComboBox*>(control)) paleta.setColor(grupo, QPalette::Button, ColorFocoControl());
  }
  control->setPalette(paleta);
}

void DejaFocoControl(QWidget* control) {
  if (!control) return;
  const QVariant previa = control->property(kPaletaPrevia);
  if (!previa.isValid()) return;
  if (control->property(kPaletaPropia).toBool()) {
    control->setPalette(previa.value<QPalette>());
  } else {
    // An empty palette drops the control's own one, so it inherits again.
    control->setPalette(QPalette());
  }
  control->setProperty(kPaletaPrevia, QVariant());
  control->setProperty(kPaletaPropia, QVariant());
}

void HazSetFocus(QWidget* control) {
  if (!control) return;
  if (!control->isVisible() || !control->isEnabled()) return;
  if (!control->window()->isVisible()) return;
  control->setFocus(Qt::OtherFocusReason);
}
