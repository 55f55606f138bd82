// Server paths with a special meaning, and the kind of object that a path names.

#pragma once

#include <string_view>

enum class ObjectKind {
    System,  // security data and system configuration
    Qdls,    // the document library as a whole
    Library, // one library
    Ifs,     // anything else
};
constexpr int ObjectKindCount = 4; // also the largest number of backup workers

constexpr std::string_view SecurityDataPath = "/Security Data";
constexpr std::string_view ConfigurationPath = "/System Configuration";
constexpr std::string_view DocumentsPath = "/QDLS";
constexpr std::string_view LibrariesPath = "/QSYS.LIB";
constexpr std::string_view LibraryPrefix = "/QSYS.LIB/";
constexpr std::string_view LibrarySuffix = ".LIB";

// The kind of a full path, compared byte by byte: /QDLS/X is Ifs, and so is /QSYS.LIB itself.
ObjectKind ClassifyPath(std::string_view path);

// Whether the text from the last '.' is exactly ".LIB".
bool HasLibrarySuffix(std::string_view name);
