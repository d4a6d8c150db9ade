// Windows virtual-key codes of Qt key events. The controller's key handlers
// test the numbers the host's users know (13 Enter, 27 Escape, 37-40 arrows,
// 188 comma...), so Qt's keys are translated before they reach them.
#pragma once

class QKeyEvent;

// Virtual-key codes the handlers name.
enum CodigoTecla : int {
  VK_BACK = 8,
  VK_TAB = 9,
  VK_RETURN = 13,
  VK_SHIFT = 16,
  VK_ESCAPE = 27,
  VK_SPACE = 32,
  VK_END = 35,
  VK_HOME = 36,
  VK_LEFT = 37,
  VK_UP = 38,
  VK_RIGHT = 39,
  VK_DOWN = 40,
  VK_DELETE = 46,
  VK_OEM_COMMA = 188,
};

// The virtual-key code Windows gives the key on a Spanish keyboard: letters
// and digits their upper-case character, Ñ 192 (VK_OEM_3), Ç 191, the comma
// 188, keypad digits 96-105. Accented letters, which a Spanish keyboard types
// with a dead key, give the key of their base letter. 0 for a key Windows has
// no code for.
int CodigoTeclaWindows(const QKeyEvent& evento);

// IsCharAlphaNumericW applied to a key code read as a UTF-16 character: true
// for letters and decimal digits of any script. So 192 (Ñ's key) reads as À
// and passes, and so do the keypad's 1-9 (97-105, 'a' to 'i') and F1 (112,
// 'p'); 8 (Backspace), 46 (Delete) and 188 (the comma, '¼') do not.
bool IsCharAlphaNumericW(int codigo);
