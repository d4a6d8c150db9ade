// Filter texts and record bytes from the fuzzer: the first line is the
// filter, the rest becomes a record. Parsing, compiling and evaluating may
// only ever throw dbase::Error.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "dbase/core/codepage.h"
#include "dbase/core/error.h"
#include "dbase/core/filter.h"

namespace {

using dbase::FieldDescriptor;
using dbase::FieldType;

FieldDescriptor field(const char* name, FieldType type, uint32_t length, uint32_t decimals, uint32_t offset) {
  FieldDescriptor f;
  f.name = name;
  f.type = type;
  f.length = length;
  f.decimals = decimals;
  f.offset = offset;
  return f;
}

const std::vector<FieldDescriptor> kLayout = {
    field("COD_PROV", FieldType::Character, 2, 0, 1),  field("COD_INE", FieldType::Character, 5, 0, 3),
    field("MUNICIPI", FieldType::Character, 20, 0, 8), field("GRUPO", FieldType::Numeric, 2, 0, 28),
    field("SUPERF", FieldType::Float, 8, 2, 30),       field("ACTIVO", FieldType::Logical, 1, 0, 38),
    field("ALTA", FieldType::Date, 8, 0, 39),          field("NOTAS", FieldType::Memo, 10, 0, 47),
};
constexpr size_t kRecordLength = 57;

// Rows the filters are also tried on, so that compiled tests meet real data.
const std::vector<std::string>& sampleRows() {
  static const std::vector<std::string> rows = [] {
    std::vector<std::string> r;
    r.push_back(std::string(kRecordLength, ' '));
    std::string a(kRecordLength, ' ');
    std::memcpy(&a[1], "0808019BARCELONA", 16);
    std::memcpy(&a[28], " 1", 2);
    std::memcpy(&a[30], "   12.50", 8);
    a[38] = 'T';
    std::memcpy(&a[39], "20240131", 8);
    r.push_back(a);
    r.push_back(std::string(kRecordLength, '\0'));
    r.push_back(std::string(kRecordLength, '\xFF'));
    return r;
  }();
  return rows;
}

void check(bool condition) {
  if (!condition) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);
  size_t newline = input.find('\n');
  std::string_view text = input.substr(0, newline);
  std::string row(kRecordLength, ' ');
  if (newline != std::string_view::npos) {
    std::string_view rest = input.substr(newline + 1, kRecordLength);
    std::memcpy(row.data(), rest.data(), rest.size());
  }

  dbase::FilterExpression expression;
  try {
    expression = dbase::parseFilter(text);
  } catch (const dbase::Error& e) {
    check(e.kind() == dbase::ErrorKind::InvalidArgument && e.subject() == text && !e.fault().empty());
    return 0;
  }
  check(expression.source == text);
  check(expression.terms.size() <= 2);
  check(!expression.terms.empty() || text.find_first_not_of(" \t\r\n") == std::string_view::npos);
  for (const dbase::FilterTerm& term : expression.terms) {
    check(!term.field.empty() && term.field.size() <= text.size());
    check(term.quoted || !term.text.empty());
  }

  for (int codePage : {850, 1252, 437}) {
    try {
      dbase::CompiledFilter filter(expression, kLayout, dbase::CodePage::forNumber(codePage));
      check(filter.empty() == expression.terms.empty());
      bool any = filter.matches(row.data());
      for (const std::string& sample : sampleRows()) any ^= filter.matches(sample.data());
      (void)any;
    } catch (const dbase::Error& e) {
      check(e.kind() == dbase::ErrorKind::InvalidArgument && e.subject() == text);
    }
  }
  return 0;
}
