#include "platform/ControlesHost.h"

#include <QApplication>
#include <QPalette>
#include <QVariant>
#include <QWidget>

namespace {
const char* const kTag = "Tag";
}

int Tag(const QObject* control) { return control ? control->property(kTag).toInt() : 0; }

void SetTag(QObject* control, int valor) {
  if (control) control->setProperty(kTag, valor);
}

QColor clWindowText() { return QApplication::palette().color(QPalette::Active, QPalette::Text); }

QColor clMaroon() { return QColor(128, 0, 0); }

void PonColorTexto(QWidget* control, const QColor& color) {
  if (!control) return;
  QPalette paleta = control->palette();
  paleta.setColor(QPalette::Text, color);
  control->setPalette(paleta);
}

QColor ColorTexto(const QWidget* control) {
  return control ? control->palette().color(QPalette::Active, QPalette::Text) : QColor();
}

bool AntesEnTabulacion(const QWidget* a, const QWidget* b) {
  if (!a || !b || a->window() != b->window()) return false;
  const QWidget* ventana = a->window();
  for (const QWidget* w = ventana->nextInFocusChain(); w && w != ventana; w = w->nextInFocusChain()) {
    if (w == a) return true;
    if (w == b) return false;
  }
  return false;
}
