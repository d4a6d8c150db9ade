#include "dbase/core/sort_key.h"

#include <bit>
#include <cstdint>
#include <cstring>

#include "dbase/core/codepage.h"
#include "dbase/core/collation.h"
#include "dbase/core/dbf_file.h"
#include "dbase/core/field_value.h"

namespace dbase {

namespace {

void appendNumber(std::optional<double> value, std::string& key) {
  if (!value) {
    key.push_back('\x01');
    return;
  }
  double v = *value == 0 ? 0.0 : *value;  // -0 sorts as 0
  uint64_t bits = std::bit_cast<uint64_t>(v);
  bits = (bits & 0x8000000000000000ull) ? ~bits : bits | 0x8000000000000000ull;
  key.push_back('\x02');
  for (int shift = 56; shift >= 0; shift -= 8) key.push_back(char(uint8_t(bits >> shift)));
}

void appendFlag(char c, std::string& key) {
  if (c == 'T' || c == 't' || c == 'Y' || c == 'y')
    key.push_back('\x03');
  else if (c == 'F' || c == 'f' || c == 'N' || c == 'n')
    key.push_back('\x02');
  else
    key.push_back('\x01');
}

void appendDate(std::string_view digits, std::string& key) {
  digits = trimBlanks(digits);
  if (digits.empty()) {
    key.push_back('\x01');
    return;
  }
  key.push_back('\x02');
  key.append(digits.substr(0, 8));
  key.append(8 - std::min<size_t>(8, digits.size()), '0');
}

}  // namespace

void appendFieldKey(const DbfFile& file, int field, const char* record, std::string& key) {
  const FieldDescriptor& f = file.fields()[size_t(field)];
  switch (f.type) {
    case FieldType::Character:
    case FieldType::Memo:
      file.collation().appendKey(fieldBytes(f, record), key);
      break;
    case FieldType::Numeric:
    case FieldType::Float:
      appendNumber(fieldNumber(f, record), key);
      break;
    case FieldType::Logical:
      appendFlag(record[f.offset], key);
      break;
    case FieldType::Date:
      appendDate(fieldBytes(f, record), key);
      break;
  }
}

void appendRecordKey(const DbfFile& file, const std::vector<int>& fields, const char* record, std::string& key) {
  for (int index : fields) appendFieldKey(file, index, record, key);
}

void RowKeys::reset(const DbfFile& file, const char* record) {
  file_ = &file;
  record_ = record;
  keys_.clear();
  field_.clear();
  start_.assign(1, 0);
}

void RowKeys::appendKey(const std::vector<int>& fields, std::string& key) {
  for (int field : fields) {
    size_t i = 0;
    while (i < field_.size() && field_[i] != field) ++i;
    if (i == field_.size()) {
      appendFieldKey(*file_, field, record_, keys_);
      field_.push_back(field);
      start_.push_back(uint32_t(keys_.size()));
    }
    key.append(keys_, start_[i], start_[i + 1] - start_[i]);
  }
}

bool encodeSearchText(const DbfFile& file, const FieldDescriptor& field, std::string_view value, std::string& bytes) {
  bytes.clear();
  bool possible = file.codePage().tryEncode(value, bytes);
  if (!possible) {
    // Keep the part that can be written; the search lands where it would.
    bytes.clear();
    for (size_t cut = value.size(); cut > 0; --cut)
      if (file.codePage().tryEncode(value.substr(0, cut), bytes)) break;
  }
  if (bytes.size() > field.length) bytes.resize(field.length);
  return possible;
}

bool appendSearchKey(const DbfFile& file, const std::vector<int>& fields, const std::vector<std::string>& values,
                     bool partial, std::string& key) {
  bool possible = true;
  const size_t n = std::min(fields.size(), values.size());
  for (size_t i = 0; i < n; ++i) {
    const FieldDescriptor& f = file.fields()[size_t(fields[i])];
    const std::string& value = values[i];
    const bool prefix = partial && i + 1 == n;
    switch (f.type) {
      case FieldType::Character:
      case FieldType::Memo: {
        std::string bytes;
        possible &= encodeSearchText(file, f, value, bytes);
        if (prefix)
          file.collation().appendPrefixKey(bytes, key);
        else
          file.collation().appendKey(bytes, key);
        break;
      }
      case FieldType::Numeric:
      case FieldType::Float: {
        auto number = parseNumber(value);
        if (!number && !trimBlanks(value).empty()) possible = false;
        appendNumber(number, key);
        break;
      }
      case FieldType::Logical: {
        std::string_view t = trimBlanks(value);
        appendFlag(t.empty() ? ' ' : t[0], key);
        break;
      }
      case FieldType::Date:
        appendDate(value, key);
        break;
    }
  }
  return possible;
}

}  // namespace dbase
