#include "dbase/core/alias.h"

#include <cstdlib>
#include <map>
#include <mutex>

#include "dbase/core/error.h"
#include "dbase/core/path.h"

namespace dbase {

namespace {

std::mutex& registryMutex() {
  static std::mutex m;
  return m;
}

std::map<std::string, std::string>& registry() {
  static std::map<std::string, std::string> aliases;
  return aliases;
}

std::string upperAscii(std::string text) {
  for (char& c : text)
    if (c >= 'a' && c <= 'z') c = char(c - 'a' + 'A');
  return text;
}

}  // namespace

std::string aliasEnvironmentVariable(const std::string& name) {
  std::string variable = "CODPOSTALES_ALIAS_";
  for (char c : upperAscii(name)) {
    const bool alnum = (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    variable.push_back(alnum ? c : '_');
  }
  return variable;
}

void registerAlias(const std::string& name, const std::string& directory) {
  if (name.empty()) throw Error(ErrorKind::InvalidArgument, directory, "alias sin nombre");
  std::lock_guard<std::mutex> guard(registryMutex());
  registry()[upperAscii(name)] = directory;
}

void unregisterAlias(const std::string& name) {
  std::lock_guard<std::mutex> guard(registryMutex());
  registry().erase(upperAscii(name));
}

std::string resolveAlias(const std::string& aliasOrPath) {
  if (!aliasOrPath.empty()) {
    {
      std::lock_guard<std::mutex> guard(registryMutex());
      auto it = registry().find(upperAscii(aliasOrPath));
      if (it != registry().end()) return it->second;
    }
    // An unset or empty variable means no alias: an empty folder would only
    // turn into a confusing "file not found" later.
    const char* value = std::getenv(aliasEnvironmentVariable(aliasOrPath).c_str());
    if (value && *value) return value;
    if (directoryExistsCaseInsensitive(aliasOrPath)) return resolveDirectoryCaseInsensitive(aliasOrPath);
  }
  throw Error(ErrorKind::InvalidArgument, aliasOrPath, "alias desconocido o directorio inexistente");
}

}  // namespace dbase
