#include "restore.h"

#include <cerrno>
#include <cstring>
#include <optional>
#include <utility>
#include <vector>

#include "restore_plan.h"

int SupplyEntryData(void* argument, std::span<char> room, std::string_view& data) {
    auto* const archive = static_cast<RestoredArchive*>(argument);
    if (archive == nullptr) {
        LogFailure("bad argument\n");
        return -1;
    }
    const auto wanted = static_cast<int>(archive->reader.WantedBytes(room.size()));
    if (archive->reader.ReadData(room, data))
        return 0;
    LogFailure("read(%s,, %d): %s\n", archive->path.c_str(), wanted, std::strerror(errno));
    return -1;
}

ssize_t ForwardEntryData(void* argument, int socket) {
    return static_cast<RestoredArchive*>(argument)->reader.ForwardData(socket);
}

namespace {

// The run over one archive.
struct RestoreRun {
    FtpSession* session;
    const Settings& settings;
    RestoredArchive& archive;
    alignas(BlockSize) CtarBlock header{};
    ssize_t header_read = 0;   // result of the last read of a header
    int header_error = 0;      // its errno
    std::uint64_t offset = 0;  // of the current header; sizes that add up to more than a file can hold make it wrap
    int result = 0;            // of the last entry, or of what ended the run
    bool has_profiles = false; // user profiles were restored: their authorities follow at the end
};

// One entry

// Whether the header just read begins an entry, whose size is then set. Otherwise the run over the archive ends.
bool BeginsEntry(RestoreRun& run, std::int64_t& size) {
    // After a failed read the cleared header is judged like any other; the read error is logged at the end.
    const std::size_t held = run.header_read < 0 ? BlockSize : static_cast<std::size_t>(run.header_read);
    const BlockKind kind = ClassifyBlock(run.header, held, size);
    const bool is_short = kind == BlockKind::Nothing || kind == BlockKind::Part;
    if (!is_short && TerminationRequested != 0)
        return false;
    if (is_short)
        LogFailure("read short header at offset 0x%llX\n", Printable(run.offset));
    else if (kind == BlockKind::BadChecksum)
        LogError("bad header checksum at offset 0x%llX\n", Printable(run.offset));
    else if (kind == BlockKind::BadSize)
        LogFailure("bad file size at offset 0x%llX\n", Printable(run.offset));
    if (kind != BlockKind::Header && kind != BlockKind::Sentinel)
        run.result = -1;
    return kind == BlockKind::Header;
}

// The wanted parts of an entry; what is left out is logged.
StringList WantedPartsOf(const std::string& name, const Settings& settings) {
    WantedParts wanted = SelectParts(name, settings.include.get(), settings.exclude.get());
    if (settings.Verbosity() >= 1) {
        if (wanted.not_included)
            LogError("%s: not included\n", MaskControls(name).c_str());
        for (const std::string& part : wanted.excluded)
            LogError("%s: excluded\n", MaskControls(part).c_str());
    }
    return std::move(wanted.parts);
}

// Restores what is wanted of an entry. Returns whether that went well.
bool RestoreWanted(RestoreRun& run, RestoreRequest& request, std::int64_t size) {
    const RestoreMember& member = RestoreMemberFor(request.name);
    RestoreTimes times;
    const Transfer upload{.send = SupplyEntryData, .forward = ForwardEntryData, .argument = &run.archive};
    if (RestoreObject(member, run.session, request, times, upload) != 0) {
        LogFailure("%s\n", member.failure);
        return false;
    }
    if (member.profiles)
        run.has_profiles = true;
    if (run.settings.Verbosity() >= 2)
        ReportEntry(size, times);
    return true;
}

bool Skip(RestoreRun& run, std::int64_t count) {
    std::vector<SkipFailure> failures;
    const bool skipped = run.archive.reader.Skip(count, failures);
    for (const SkipFailure& failure : failures)
        LogFailure("%s\n", DescribeFailure(failure).c_str());
    return skipped;
}

// Skips what a failed entry has left of its data. Returns false when the run over the archive cannot continue.
bool SkipFailedEntry(RestoreRun& run, std::int64_t left) {
    run.result = -1;
    LogFailure("failed to restore object at offset 0x%llX\n", Printable(run.offset));
    if (Skip(run, left))
        return true;
    LogFailure("couldn't skip the rest of the failed object's 0x%llX bytes\n",
               Printable(static_cast<std::uint64_t>(left)));
    return false;
}

// Reads one header and deals with its entry. Returns false when the run over the archive ends here.
bool ProcessEntry(RestoreRun& run) {
    if (TerminationRequested != 0)
        return false; // a pipe may never deliver the next header
    run.header.fill('\0');
    run.header_read = run.archive.reader.Read(run.header.data(), run.header.size());
    run.header_error = errno;
    std::int64_t size = 0;
    if (!BeginsEntry(run, size))
        return false;
    run.archive.reader.BeginEntry(size);
    RestoreRequest request{std::string(CutNameSuffix(ReadCtarName(run.header))), {}, run.settings.exclude.get()};
    LogMessage("Archive  : %s\n", MaskControls(request.name).c_str());
    request.objects = WantedPartsOf(request.name, run.settings);
    if (request.objects.empty() ? Skip(run, size) : RestoreWanted(run, request, size))
        run.result = 0;
    else if (!SkipFailedEntry(run, run.archive.reader.Left()))
        return false;
    run.offset += BlockSize + static_cast<std::uint64_t>(RoundToBlocks(size));
    return true;
}

// Has the server restore the authorities of the user profiles that were restored.
void RestoreAuthorities(RestoreRun& run) {
    if (run.has_profiles && RestoreAuthority(run.session) != 0) {
        LogFailure("failed to restore authority\n");
        run.result = -1;
    }
}

} // namespace

int RestoreArchive(FtpSession* session, const Settings& settings) {
    const std::string& path = *settings.restore_path;
    std::optional<RestoredArchive> archive(std::in_place);
    archive->path = path;
    if (!archive->reader.Open(path)) {
        LogFailure("open(%s): %s\n", path.c_str(), std::strerror(errno));
        return -1;
    }
    const double begun = SecondsNow();
    RestoreRun run{.session = session, .settings = settings, .archive = *archive};
    while (ProcessEntry(run)) {
    }
    if (run.header_read < 0) {
        LogFailure("read(%s, 0x%llX, %d): %s\n", path.c_str(),
                   static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(run.header.data())),
                   static_cast<int>(BlockSize), std::strerror(run.header_error));
        run.result = -1;
    }
    archive.reset(); // before the authorities, which may take long
    RestoreAuthorities(run);
    if (TerminationRequested != 0) {
        LogFailure("Restore Terminated Cleanly\n");
        return TerminatedStatus;
    }
    if (run.result != 0)
        return run.result;
    ReportRestore(static_cast<std::int64_t>(run.offset), SecondsNow() - begun);
    return 0;
}
