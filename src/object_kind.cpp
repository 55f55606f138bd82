#include "object_kind.h"

ObjectKind ClassifyPath(std::string_view path) {
    if (path == SecurityDataPath || path == ConfigurationPath)
        return ObjectKind::System;
    if (path == DocumentsPath)
        return ObjectKind::Qdls;
    return path.starts_with(LibraryPrefix) ? ObjectKind::Library : ObjectKind::Ifs;
}

bool HasLibrarySuffix(std::string_view name) {
    return name.ends_with(LibrarySuffix);
}
