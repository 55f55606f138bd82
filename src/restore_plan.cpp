#include "restore_plan.h"

#include <iterator>

#include "object_kind.h"
#include "path_file.h"

// Selection

namespace {

// Looks a part up in the exclude file and notes it when it is there.
bool IsExcluded(const StringPair& part, std::FILE* exclude, WantedParts& wanted) {
    if (MatchPathFile(part.first, nullptr, exclude, WildCards::Ignore) != 0)
        return false;
    wanted.excluded.push_back(part.first);
    return true;
}

// Removes excluded parts, testing the first part last.
void RemoveExcluded(WantedParts& wanted, std::FILE* exclude) {
    StringList& parts = wanted.parts;
    if (parts.empty())
        return;
    for (auto part = std::next(parts.begin()); part != parts.end();)
        part = IsExcluded(*part, exclude, wanted) ? parts.erase(part) : std::next(part);
    if (IsExcluded(parts.front(), exclude, wanted))
        parts.pop_front();
}

} // namespace

WantedParts SelectParts(const std::string& name, std::FILE* include, std::FILE* exclude) {
    WantedParts wanted;
    // The two special objects are never looked up in the include file.
    if (include == nullptr || name == ConfigurationPath || name == SecurityDataPath)
        wanted.parts = {{name, std::nullopt}};
    else
        wanted.not_included = MatchPathFile(name, &wanted.parts, include, WildCards::Ignore) >= 1;
    if (exclude != nullptr)
        RemoveExcluded(wanted, exclude);
    return wanted;
}

// Commands

namespace {

// Removes ".LIB" from the end of a library's path; false when it ends differently.
bool CutLibrarySuffix(std::string& path) {
    if (!HasLibrarySuffix(path))
        return false;
    path.resize(path.size() - LibrarySuffix.size());
    return true;
}

} // namespace

const char* PrepareLibraryNames(StringPair& library) {
    constexpr std::size_t longest = 24; // "/QSYS.LIB/", ten characters and ".LIB"
    if (!CutLibrarySuffix(library.first) || !IsLibraryName(NameBelowLibraries(library.first)))
        return "bad library name";
    if (!library.second)
        return "";
    std::string& destination = *library.second;
    const bool is_good = destination.starts_with(LibraryPrefix) && destination.size() <= longest &&
                         CutLibrarySuffix(destination) && IsLibraryName(NameBelowLibraries(destination));
    return is_good ? "" : "bad library destination";
}

StringList RestoreSubjects(const RestoreMember& member, const std::string& name, const StringList& parts) {
    if (member.each_path)
        return parts;
    if (member.library)
        return {parts.front()};
    return {{name, std::nullopt}};
}

std::string BuildRestoreCommand(const RestoreMember& member, const StringPair& subject, std::FILE* exclude,
                                Release release) {
    StringList omissions;
    if (member.each_path)
        MatchPathFile(subject.first, &omissions, exclude, WildCards::Ignore);
    return member.build(subject, omissions, release);
}
