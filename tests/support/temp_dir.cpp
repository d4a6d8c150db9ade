#include "support/temp_dir.h"

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <cstdlib>

namespace testsupport {

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "codpostales-XXXXXX").string();
  if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

std::string sharedDir() {
  std::string dir = CODPOSTALES_SHARED_DIR;
  return std::filesystem::is_directory(dir) ? dir : std::string();
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

void writeFile(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out) throw std::runtime_error("cannot write " + path);
  out << bytes;
}

}  // namespace testsupport
