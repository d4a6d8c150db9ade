// Focus helpers of the host library: the uniform colouring of the control that
// has the focus, and a focus request that is safe to make at any moment.
#pragma once

#include <QColor>

class QWidget;

// Colour given to the control that has the focus (a light yellow).
QColor ColorFocoControl();

// Paints the control's base (and, for combo boxes, button) colour with
// ColorFocoControl(). The palette the control had is remembered on the
// control itself, so DejaFocoControl can put it back exactly; calling this
// twice keeps the first remembered palette. Null is ignored.
void TomaFocoControl(QWidget* control);

// Puts back the palette remembered by TomaFocoControl, including whether the
// control had a palette of its own or inherited its parent's. Does nothing on
// a control that is not highlighted, or on null.
void DejaFocoControl(QWidget* control);

// Gives the focus to the control only when it can take it: not null, visible
// (which means its window is showing) and enabled. Otherwise does nothing.
void HazSetFocus(QWidget* control);
