// What the package's dialogs share: the form sees every key before its
// controls, Enter moves on and Escape cancels, and the control with the
// focus shows its hint in the dialog's status bar.
#pragma once

#include <functional>

class QDialog;
class QEvent;
class QObject;
class QPushButton;
class QStatusBar;

namespace dialogo {

// Key preview: hands a key press to the form's handler as a Windows key
// code before the control sees it. True when the handler consumed it.
bool VistaPreviaTecla(QEvent* evento, const std::function<void(int& Key)>& formKeyDown);

// Enter moves to the next control (`siguiente`) once the key has been dealt
// with; Escape clicks the cancel button. Both consume the key; others are
// left alone.
void TeclasComunes(QDialog* dialogo, QPushButton* cancelar, const std::function<void()>& siguiente, int& Key);

// The control that takes the focus shows its hint in the status bar; edits
// and lists (not buttons) are coloured too. Leaving undoes both.
void TomaFocoConPista(QStatusBar* estado, QObject* control, bool colorea);
void DejaFocoConPista(QStatusBar* estado, QObject* control, bool colorea);

}  // namespace dialogo
