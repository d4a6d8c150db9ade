#include "platform/TeclasWindows.h"

#include <QChar>
#include <QKeyEvent>

namespace {

struct Equivalencia {
  int qt;
  int windows;
};

// Keys whose code is not their character's.
constexpr Equivalencia kEquivalencias[] = {
    {Qt::Key_Backspace, VK_BACK},  {Qt::Key_Tab, VK_TAB},         {Qt::Key_Backtab, VK_TAB},
    {Qt::Key_Return, VK_RETURN},   {Qt::Key_Enter, VK_RETURN},    {Qt::Key_Shift, VK_SHIFT},
    {Qt::Key_Control, 17},         {Qt::Key_Alt, 18},             {Qt::Key_AltGr, 18},
    {Qt::Key_Pause, 19},           {Qt::Key_CapsLock, 20},        {Qt::Key_Escape, VK_ESCAPE},
    {Qt::Key_Space, VK_SPACE},     {Qt::Key_PageUp, 33},          {Qt::Key_PageDown, 34},
    {Qt::Key_End, VK_END},         {Qt::Key_Home, VK_HOME},       {Qt::Key_Left, VK_LEFT},
    {Qt::Key_Up, VK_UP},           {Qt::Key_Right, VK_RIGHT},     {Qt::Key_Down, VK_DOWN},
    {Qt::Key_Insert, 45},          {Qt::Key_Delete, VK_DELETE},   {Qt::Key_Meta, 91},
    {Qt::Key_Menu, 93},            {Qt::Key_NumLock, 144},        {Qt::Key_ScrollLock, 145},
    {Qt::Key_Comma, VK_OEM_COMMA}, {Qt::Key_Semicolon, VK_OEM_COMMA},  // same key on a Spanish keyboard
    {Qt::Key_Minus, 189},          {Qt::Key_Underscore, 189},     {Qt::Key_Period, 190},
    {Qt::Key_Colon, 190},          {Qt::Key_Plus, 187},           {Qt::Key_Asterisk, 187},
    {Qt::Key_Ntilde, 192},         {Qt::Key_Ccedilla, 191},       {Qt::Key_Apostrophe, 219},
    {Qt::Key_Question, 219},       {Qt::Key_exclamdown, 221},     {Qt::Key_questiondown, 221},
    {Qt::Key_masculine, 220},      {Qt::Key_ordfeminine, 220},    {Qt::Key_Less, 226},
    {Qt::Key_Greater, 226},        {Qt::Key_Dead_Acute, 222},     {Qt::Key_Dead_Diaeresis, 222},
    {Qt::Key_Dead_Grave, 186},     {Qt::Key_Dead_Circumflex, 186},
};

}  // namespace

int CodigoTeclaWindows(const QKeyEvent& evento) {
  const int clave = evento.key();
  if (evento.modifiers() & Qt::KeypadModifier) {
    if (clave >= Qt::Key_0 && clave <= Qt::Key_9) return 96 + (clave - Qt::Key_0);
  }
  if ((clave >= Qt::Key_0 && clave <= Qt::Key_9) || (clave >= Qt::Key_A && clave <= Qt::Key_Z)) return clave;
  if (clave >= Qt::Key_F1 && clave <= Qt::Key_F24) return 112 + (clave - Qt::Key_F1);
  for (const auto& e : kEquivalencias)
    if (e.qt == clave) return e.windows;
  // Other letters of Latin-1 (Á, Ü...): the key of their base letter.
  if (clave >= 0xC0 && clave <= 0xFF) {
    const QString base = QString(QChar(clave)).normalized(QString::NormalizationForm_D);
    if (!base.isEmpty()) {
      const char16_t letra = QChar(base[0]).toUpper().unicode();
      if (letra >= u'A' && letra <= u'Z') return letra;
    }
  }
  return 0;
}

bool IsCharAlphaNumericW(int codigo) {
  if (codigo <= 0 || codigo > 0xFFFF) return false;
  const QChar c{char16_t(codigo)};
  return c.isLetter() || c.isDigit();
}
