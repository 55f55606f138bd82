#include "save_restore.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "control_language.h"
#include "restore_objects.h"
#include "save_file.h"
#include "text.h"
#include "texts.h"

namespace rehearsal {

TemporaryLibrary::TemporaryLibrary() {
    std::string name = (std::filesystem::temp_directory_path() / "rehearsal-qtemp-XXXXXX").string();
    if (!::mkdtemp(name.data()))
        throw std::system_error(errno, std::generic_category(), "mkdtemp(" + name + ")");
    directory_ = name;
}

TemporaryLibrary::~TemporaryLibrary() {
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

bool TemporaryLibrary::Has(const std::string& name) const {
    std::error_code ignored;
    return std::filesystem::exists(File(name), ignored);
}

Descriptor TemporaryLibrary::Open(const std::string& name) const {
    return Descriptor(::open(File(name).c_str(), O_RDONLY | O_CLOEXEC));
}

Descriptor TemporaryLibrary::Replace(const std::string& name) const {
    ::unlink(File(name).c_str());
    Descriptor file(::open(File(name).c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!file.IsOpen())
        throw std::system_error(errno, std::generic_category(), "open(" + File(name).string() + ")");
    return file;
}

std::optional<std::string> SaveFileName(const std::string& path, const std::string& suffix) {
    const std::string upper = ToUpper(path);
    const std::string library = "/QSYS.LIB/QTEMP.LIB/";
    if (!upper.starts_with(library) || !upper.ends_with(suffix) || upper.size() <= library.size() + suffix.size())
        return std::nullopt;
    const std::string name = upper.substr(library.size(), upper.size() - library.size() - suffix.size());
    return name.find('/') == std::string::npos && name.size() <= 10 ? std::optional(name) : std::nullopt;
}

namespace {

constexpr char SystemLibrary[] = "/QSYS.LIB";
constexpr char DocumentRoot[] = "/QDLS";

// The save file in a FILE or SAVF parameter, LIBRARY/NAME. No library but QTEMP has save files.
std::string QualifiedSaveFile(const Command& command, const std::string& keyword, const char* elsewhere) {
    const std::string value = command.SingleValue(keyword);
    const std::size_t slash = value.find('/');
    const std::string library = slash == std::string::npos ? "*LIBL" : value.substr(0, slash);
    const std::string name = value.substr(slash + 1);
    CheckName(name, keyword);
    if (library != "QTEMP")
        throw EscapeMessage{Substitute(elsewhere, {name, library})};
    return name;
}

// The save file that a save or restore command uses: DEV('/QSYS.LIB/QTEMP.LIB/NAME.FILE'), or DEV(*SAVF) with SAVF.
std::string UsedSaveFile(const Job& job, const Command& command) {
    std::string name;
    if (command.Has("SAVF")) {
        name = QualifiedSaveFile(command, "SAVF", text::FileMissing);
    } else {
        const auto device = SaveFileName(command.SingleValue("DEV"), ".FILE");
        if (!device)
            throw EscapeMessage{Substitute(text::BadValue, {command.SingleValue("DEV"), "DEV"})};
        name = *device;
    }
    if (!job.library.Has(name))
        throw EscapeMessage{Substitute(text::FileMissing, {name, "QTEMP"})};
    return name;
}

std::string LibraryPath(const Command& command, const std::string& keyword) {
    const std::string name = command.SingleValue(keyword);
    CheckName(name, keyword);
    return std::string(SystemLibrary) + "/" + name + ".LIB";
}

// The normal form of a path in an OBJ element. Libraries are refused; they have their own commands.
std::string ObjectPath(const std::string& path, const Command& command) {
    const auto normal = path.empty() ? std::nullopt : NormalPath("/", path);
    if (!normal)
        throw EscapeMessage{Substitute(text::ObjectMissing, {path})};
    if (IsWithin(*normal, SystemLibrary))
        throw EscapeMessage{Substitute(text::ObjectNotAllowed, {path, command.name})};
    return *normal;
}

std::vector<ObjectElement> NormalElements(const Command& command) {
    std::vector<ObjectElement> elements = ObjectElements(command);
    for (ObjectElement& element : elements) {
        element.path = ObjectPath(element.path, command);
        if (!element.new_name.empty())
            element.new_name = ObjectPath(element.new_name, command);
    }
    return elements;
}

bool IsOmitted(const std::vector<ObjectElement>& elements, const std::string& path) {
    return std::any_of(elements.begin(), elements.end(),
                       [&](const ObjectElement& element) { return element.omit && IsWithin(path, element.path); });
}

std::string CreateSaveFile(const Job& job, const Command& command) {
    const std::string name = QualifiedSaveFile(command, "FILE", text::FileNotCreated);
    if (job.library.Has(name))
        throw EscapeMessage{Substitute(text::FileNotCreated, {name, "QTEMP"})};
    job.library.Replace(name);
    return Substitute(text::FileCreated, {name, "QTEMP"});
}

std::string ClearSaveFile(const Job& job, const Command& command) {
    const std::string name = QualifiedSaveFile(command, "FILE", text::FileMissing);
    if (!job.library.Has(name))
        throw EscapeMessage{Substitute(text::FileMissing, {name, "QTEMP"})};
    job.library.Replace(name);
    return Substitute(text::FileCleared, {name, "QTEMP"});
}

bool IsInUse(const Job& job, const std::string& path) {
    return job.options.locked.contains(path) || job.options.busy.contains(path);
}

// What the completion message of a save or restore counts, in objects.
struct Counts {
    std::uint64_t done = 0;
    std::uint64_t not_done = 0;
};

// One save operation: Collect is called for every path to save, then Write.
class Save {
public:
    Save(const Job& job, const Command& command)
        : job_(job), save_file_(UsedSaveFile(job, command)), precheck_(command.SingleValue("PRECHK", "*NO") == "*YES") {
    }

    void ChangedSince(std::time_t time) { since_ = time; }
    void Omit(std::vector<ObjectElement> elements) { omitted_ = std::move(elements); }
    // Adds the object and everything below it.
    void Collect(const std::string& path, const Status& status);
    // Returns the counts of the completion message. When no object can be saved or the preliminary check fails, throws
    // `nothing` or the message of the check, and the save file is empty.
    Counts Write(SaveKind kind, const std::string& name, const std::string& nothing);

private:
    struct Object {
        std::string path;
        Status status;
    };
    bool IsReadable(const Object& object) const;
    bool WriteObject(SaveFileWriter& writer, const Object& object) const;

    const Job& job_;
    const std::string save_file_;
    const bool precheck_;
    std::optional<std::time_t> since_;
    std::vector<ObjectElement> omitted_;
    std::vector<Object> objects_; // a directory precedes what is in it
    std::uint64_t not_saved_ = 0; // locked, busy, unreadable, or of another type than file, directory and link
};

void Save::Collect(const std::string& path, const Status& status) {
    if (IsOmitted(omitted_, path))
        return;
    const bool old = since_ && status.changed.tv_sec < *since_;
    const bool directory = S_ISDIR(status.mode);
    if (IsInUse(job_, path)) {
        not_saved_ += !old || directory;
        return;
    }
    if (old && !directory)
        return;
    if (path != "/")
        objects_.push_back({path, status});
    const std::size_t before = objects_.size();
    for (const Child& child : directory ? job_.store.Children(path) : std::vector<Child>()) {
        const std::string below = Join(path, child.name);
        if (below != SystemLibrary && below != DocumentRoot) // these have their own commands
            Collect(below, child.status);
    }
    if (old && directory && objects_.size() == before && path != "/")
        objects_.pop_back();
}

bool Save::IsReadable(const Object& object) const {
    const auto place = job_.store.Locate(object.path, false);
    const mode_t mode = object.status.mode;
    return place && (S_ISLNK(mode) || ((S_ISREG(mode) || S_ISDIR(mode)) && place->Open(O_RDONLY).IsOpen()));
}

bool Save::WriteObject(SaveFileWriter& writer, const Object& object) const {
    const Status& status = object.status;
    Entry entry{Entry::Type::File, status.mode & 07777, status.changed, status.size, object.path};
    const auto place = job_.store.Locate(object.path, false);
    if (place && S_ISLNK(status.mode)) {
        entry.type = Entry::Type::Link;
        writer.AddLink(std::move(entry), place->LinkTarget());
        return true;
    }
    const Descriptor file = place ? place->Open(O_RDONLY) : Descriptor();
    if (file.IsOpen() && S_ISDIR(status.mode)) {
        entry.type = Entry::Type::Directory;
        writer.AddDirectory(std::move(entry));
    } else if (file.IsOpen() && S_ISREG(status.mode)) {
        writer.AddFile(std::move(entry), file.Get());
    } else {
        return false;
    }
    return true;
}

Counts Save::Write(SaveKind kind, const std::string& name, const std::string& nothing) {
    const Descriptor file = job_.library.Replace(save_file_);
    if (precheck_) {
        not_saved_ += static_cast<std::uint64_t>(
            std::count_if(objects_.begin(), objects_.end(), [&](const Object& each) { return !IsReadable(each); }));
        if (not_saved_ > 0)
            throw EscapeMessage{Substitute(text::PrecheckFailed, {std::to_string(not_saved_)})};
    }
    if (objects_.empty())
        throw EscapeMessage{nothing};
    SaveFileWriter writer(file.Get(), kind, name);
    std::uint64_t saved = 0;
    for (const Object& object : objects_)
        saved += WriteObject(writer, object);
    not_saved_ += objects_.size() - saved;
    if (saved > 0) {
        writer.Finish();
        job_.saved_bytes = writer.Length();
        return {saved, not_saved_};
    }
    job_.library.Replace(save_file_);
    throw EscapeMessage{nothing};
}

// Returns the message `complete` or throws the message `partial`: counts, from and to are &1 to &4 in both.
std::string CompletionMessage(Counts counts, const char* complete, const char* partial, const std::string& from = "",
                              const std::string& to = "") {
    const auto text = Substitute(counts.not_done == 0 ? complete : partial,
                                 {std::to_string(counts.done), std::to_string(counts.not_done), from, to});
    if (counts.not_done > 0)
        throw EscapeMessage{text};
    return text;
}

// CHGPERIOD('mm/dd/yy' 'hh:mm:ss'), local time; years 40 to 99 are 1940 to 1999.
std::time_t ChangePeriod(const Command& command) {
    std::string moment;
    for (const Value& value : command.parameters.at("CHGPERIOD"))
        moment += value.text + " ";
    std::tm time{};
    const char* const end = ::strptime(moment.c_str(), "%m/%d/%y %H:%M:%S ", &time);
    if (!end || *end != '\0')
        throw EscapeMessage{Substitute(text::BadValue, {moment, "CHGPERIOD"})};
    if (time.tm_year >= 140)
        time.tm_year -= 100;
    time.tm_isdst = -1;
    return std::mktime(&time);
}

// Saves a file as nothing but its bytes: the save file is a link to it.
std::string SaveRaw(const Job& job, const std::string& path, const std::string& save_file) {
    const auto place = job.store.Locate(path, true);
    const Descriptor file = place ? place->Open(O_RDONLY) : Descriptor();
    if (!file.IsOpen())
        throw EscapeMessage{Substitute(text::ObjectMissing, {path})};
    ::unlink(job.library.File(save_file).c_str());
    std::filesystem::create_symlink(HostPath(file), job.library.File(save_file));
    job.saved_bytes = std::filesystem::file_size(job.library.File(save_file));
    return Substitute(text::Saved, {"1"});
}

std::string SavePaths(const Job& job, const Command& command) {
    const std::vector<ObjectElement> elements = NormalElements(command);
    Save save(job, command);
    save.Omit(elements);
    if (command.Has("CHGPERIOD"))
        save.ChangedSince(ChangePeriod(command));
    for (const ObjectElement& element : elements) {
        const auto status = job.store.ReadStatus(element.path, false);
        if (!status)
            throw EscapeMessage{Substitute(text::ObjectMissing, {element.path})};
        if (job.options.raw.contains(element.path) && !IsInUse(job, element.path))
            return SaveRaw(job, element.path, UsedSaveFile(job, command));
        if (!element.omit)
            save.Collect(element.path, *status);
    }
    return CompletionMessage(save.Write(SaveKind::Paths, command.name, text::Nothing), text::Saved, text::SavedPartly);
}

std::string SaveLibrary(const Job& job, const Command& command) {
    const std::string path = LibraryPath(command, "LIB");
    const std::string name = command.SingleValue("LIB");
    Save save(job, command);
    const auto status = job.store.ReadStatus(path, false);
    if (!status || !S_ISDIR(status->mode))
        throw EscapeMessage{Substitute(text::LibraryMissing, {name})};
    save.Collect(path, *status);
    return CompletionMessage(save.Write(SaveKind::Library, name, Substitute(text::NothingInLibrary, {name})),
                             text::LibrarySaved, text::LibrarySavedPartly, name);
}

// The commands without a choice of objects: each saves or restores the same path every time.
struct FixedCommand {
    const char* name;
    SaveKind kind;
    const char* path;
    const char* complete;
    const char* partial;
};

const FixedCommand& FixedCommandOf(const Command& command) {
    static const FixedCommand commands[] = {
        {"SAVDLO", SaveKind::Documents, DocumentRoot, text::DocumentsSaved, text::DocumentsSavedPartly},
        {"SAVSECDTA", SaveKind::Security, SecurityData, text::Saved, text::SavedPartly},
        {"SAVCFG", SaveKind::Configuration, SystemConfiguration, text::Saved, text::SavedPartly},
        {"RSTDLO", SaveKind::Documents, DocumentRoot, text::DocumentsRestored, text::DocumentsRestoredPartly},
        {"RSTUSRPRF", SaveKind::Security, SecurityData, text::Restored, text::NotAllRestored},
        {"RSTCFG", SaveKind::Configuration, SystemConfiguration, text::Restored, text::NotAllRestored},
    };
    return *std::find_if(std::begin(commands), std::end(commands),
                         [&](const FixedCommand& each) { return each.name == command.name; });
}

std::string SaveFixed(const Job& job, const Command& command) {
    const FixedCommand& fixed = FixedCommandOf(command);
    Save save(job, command);
    if (const auto status = job.store.ReadStatus(fixed.path, false))
        save.Collect(fixed.path, *status);
    return CompletionMessage(save.Write(fixed.kind, command.name, text::Nothing), fixed.complete, fixed.partial);
}

// Opens a save file to restore from. Throws EscapeMessage when it is missing or empty.
Descriptor OpenSaveFile(const Job& job, const std::string& name) {
    Descriptor file = job.library.Open(name);
    struct stat info {};
    if (!file.IsOpen() || ::fstat(file.Get(), &info) != 0)
        throw EscapeMessage{Substitute(text::FileMissing, {name, "QTEMP"})};
    if (info.st_size == 0)
        throw EscapeMessage{Substitute(text::NoData, {name, "QTEMP"})};
    return file;
}

// Restores the objects that `destination` maps to a path. Objects lost to a damaged stream count as not restored. When
// nothing was restored from a damaged stream, or nothing was selected, throws EscapeMessage.
Counts RestoreFrom(const Job& job, const Command& command, SaveKind kind, const std::string& library,
                   const std::string& nothing, const Destination& destination) {
    const std::string name = UsedSaveFile(job, command);
    const Descriptor file = OpenSaveFile(job, name);
    Restore restore(job.store, job.options.locked,
                    command.SingleValue("CRTPRNDIR", "*NO") == "*YES" || kind != SaveKind::Paths);
    try {
        SaveFileReader reader(file.Get());
        if (reader.Kind() != kind)
            throw EscapeMessage{Substitute(text::WrongKind, {name, "QTEMP", command.name})};
        if (!library.empty() && reader.Name() != library)
            throw EscapeMessage{nothing};
        restore.Run(reader, destination);
    } catch (const DamagedStream&) {
        if (restore.Restored() == 0)
            throw EscapeMessage{Substitute(text::Damaged, {name, "QTEMP"})};
    }
    if (restore.Restored() + restore.NotRestored() == 0)
        throw EscapeMessage{nothing};
    return {restore.Restored(), restore.NotRestored()};
}

// `path` after `from`, which contains it, is renamed to `to`; an empty `to` renames nothing.
std::string RenamedPath(const std::string& path, const std::string& from, const std::string& to) {
    if (to.empty())
        return path;
    const std::string below = path.substr(from == "/" ? 0 : from.size());
    return to == "/" && !below.empty() ? below : to + below;
}

bool HasMagic(const Descriptor& file) {
    std::array<char, SaveFileMagic.size()> start{};
    const ssize_t count = ::pread(file.Get(), start.data(), start.size(), 0);
    return std::string_view(start.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0))) == SaveFileMagic;
}

// Restores a file from a save file that is nothing but its bytes. The save file becomes a link to the file.
std::string RestoreRaw(const Job& job, const std::string& path, const std::string& save_file) {
    MakeParents(job.store, path);
    const auto place = job.store.Locate(path, false);
    if (!place || !PutFile(job.library.File(save_file), *place))
        throw EscapeMessage{Substitute(text::RestoredPartly, {"0", "1"})};
    return Substitute(text::Restored, {"1"});
}

std::string RestorePaths(const Job& job, const Command& command) {
    const std::vector<ObjectElement> elements = NormalElements(command);
    const std::string name = UsedSaveFile(job, command);
    if (elements.size() == 1) {
        const std::string& to = elements[0].new_name.empty() ? elements[0].path : elements[0].new_name;
        const bool raw = job.options.raw.contains(elements[0].path) || job.options.raw.contains(to);
        if (raw && !HasMagic(OpenSaveFile(job, name)))
            return RestoreRaw(job, to, name);
    }
    const auto destination = [&](const std::string& path) -> std::optional<std::string> {
        const auto normal = NormalPath("/", path);
        if (!normal || *normal != path || IsWithin(path, SystemLibrary))
            throw DamagedStream();
        for (const ObjectElement& element : elements) {
            if (element.omit || !IsWithin(path, element.path) || IsOmitted(elements, path))
                continue;
            const std::string renamed = RenamedPath(path, element.path, element.new_name);
            return NormalPath("/", renamed) && !IsWithin(renamed, SystemLibrary) ? renamed : "";
        }
        return std::nullopt;
    };
    return CompletionMessage(RestoreFrom(job, command, SaveKind::Paths, "", text::Nothing, destination), text::Restored,
                             text::RestoredPartly);
}

// Restores everything in the save file, all of it at or below `from`, to `to`.
Destination WholeTree(const std::string& from, const std::string& to) {
    return [from, to](const std::string& path) {
        const auto normal = NormalPath("/", path);
        if (path != from && (!normal || *normal != path || !IsWithin(path, from)))
            throw DamagedStream();
        return std::optional(RenamedPath(path, from, to));
    };
}

std::string RestoreLibrary(const Job& job, const Command& command) {
    const std::string from = LibraryPath(command, "SAVLIB");
    const std::string name = command.SingleValue("SAVLIB");
    const bool renamed = command.SingleValue("RSTLIB", "*SAVLIB") != "*SAVLIB";
    const std::string to = renamed ? LibraryPath(command, "RSTLIB") : from;
    const auto counts = RestoreFrom(job, command, SaveKind::Library, name, Substitute(text::NothingInLibrary, {name}),
                                    WholeTree(from, to));
    return CompletionMessage(counts, text::LibraryRestored, text::LibraryRestoredPartly, name,
                             renamed ? command.SingleValue("RSTLIB") : name);
}

std::string RestoreFixed(const Job& job, const Command& command) {
    const FixedCommand& fixed = FixedCommandOf(command);
    const Destination destination = WholeTree(fixed.path, fixed.path);
    return CompletionMessage(RestoreFrom(job, command, fixed.kind, "", text::Nothing, destination), fixed.complete,
                             fixed.partial);
}

// Objects are restored with their permissions, so there is nothing left to grant.
std::string RestoreAuthority(const Job&, const Command&) {
    return text::AuthorityRestored;
}

struct Definition {
    const char* name;
    std::string (*run)(const Job&, const Command&);
    std::vector<Keyword> keywords;
};

// Keywords of several commands.
const Keyword PathDevice{"DEV", true};
const Keyword FileDevice{"DEV", true, "*SAVF"};
const Keyword SaveFile{"SAVF", true};
const Keyword Objects{"OBJ", true};
const Keyword Subtree{"SUBTREE", false, "*ALL"};
const Keyword AllDocuments{"DLO", true, "*ALL"};
const Keyword Precheck{"PRECHK", false, "*YES *NO"};
const Keyword UpdateHistory{"UPDHST", false, "*YES *NO"};
const Keyword Differences{"ALWOBJDIF", false, "*ALL *NONE"};

const std::vector<Definition>& Definitions() {
    static const std::vector<Definition> definitions = {
        {"CRTSAVF", CreateSaveFile, {{"FILE", true}}},
        {"CLRSAVF", ClearSaveFile, {{"FILE", true}}},
        {"SAV",
         SavePaths,
         {PathDevice, Objects, Subtree, Precheck, UpdateHistory, {"SAVACT", false, "*NO *YES *SYNC"}, {"CHGPERIOD"}}},
        {"SAVLIB",
         SaveLibrary,
         {{"LIB", true},
          FileDevice,
          SaveFile,
          Precheck,
          UpdateHistory,
          {"SAVACT", false, "*NO *LIB *SYNCLIB *SYSDFN"},
          {"SAVACTWAIT"},
          {"ACCPTH", false, "*YES *NO *SYSVAL"}}},
        {"SAVDLO", SaveFixed, {AllDocuments, FileDevice, SaveFile, {"SAVACT", false, "*NO *YES *SYNC"}}},
        {"SAVSECDTA", SaveFixed, {FileDevice, SaveFile, Precheck}},
        {"SAVCFG", SaveFixed, {FileDevice, SaveFile, Precheck}},
        {"RST", RestorePaths, {PathDevice, Objects, Subtree, Differences, {"CRTPRNDIR", false, "*YES *NO", "V5R4M0"}}},
        {"RSTLIB",
         RestoreLibrary,
         {{"SAVLIB", true}, FileDevice, SaveFile, {"RSTLIB"}, {"MBROPT", false, "*MATCH *ALL *NEW *OLD"}, Differences}},
        {"RSTDLO", RestoreFixed, {AllDocuments, FileDevice, SaveFile, Differences}},
        {"RSTUSRPRF", RestoreFixed, {FileDevice, SaveFile, {"USRPRF", false, "*ALL *NEW"}, Differences}},
        {"RSTCFG", RestoreFixed, {{"OBJ", true, "*ALL"}, FileDevice, SaveFile, Differences}},
        {"RSTAUT", RestoreAuthority, {{"USRPRF", false, "*ALL"}}},
    };
    return definitions;
}

} // namespace

std::string RunCommand(const Job& job, const std::string& line) {
    const Command command = ParseCommand(line);
    for (const Definition& definition : Definitions())
        if (definition.name == command.name) {
            CheckKeywords(command, definition.keywords, job.options.release);
            return definition.run(job, command);
        }
    throw EscapeMessage{Substitute(text::NoCommand, {command.name})};
}

} // namespace rehearsal
