#include "commands.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>

#include "object_kind.h"
#include "text.h"

std::string QuoteForCL(std::string_view text) {
    constexpr std::size_t longest = 4093; // a doubled character may go one beyond
    std::string quoted;
    for (const char character : text) {
        if (quoted.size() >= longest)
            break;
        if (character == '"' || character == '\'')
            quoted += character;
        quoted += character;
    }
    return quoted;
}

bool IsTooLong(std::string_view command) {
    return command.size() >= 4096 || command.size() == 4093;
}

std::string NameBelowLibraries(const std::string& path) {
    return path.substr(std::min(path.size(), LibraryPrefix.size()));
}

bool IsLibraryName(std::string_view name) {
    return !name.empty() && !name.starts_with('*') && name.find_first_of(" ()'") == name.npos &&
           std::none_of(name.begin(), name.end(), IsControl);
}

// Saving

namespace {

const char* Precheck(const SaveOptions& options) {
    return options.precheck ? "*YES" : "*NO";
}

// The last part of a library's path without ".LIB"; nothing when that cannot be the name of one.
std::optional<std::string> LibraryName(std::string_view path) {
    path.remove_prefix(path.rfind('/') + 1);
    if (!HasLibrarySuffix(path))
        return std::nullopt;
    path.remove_suffix(LibrarySuffix.size());
    return IsLibraryName(path) ? std::optional<std::string>(path) : std::nullopt;
}

std::optional<std::string> BuildSav(ObjectFile& object, std::uint32_t number, const SaveOptions& options) {
    if (object.name.size() > 1 && object.name.ends_with('/')) // the root is nothing without it
        object.name.pop_back();
    std::string command = FormatText("RCMD SAV DEV('/QSYS.LIB/QTEMP.LIB/SAV%u.FILE') OBJ(('\"%s\"')) "
                                     "SUBTREE(*ALL) PRECHK(%s) UPDHST(*NO) SAVACT(*YES)",
                                     number, QuoteForCL(object.name).c_str(), Precheck(options));
    if (!options.changed_date.empty())
        command += FormatText(" CHGPERIOD('%s' '%s')", options.changed_date.c_str(), options.changed_clock.c_str());
    return command;
}

std::optional<std::string> BuildSavlib(ObjectFile& object, std::uint32_t number, const SaveOptions& options) {
    const std::optional<std::string> library = LibraryName(object.name);
    if (!library)
        return std::nullopt;
    return FormatText("RCMD SAVLIB LIB(%s) DEV(*SAVF) SAVF(QTEMP/SAV%u) PRECHK(%s) UPDHST(*NO) "
                      "SAVACT(*SYNCLIB) SAVACTWAIT(%s) ACCPTH(*YES)",
                      library->c_str(), number, Precheck(options), options.wait.c_str());
}

std::optional<std::string> BuildSavdlo(ObjectFile&, std::uint32_t number, const SaveOptions&) {
    return FormatText("RCMD SAVDLO DLO(*ALL) DEV(*SAVF) SAVF(QTEMP/SAV%u) SAVACT(*YES)", number);
}

std::optional<std::string> BuildSavsecdta(ObjectFile&, std::uint32_t number, const SaveOptions& options) {
    return FormatText("RCMD SAVSECDTA DEV(*SAVF) SAVF(QTEMP/SAV%u) PRECHK(%s)", number, Precheck(options));
}

std::optional<std::string> BuildSavcfg(ObjectFile&, std::uint32_t number, const SaveOptions& options) {
    return FormatText("RCMD SAVCFG DEV(*SAVF) SAVF(QTEMP/SAV%u) PRECHK(%s)", number, Precheck(options));
}

// The members, and their rows in the tables below.
enum Member { Documents, Configuration, Security, Library, Ifs };

constexpr std::array<SaveMember, 5> SaveMembers{{
    {"SAVDLO", false, PartialRule::None, BuildSavdlo},
    {"SAVCFG", false, PartialRule::Count, BuildSavcfg},
    {"SAVSECDTA", false, PartialRule::Count, BuildSavsecdta},
    {"SAVLIB", true, PartialRule::AnyReply, BuildSavlib},
    {"SAV", true, PartialRule::Count, BuildSav},
}};

Member MemberFor(std::string_view path) {
    switch (ClassifyPath(path)) {
    case ObjectKind::Qdls:
        return Documents;
    case ObjectKind::System:
        return path == SecurityDataPath ? Security : Configuration;
    case ObjectKind::Library:
        return Library;
    case ObjectKind::Ifs:
        break;
    }
    return Ifs;
}

} // namespace

const SaveMember& SaveMemberFor(std::string_view path) {
    return SaveMembers[MemberFor(path)];
}

std::optional<std::string> CountNotSaved(const char* reply) {
    constexpr std::string_view saved = "objects saved. ";
    if (std::strstr(reply, "550") == nullptr)
        return std::nullopt;
    const char* const from = ::strcasestr(reply, saved.data());
    if (from == nullptr)
        return std::nullopt;
    const char* const count = from + saved.size();
    const char* const end = ::strcasestr(count, " objects not saved..");
    if (end == nullptr)
        return std::nullopt;
    return std::string(count, end);
}

// Restoring

namespace {

std::string BuildRst(const StringPair& object, const StringList& omissions, Release release) {
    std::string command =
        FormatText("RCMD RST DEV('/QSYS.LIB/QTEMP.LIB/SAVTEMP.FILE') OBJ(('\"%s\"'", QuoteForCL(object.first).c_str());
    if (object.second)
        command += FormatText(" *INCLUDE '\"%s\"')", QuoteForCL(*object.second).c_str());
    else
        command += ")";
    for (const StringPair& omission : omissions)
        command += FormatText(" ('\"%s\"' *OMIT)", QuoteForCL(omission.first).c_str());
    command += ") SUBTREE(*ALL) ALWOBJDIF(*ALL)";
    if (release == Release::V5R4M0)
        command += " CRTPRNDIR(*Yes)";
    return command;
}

// Requires: both paths begin with "/QSYS.LIB/" and their ".LIB" is removed.
std::string BuildRstlib(const StringPair& object, const StringList&, Release) {
    return FormatText("RCMD RSTLIB SAVLIB(%s) DEV(*SAVF) SAVF(QTEMP/SAVTEMP) RSTLIB(%s) MBROPT(*ALL) "
                      "ALWOBJDIF(*ALL)",
                      NameBelowLibraries(object.first).c_str(),
                      object.second ? NameBelowLibraries(*object.second).c_str() : "*SAVLIB");
}

std::string BuildRstdlo(const StringPair&, const StringList&, Release) {
    return "RCMD RSTDLO DLO(*ALL) DEV(*SAVF) SAVF(QTEMP/SAVTEMP) ALWOBJDIF(*ALL)";
}

std::string BuildRstusrprf(const StringPair&, const StringList&, Release) {
    return "RCMD RSTUSRPRF DEV(*SAVF) SAVF(QTEMP/SAVTEMP) USRPRF(*NEW) ALWOBJDIF(*ALL)";
}

std::string BuildRstcfg(const StringPair&, const StringList&, Release) {
    return "RCMD RSTCFG OBJ(*ALL) DEV(*SAVF) SAVF(QTEMP/SAVTEMP) ALWOBJDIF(*ALL)";
}

constexpr std::array<RestoreMember, 5> RestoreMembers{{
    {"RSTDLO", "DL objects restore failed", false, false, false, false, false, BuildRstdlo},
    {"RSTCFG", "configuration restore failed", false, false, false, false, true, BuildRstcfg},
    {"RSTUSRPRF", "user profile restore failed", false, false, false, true, true, BuildRstusrprf},
    {"RSTLIB", "library restore failed", true, true, false, false, true, BuildRstlib},
    {"RST", "IFS object restore failed", true, false, true, false, true, BuildRst},
}};

// Where `text` first contains `letter` (given in both cases), when the phrase begins there.
const char* FindPhrase(const char* text, const char* letter, std::string_view phrase) {
    const char* const from = std::strpbrk(text, letter);
    return from != nullptr && StartsWithIgnoringCase(from, phrase) ? from : nullptr;
}

// The number before the phrase at `position`. Never looks at the reply code, the first three digits.
int CountBefore(const char* reply, std::size_t position) {
    constexpr std::size_t text = 4;
    while (position > text && IsSpace(reply[position - 1]))
        --position;
    while (position > text && IsDigit(reply[position - 1]))
        --position;
    char* end;
    const long number = std::strtol(reply + position, &end, 0);
    if (number < 1 || *end != ' ')
        return 0;
    return static_cast<int>(std::min(number, 2147483647L));
}

} // namespace

const RestoreMember& RestoreMemberFor(std::string_view path) {
    return RestoreMembers[MemberFor(path)];
}

int ClassifyRestoreReply(const char* reply) {
    for (const auto& [letter, phrase] : {std::pair{"oO", std::string_view("objects restored")},
                                         std::pair{"lL", std::string_view("libraries restored")}})
        if (const char* from = FindPhrase(reply, letter, phrase))
            return CountBefore(reply, static_cast<std::size_t>(from - reply));
    if (FindPhrase(reply, "nN", "Not all ") != nullptr)
        return 1;
    constexpr std::string_view save_file = "Save file ";
    const char* const from = FindPhrase(reply, "sS", save_file);
    if (from != nullptr && FindPhrase(from + save_file.size(), "cC", "contains no data") != nullptr)
        return 1;
    return -1;
}
