// Table filters of the forms the address controller builds:
//
//     FIELD=number          COD_PROV=08      GRUPO=1
//     FIELD='text'          MUNICIPI='MADRID'
//     term AND term         COD_INE=28079 AND MUNICIPI='MADRID'
//
// Anything else, an unbalanced quote included, is a dbase::Error
// (InvalidArgument) whose subject is the filter text.
//
// Comparison rules, chosen to match what the host's data needs:
//  - 'text' against a character field: equal bytes in the table's code page,
//    trailing blanks ignored, case and accents significant.
//  - number against a numeric field or a character field: equal numeric
//    values; a field text that is not a number never matches. So COD_PROV=08
//    and COD_PROV=8 both select the rows holding "08".
//  - 'text' against a numeric field: the text is read as a number.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "dbase/core/dbf_format.h"

namespace dbase {

struct FilterTerm {
  std::string field;   // as written in the filter, upper-cased
  bool quoted = false; // 'text' rather than a number
  std::string text;    // UTF-8 text between the quotes, or the number as written
  double number = 0;   // the value of an unquoted number
};

struct FilterExpression {
  std::string source;             // the filter text as given
  std::vector<FilterTerm> terms;  // one or two; all must hold
};

// Parses a filter text. An empty (or all-blank) text gives no terms.
FilterExpression parseFilter(std::string_view text);

class CodePage;

// A filter bound to a table layout, evaluated on raw record bytes.
class CompiledFilter {
 public:
  // Throws dbase::Error (InvalidArgument) when a field does not exist in the
  // layout or a value cannot be compared with its field.
  CompiledFilter(const FilterExpression& expression, const std::vector<FieldDescriptor>& fields,
                 const CodePage& codePage);

  bool empty() const { return tests_.empty(); }
  // record points at the first byte of a record (the deletion flag).
  bool matches(const char* record) const;

  // The terms one at a time, for callers that test each distinct value of a
  // field once instead of every row: term i reads termLength(i) bytes at
  // termOffset(i) of the record, and matches(record) holds when every
  // termMatches(i, record + termOffset(i)) does.
  size_t termCount() const { return tests_.size(); }
  uint32_t termOffset(size_t i) const { return tests_[i].offset; }
  uint32_t termLength(size_t i) const { return tests_[i].length; }
  bool termMatches(size_t i, const char* field) const { return testMatches(tests_[i], field); }

 private:
  struct Test {
    // Bytes: the field equals `bytes`; Number: the field reads as the decimal
    // held in negative / bytes / fraction; Flag: an L field holds `flag`;
    // Never: a value no row can hold (a text the code page cannot encode).
    enum class Kind : unsigned char { Bytes, Number, Flag, Never };
    Kind kind = Kind::Bytes;
    uint32_t offset = 0;
    uint32_t length = 0;
    bool numeric = false;
    double number = 0;
    std::string bytes;  // code-page bytes, trailing blanks removed; for Number
                        // the integer digits without leading zeros
    std::string fraction;  // Number: decimals without trailing zeros
    bool negative = false;  // Number: below zero
    bool flag = false;
  };
  static bool matchesNumber(const Test& test, const char* field);
  static bool testMatches(const Test& test, const char* field);
  std::vector<Test> tests_;
};

}  // namespace dbase
