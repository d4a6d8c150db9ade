// dBase index key expressions and FOR conditions, compiled against a table.
//
// The expression language is the part of dBASE's that index tags use:
//
//   field names (any case), 'text' "text" [text], numbers, .T. .F.
//   +   texts: concatenation; numbers: sum; date + number: a later date
//   -   texts: concatenation with the left text's trailing blanks moved to
//       the end; numbers: difference; date - number; date - date: days
//   UPPER LOWER TRIM RTRIM LTRIM STR(n[,len[,dec]]) DTOS DTOC SUBSTR(s,start[,len])
//   LEFT RIGHT IIF(cond,a,b) VAL DELETED()
//   = <> # < > <= >=   .AND. .OR. .NOT.   ( )
//
// Function names may be cut to their first four letters, as dBASE allows.
// Text comparisons follow SET EXACT OFF: 'ABC' = 'AB' holds, the left text
// being compared over the right one's length. DTOC writes MM/DD/YY.
//
// A character result has a width fixed by the expression alone (dBASE sizes
// index keys that way): a field's width, a literal's length, the sum for a
// concatenation, STR's length, 8 for a date text. TRIM and LTRIM keep the
// width of their argument and the key is padded with blanks at the end;
// IIF's width is that of its wider branch. A character key is at most 100
// bytes. LEFT, RIGHT, SUBSTR and STR take constant numbers for their sizes.
//
// Compiled expressions are immutable and may be shared between threads.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace dbase {

class DbfFile;

class KeyExpression {
 public:
  // Largest character key dBASE IV allows.
  static constexpr uint32_t kMaxCharKey = 100;

  // Compiles text against the file's fields. Anything outside the language
  // above, an unknown field, or a type mismatch throws
  // dbase::Error(ErrorKind::NotSupported, file.name(), fault) where fault
  // starts with "expresión de índice no admitida: " and the text.
  static KeyExpression compile(std::string_view text, const DbfFile& file);

  const std::string& text() const;
  char type() const;           // 'C', 'N', 'D', or 'L' (conditions)
  uint32_t keyLength() const;  // C: the result's width; N: 12; D: 8; L: 1

  // Appends the key of one record exactly as a dBase IV MDX stores it: C in
  // the table's code page, blank-padded to keyLength(); N as 12-byte BCD;
  // D as the Julian-day double; L as 'T' or 'F'.
  void appendKey(const char* record, std::string& key) const;

  // Value of an 'L' expression (a FOR condition) on a record; false for
  // expressions of the other types.
  bool isTrue(const char* record) const;

  // Fields read (indexes into the file's fields), in order of first appearance.
  const std::vector<int>& fields() const;

  // Where a field's value lands in a character key when the expression is a
  // '+' concatenation of terms each reading one field at a fixed place (NAME,
  // UPPER(NAME), LEFT(NAME,3), STR(NUM,8), DTOS(DATE)...): {offset, width} of
  // that field's term; nullopt otherwise (the field is not read, is read by
  // more than one term, or lands after a term of varying length).
  std::optional<std::pair<uint32_t, uint32_t>> span(int field) const;

  struct Compiled;

 private:
  explicit KeyExpression(std::shared_ptr<const Compiled> compiled) : compiled_(std::move(compiled)) {}
  std::shared_ptr<const Compiled> compiled_;
};

}  // namespace dbase
