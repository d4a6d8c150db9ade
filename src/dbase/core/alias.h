// Database aliases: a short name standing for the folder of a set of tables,
// as the BDE let the host write "CODPOSTALES" instead of a path.
#pragma once

#include <string>

namespace dbase {

// Names are case-insensitive. Registering a name again replaces its folder.
// An empty name is a dbase::Error (InvalidArgument).
void registerAlias(const std::string& name, const std::string& directory);
void unregisterAlias(const std::string& name);

// The folder an alias stands for, looked up in this order:
//   1. a name given to registerAlias;
//   2. the environment variable CODPOSTALES_ALIAS_<NAME>, with the name
//      upper-cased and every other character than A-Z and 0-9 written '_';
//   3. the text itself, when it names an existing directory (matched
//      case-insensitively; the spelling found on disk is returned).
// Otherwise throws dbase::Error (InvalidArgument, subject = the text).
std::string resolveAlias(const std::string& aliasOrPath);

// The environment variable read for an alias name (step 2 above).
std::string aliasEnvironmentVariable(const std::string& name);

}  // namespace dbase
