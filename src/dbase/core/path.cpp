#include "dbase/core/path.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <optional>
#include <vector>

namespace dbase {

namespace {

enum class Want { Any, Directory, File };

char lowerAscii(char c) { return (c >= 'A' && c <= 'Z') ? char(c - 'A' + 'a') : c; }

bool equalIgnoringAsciiCase(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (lowerAscii(a[i]) != lowerAscii(b[i])) return false;
  return true;
}

bool fits(const std::string& path, Want want) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return false;
  switch (want) {
    case Want::Directory: return S_ISDIR(st.st_mode);
    case Want::File: return S_ISREG(st.st_mode);
    case Want::Any: return true;
  }
  return false;
}

std::string join(const std::string& prefix, const std::string& name) {
  if (prefix.empty()) return name;
  if (prefix.back() == '/') return prefix + name;
  return prefix + "/" + name;
}

// Entries of `directory` spelled like `name` but for case, in a fixed order so
// that the same disk always gives the same answer.
std::vector<std::string> caseVariants(const std::string& directory, const std::string& name) {
  std::vector<std::string> found;
  DIR* dir = ::opendir(directory.empty() ? "." : directory.c_str());
  if (!dir) return found;
  while (const dirent* entry = ::readdir(dir)) {
    std::string candidate = entry->d_name;
    if (candidate != name && equalIgnoringAsciiCase(candidate, name)) found.push_back(std::move(candidate));
  }
  ::closedir(dir);
  std::sort(found.begin(), found.end());
  return found;
}

// Walks the components from `index` on. An existing exact component is taken
// as is; only a missing one makes us list its directory, and then every case
// variant is tried in turn, since two may exist and only one lead further.
std::optional<std::string> walk(const std::string& prefix, const std::vector<std::string>& parts, size_t index,
                                Want want) {
  if (index == parts.size()) return prefix;
  const std::string& part = parts[index];
  const Want here = index + 1 == parts.size() ? want : Want::Directory;
  const std::string exact = join(prefix, part);
  if (fits(exact, here)) return walk(exact, parts, index + 1, want);
  if (part == "." || part == "..") return std::nullopt;
  for (const std::string& variant : caseVariants(prefix, part)) {
    std::string candidate = join(prefix, variant);
    if (!fits(candidate, here)) continue;
    if (auto done = walk(candidate, parts, index + 1, want)) return done;
  }
  return std::nullopt;
}

std::optional<std::string> resolve(const std::string& path, Want want) {
  if (path.empty()) return std::nullopt;
  if (fits(path, want)) return path;
  std::string normal = path;
  std::replace(normal.begin(), normal.end(), '\\', '/');
  if (normal != path && fits(normal, want)) return normal;

  std::vector<std::string> parts;
  for (size_t start = 0; start <= normal.size();) {
    size_t slash = normal.find('/', start);
    if (slash == std::string::npos) slash = normal.size();
    if (slash > start) parts.push_back(normal.substr(start, slash - start));
    start = slash + 1;
  }
  const bool absolute = normal.front() == '/';
  const bool trailingSlash = normal.size() > 1 && normal.back() == '/';
  if (parts.empty()) return std::nullopt;  // "/" itself was checked above
  auto found = walk(absolute ? "/" : "", parts, 0, trailingSlash ? Want::Directory : want);
  if (found && trailingSlash) found->push_back('/');
  return found;
}

std::string withSlashes(std::string path) {
  std::replace(path.begin(), path.end(), '\\', '/');
  return path;
}

}  // namespace

std::string resolvePathCaseInsensitive(const std::string& path) {
  if (auto found = resolve(path, Want::Any)) return *found;
  return withSlashes(path);
}

std::string resolveDirectoryCaseInsensitive(const std::string& path) {
  if (auto found = resolve(path, Want::Directory)) return *found;
  return withSlashes(path);
}

bool directoryExistsCaseInsensitive(const std::string& path) { return resolve(path, Want::Directory).has_value(); }

bool fileExistsCaseInsensitive(const std::string& path) { return resolve(path, Want::File).has_value(); }

}  // namespace dbase
