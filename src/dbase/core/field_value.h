// Reading and writing one field of a raw record, in the representation the
// dBase format prescribes for its type:
//   C  code-page text, left-justified, blank-padded
//   N  F  ASCII number, right-justified, blank-padded, '.' as decimal point
//   L  one of T t Y y (true), F f N n (false), '?' or blank (unknown)
//   D  YYYYMMDD, eight blanks when empty
// Text crosses this boundary as UTF-8.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "dbase/core/dbf_format.h"

namespace dbase {

class CodePage;

// The raw bytes of the field inside the record.
inline std::string_view fieldBytes(const FieldDescriptor& f, const char* record) {
  return std::string_view(record + f.offset, f.length);
}

// Text of the field: C fields decoded with trailing blanks removed, numbers
// and dates with the blanks around them removed, flags as "T", "F" or "".
std::string fieldText(const FieldDescriptor& f, const char* record, const CodePage& cp);

// Numeric value of an N or F field, or of a C field holding a number.
// Empty or unreadable contents give no value.
std::optional<double> fieldNumber(const FieldDescriptor& f, const char* record);
std::optional<double> parseNumber(std::string_view text);

// Flag of an L field; unknown is false.
bool fieldFlag(const FieldDescriptor& f, const char* record);

// Writers. `subject` names the file in errors. A text longer than a C field
// is cut to the field width; a character the code page cannot hold, a number
// that does not fit, or a text that is not a number for a numeric field is a
// dbase::Error (InvalidArgument). An empty text blanks any field.
void setFieldText(const FieldDescriptor& f, char* record, std::string_view utf8, const CodePage& cp,
                  const std::string& subject);
// As setFieldText, for a text known to be ASCII.
void setFieldAscii(const FieldDescriptor& f, char* record, std::string_view ascii, const CodePage& cp,
                   const std::string& subject);
void setFieldNumber(const FieldDescriptor& f, char* record, double value, const std::string& subject);
void setFieldFlag(const FieldDescriptor& f, char* record, bool value);
void blankField(const FieldDescriptor& f, char* record);

// Trailing blanks (and NULs some writers leave) removed.
std::string_view trimRight(std::string_view bytes);
std::string_view trimBlanks(std::string_view bytes);

}  // namespace dbase
