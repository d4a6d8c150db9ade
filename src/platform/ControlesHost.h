// What the controller reads and writes on the host's controls besides their
// text: the integer Tag every control carries, and the text colour that
// tells a confirmed locality (window text) from an unconfirmed one (maroon).
#pragma once

#include <QColor>

class QObject;
class QWidget;

int Tag(const QObject* control);  // 0 when never set
void SetTag(QObject* control, int valor);

QColor clWindowText();
QColor clMaroon();  // red 128, green 0, blue 0
void PonColorTexto(QWidget* control, const QColor& color);
QColor ColorTexto(const QWidget* control);

// Whether `a` comes before `b` in the tab order of their window.
bool AntesEnTabulacion(const QWidget* a, const QWidget* b);
