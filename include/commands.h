// The server commands that save and restore objects, one table row per kind of object, and the judgement of
// their replies. Texts only: sending them is the session layer's business (ftp.h). Every command is run
// through RCMD.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "string_list.h"
#include "tree.h"

// Whether a command to the server is too long: from 4096 characters on, and with just 4093, which would go out
// without its line end and wait for its reply for ever.
bool IsTooLong(std::string_view command);

// Doubles every quote and apostrophe of a path for use inside a quoted CL string. Cut at 4093 characters.
std::string QuoteForCL(std::string_view text);

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
    // The command for an object and its save file QTEMP/SAV<number>; nothing when the object's name is not
    // that of a library. SAV first takes one trailing "/" off the object's name.
    std::optional<std::string> (*build)(ObjectFile& object, std::uint32_t number);
};

// The member for an object's path: SAVDLO, SAVCFG and SAVSECDTA for the three paths of their own, SAVLIB
// below /QSYS.LIB/, else SAV.
const SaveMember& SaveMemberFor(std::string_view path);

// The count in "550 ... 12 objects saved. 3 objects not saved..": the text between the two phrases, in either
// case of letters; nothing when the reply is another.
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
    std::string (*build)(const StringPair& object, const StringList& omissions);
};

// The member for an entry's path: RSTDLO, RSTCFG and RSTUSRPRF for the three paths of their own, RSTLIB below
// /QSYS.LIB/, else RST.
const RestoreMember& RestoreMemberFor(std::string_view path);

constexpr const char* RestoreAuthorityCommand = "RCMD RSTAUT USRPRF(*ALL)";

// Judges the reply of a refused restore command by its phrases, each looked for only where its first letter
// first occurs, in either case: "objects restored" and "libraries restored" give the number before them (0
// when there is none, or none followed by a blank), "Not all " and "Save file ... contains no data" give 1;
// -1 for any other. 1 and more counts as restored.
int ClassifyRestoreReply(const char* reply);
