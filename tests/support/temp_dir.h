// A scratch folder for one test, removed with everything in it when the test ends.
#pragma once
#include <string>

namespace testsupport {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// The shared reference data folder beside the checkout ("" when it is absent).
std::string sharedDir();
// Reads a whole file; throws std::runtime_error when it cannot.
std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& bytes);

}  // namespace testsupport
