// Sorts UTF-8 lines from stdin in the order of a dBase language driver, the
// way an index tag of that driver orders them (stable: equal keys keep their
// input order).
//
//   ordenar_nombres [--ldid 0x14] [--claves] < nombres.txt
//
// --claves prefixes every line with its sort key in hex and a tab, so a
// caller can tell equal keys apart from neighbours.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "dbase/core/codepage.h"
#include "dbase/core/collation.h"
#include "dbase/core/error.h"

namespace {

int usage() {
  std::cerr << "uso: ordenar_nombres [--ldid N] [--claves] < lineas\n"
               "  --ldid N   byte de controlador de idioma (0x14 por omisión)\n"
               "  --claves   antepone a cada línea su clave en hexadecimal y un tabulador\n";
  return 2;
}

std::string toHex(const std::string& bytes) {
  static const char digits[] = "0123456789abcdef";
  std::string out;
  out.reserve(bytes.size() * 2);
  for (unsigned char b : bytes) {
    out.push_back(digits[b >> 4]);
    out.push_back(digits[b & 0x0F]);
  }
  return out;
}

}  // namespace

int main(int argc, char** argv) {
  unsigned long ldid = 0x14;
  bool withKeys = false;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--ldid" && i + 1 < argc) {
      char* end = nullptr;
      ldid = std::strtoul(argv[++i], &end, 0);
      if (*end != '\0' || ldid > 0xFF) return usage();
    } else if (arg == "--claves") {
      withKeys = true;
    } else {
      return usage();
    }
  }

  const auto& codePage = dbase::CodePage::forLanguageDriver(static_cast<uint8_t>(ldid));
  const auto& collation = dbase::Collation::forLanguageDriver(static_cast<uint8_t>(ldid));

  struct Line {
    std::string key;
    std::string text;
  };
  std::vector<Line> lines;
  std::string text;
  size_t number = 0;
  while (std::getline(std::cin, text)) {
    ++number;
    if (!text.empty() && text.back() == '\r') text.pop_back();
    Line line;
    try {
      collation.appendKey(codePage.encode(text), line.key);
    } catch (const dbase::Error& e) {
      std::cerr << "ordenar_nombres: línea " << number << ": " << e.what() << "\n";
      return 1;
    }
    line.text = std::move(text);
    lines.push_back(std::move(line));
  }

  std::stable_sort(lines.begin(), lines.end(), [](const Line& a, const Line& b) { return a.key < b.key; });
  std::string out;
  for (const Line& line : lines) {
    if (withKeys) {
      out += toHex(line.key);
      out += '\t';
    }
    out += line.text;
    out += '\n';
  }
  std::fwrite(out.data(), 1, out.size(), stdout);
  return 0;
}
