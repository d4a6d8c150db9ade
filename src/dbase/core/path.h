// File names of tables copied from Windows installs, where case does not
// matter: "postales/postal28.dbf" has to find "Postales/POSTAL28.DBF".
#pragma once

#include <string>

namespace dbase {

// The existing path whose components equal those of `path` ignoring ASCII
// case; the exact spelling wins when it exists. Backslashes count as
// separators and come back as '/'. When nothing on disk matches, the path is
// returned as given (separators converted), so the caller's open reports the
// failure in its own words. Directories are only listed when the exact name
// of a component is missing.
std::string resolvePathCaseInsensitive(const std::string& path);
// As above, but only a directory counts as found.
std::string resolveDirectoryCaseInsensitive(const std::string& path);

// Whether the path, resolved as above, names a directory / a regular file
// (symbolic links followed).
bool directoryExistsCaseInsensitive(const std::string& path);
bool fileExistsCaseInsensitive(const std::string& path);

}  // namespace dbase
