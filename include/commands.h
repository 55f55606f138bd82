// The server commands that save and restore objects, one table row per kind of object, and how their replies are
// judged. Texts only; the session layer (ftp.h) sends them. Every command is run through RCMD.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "string_list.h"
#include "tree.h"

// What the run's settings say about saves.
struct SaveOptions {
    bool precheck = true;
    std::string wait = "120";  // seconds to wait for a checkpoint, as typed, or "*NOMAX"
    std::string changed_date;  // "mm/dd/yy", local: save only what changed since then; empty: everything
    std::string changed_clock; // "hh:mm:ss", local
};

// The release of the server, as its SYST reply names it.
enum class Release {
    Other,
    V5R3M0,
    V5R4M0, // the one whose RST makes parent directories by itself
};

// Whether a command to the server is too long: 4096 characters and more, and exactly 4093, which would be sent without
// its line end and wait for its reply forever.
bool IsTooLong(std::string_view command);

// Doubles every quote and apostrophe of a path for use inside a quoted CL string. Cut at 4093 characters.
std::string QuoteForCL(std::string_view text);

// The part of a path below /QSYS.LIB/. Requires: it begins with that, or is /QSYS.LIB.
std::string NameBelowLibraries(const std::string& path);

// Whether the text can be the name of a library inside a command: not empty, no "*" in front (which would be a special
// value, such as *ALLUSR), no blank, parenthesis, apostrophe or control character.
bool IsLibraryName(std::string_view name);

// What a refused save command may still be.
enum class PartialRule {
    None,     // a failure
    Count,    // partial when the reply counts objects not saved
    AnyReply, // partial, whatever the reply says
};

// How one kind of object is saved.
struct SaveMember {
    const char* verb;    // in messages
    bool names_path;     // the command names a path: SITE NAMEFMT 1 is set first
    PartialRule partial; // applies while the precheck is off
    // The command for an object and its save file QTEMP/SAV<number>; nothing when the object's name is not that of a
    // library. SAV first removes one trailing "/" from the object's name.
    std::optional<std::string> (*build)(ObjectFile& object, std::uint32_t number, const SaveOptions& options);
};

// The member for an object's path: SAVDLO, SAVCFG and SAVSECDTA for the three paths of their own, SAVLIB
// below /QSYS.LIB/, else SAV.
const SaveMember& SaveMemberFor(std::string_view path);

// The count in "550 ... 12 objects saved. 3 objects not saved..": the text between the two phrases, without regard to
// case; nothing when the reply is a different one.
std::optional<std::string> CountNotSaved(const char* reply);

// How one kind of object is restored.
struct RestoreMember {
    const char* verb;    // in messages
    const char* failure; // of the entry as a whole, after the head of a message
    bool names_path;     // SITE NAMEFMT 1 is set first
    bool library;        // the first pair names a library and perhaps another to restore it to
    bool each_path;      // one command per pair, with omissions and parent directories
    bool profiles;       // its success calls for RSTAUT at the end of the run
    bool judges_reply;   // a refusal may still count as restored, see ClassifyRestoreReply
    // The command for one pair and the paths below it to omit.
    std::string (*build)(const StringPair& object, const StringList& omissions, Release release);
};

// The member for an entry's path: RSTDLO, RSTCFG and RSTUSRPRF for the three paths of their own, RSTLIB below
// /QSYS.LIB/, else RST.
const RestoreMember& RestoreMemberFor(std::string_view path);

constexpr const char* RestoreAuthorityCommand = "RCMD RSTAUT USRPRF(*ALL)";

// Judges the reply of a refused restore command by its phrases, each looked for only where its first letter first
// occurs, without regard to case. Returns the number before "objects restored" or "libraries restored" (0 when there is
// none, or none followed by a blank), 1 for "Not all " and for "Save file ... contains no data", -1 for anything else.
// 1 and more counts as restored.
int ClassifyRestoreReply(const char* reply);
