// Index keys of rows and of search values. A key is a byte string whose
// memcmp order is the tag's order; compound keys are the field keys one after
// the other, each self-delimiting, so they compare field by field.
//   C  the collation key of the table's language driver (see collation.h)
//   N F  0x01 when blank, else 0x02 and the value as an order-preserving
//        8-byte big-endian image of the double
//   L  0x01 unknown, 0x02 false, 0x03 true
//   D  0x01 when blank, else 0x02 and the eight digits
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "dbase/core/dbf_format.h"

namespace dbase {

class DbfFile;

void appendRecordKey(const DbfFile& file, const std::vector<int>& fields, const char* record, std::string& key);
void appendFieldKey(const DbfFile& file, int field, const char* record, std::string& key);

// The keys of one row's fields, each worked out once however many tags use it.
class RowKeys {
 public:
  void reset(const DbfFile& file, const char* record);
  void appendKey(const std::vector<int>& fields, std::string& key);

 private:
  const DbfFile* file_ = nullptr;
  const char* record_ = nullptr;
  std::string keys_;
  std::vector<int> field_;       // fields done, and where their keys are
  std::vector<uint32_t> start_;  // in keys_ (one more than field_)
};

// Key of search values (UTF-8 text, one per leading field of the tag). With
// `partial`, the last value is a prefix: the key sorts at or before every row
// whose field starts with it. Returns false when a value cannot occur in the
// table at all (a character outside its code page, a non-number for a
// numeric field); `key` is then the nearest key that keeps the order.
// A search value for a character field in the table's code page, cut to the
// field's width. Returns false when the value holds a character the code page
// cannot: `bytes` is then the longest start of it that can be written.
bool encodeSearchText(const DbfFile& file, const FieldDescriptor& field, std::string_view value, std::string& bytes);

bool appendSearchKey(const DbfFile& file, const std::vector<int>& fields, const std::vector<std::string>& values,
                     bool partial, std::string& key);

}  // namespace dbase
