// File helpers of the host library. The host builds paths the Windows way
// (backslashes, names in any case); these routines make them usable here.
#pragma once

#include <QChar>
#include <QString>
#include <QStringList>

// Joins two path pieces with exactly one separator between them: separators
// at the end of the first piece and at the start of the second are not
// doubled. An empty first piece gives the second one unchanged (a relative
// path never turns absolute); an empty second piece gives the first one with
// one trailing separator.
// On POSIX a '\\' separator is written as '/', and backslashes inside both
// pieces become '/' too, so "C:"-less Windows-style pieces give a usable path.
// Any other separator is used as given.
QString SlashSep(const QString& primero, const QString& segundo, QChar separador);

// Appends to `lista` the files (not folders) of one folder whose names match
// the mask, without descending into subfolders. The mask is a folder and a
// name pattern ("/datos/*.dbf", "datos\\cp??.txt"); backslashes are accepted
// as separators, a mask without folder looks in the current one. In the
// pattern '*' stands for any run of characters and '?' for one; "*.*" means
// every file, as on Windows. Names are matched ignoring case, since the data
// comes from Windows. Hidden files are included.
// With soloNombres false (what the host passes) the entries are absolute paths
// with '/' separators; with true they are bare file names. Entries are sorted
// by name, ignoring case. A folder that does not exist adds nothing.
void FindFileNoRecursivo(const QString& mascara, QStringList& lista, bool soloNombres);
