// A production index walked tag by tag, by the engine and by Perl's
// XBase::Index (Debian libdbd-xbase-perl), in one format so that the two can
// be held against each other and against what the rows say it should hold.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace testsupport {

// One entry of a tag as walked: the stored key in lower-case hex, a space,
// the record number.
using Recorrido = std::vector<std::string>;

// Every tag of the index file walked by MdxFile, by tag name. Throws
// dbase::Error when the file or a tag cannot be walked.
std::map<std::string, Recorrido> recorridosDelMotor(const std::string& mdx);

// The same walked by Perl, one perl process for every tag. On failure (perl
// or XBase::Index missing, the file refused) `error` says why and the answer
// is empty.
std::map<std::string, Recorrido> recorridosConPerl(const std::string& mdx, std::string& error);

// Every tag's entries as the engine walks them (the stored key's bytes, the
// record number), by tag name.
using Entries = std::vector<std::pair<std::string, uint32_t>>;
std::map<std::string, Entries> walkAll(const std::string& mdx);

// The record numbers of a walk.
std::vector<uint32_t> registrosDe(const Recorrido& recorrido);

// What is wrong with a tag that must hold every row 1..filas exactly once:
// the first record number missing, repeated or out of range; empty when
// none is.
std::string faltaOSobra(const Recorrido& recorrido, uint32_t filas);

}  // namespace testsupport
