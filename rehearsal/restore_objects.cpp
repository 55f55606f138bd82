#include "restore_objects.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

namespace rehearsal {

namespace {

constexpr std::size_t LinkLimit = 4096; // longest target of a link, in bytes

// What is restored of an object's permissions. The set-user-ID and set-group-ID bits are not: a save file may come from
// anywhere, and the server may run as root.
constexpr mode_t RestoredPermissions = 01777;

// A file or link that is created under a temporary name in its directory and renamed when it is complete. So an
// existing object is replaced as a whole or not at all, and a link in its place is never followed.
class NewObject {
public:
    explicit NewObject(const Place& place)
        : temporary_{Descriptor(::fcntl(place.directory.Get(), F_DUPFD_CLOEXEC, 0)),
                     ".rehearsal-unfinished" + std::to_string(::gettid())},
          place_(place) {
        ::unlinkat(temporary_.directory.Get(), temporary_.name.c_str(), 0);
    }
    ~NewObject() { ::unlinkat(temporary_.directory.Get(), temporary_.name.c_str(), 0); }
    NewObject(const NewObject&) = delete;
    NewObject& operator=(const NewObject&) = delete;

    Descriptor Create() const { return temporary_.Open(O_WRONLY | O_CREAT | O_EXCL, 0600); }
    bool CreateLink(const std::string& target) const {
        return ::symlinkat(target.c_str(), temporary_.directory.Get(), temporary_.name.c_str()) == 0;
    }
    bool SetTime(std::timespec changed) const {
        const std::array<std::timespec, 2> times{changed, changed};
        return ::utimensat(temporary_.directory.Get(), temporary_.name.c_str(), times.data(), AT_SYMLINK_NOFOLLOW) == 0;
    }
    bool MoveIntoPlace() const {
        return ::renameat(temporary_.directory.Get(), temporary_.name.c_str(), place_.directory.Get(),
                          place_.name.c_str()) == 0;
    }

private:
    const Place temporary_;
    const Place& place_;
};

bool RestoreFile(SaveFileReader& reader, const Entry& entry, const Place& place) {
    const NewObject object(place);
    const Descriptor file = object.Create();
    for (auto block = reader.ReadData(); file.IsOpen() && !block.empty(); block = reader.ReadData())
        WriteOrThrow(file.Get(), block);
    reader.FinishEntry();
    return file.IsOpen() && ::fchmod(file.Get(), entry.mode) == 0 && object.SetTime(entry.changed) &&
           object.MoveIntoPlace();
}

bool RestoreLink(SaveFileReader& reader, const Entry& entry, const Place& place) {
    std::string target;
    for (auto block = reader.ReadData(); !block.empty() && target.size() < LinkLimit; block = reader.ReadData())
        target.append(block.begin(), block.end());
    reader.FinishEntry();
    const NewObject object(place);
    return object.CreateLink(target) && object.SetTime(entry.changed) && object.MoveIntoPlace();
}

} // namespace

void Restore::Run(SaveFileReader& reader, const Destination& destination) {
    std::uint64_t seen = 0;
    try {
        RestoreObjects(reader, destination, seen);
    } catch (const DamagedStream&) {
        not_restored_ += std::max(reader.ObjectCount(), seen + 1) - seen;
        FinishDirectories();
        throw;
    }
    FinishDirectories();
}

void Restore::RestoreObjects(SaveFileReader& reader, const Destination& destination, std::uint64_t& seen) {
    for (Entry entry; reader.ReadEntry(entry); seen++) {
        entry.mode &= RestoredPermissions;
        const auto path = destination(entry.path);
        const bool done = path && RestoreObject(reader, entry, *path);
        if (!path)
            reader.FinishEntry();
        restored_ += done;
        not_restored_ += path && !done;
    }
}

bool Restore::RestoreObject(SaveFileReader& reader, const Entry& entry, const std::string& path) {
    const bool reachable = !path.empty() && !locked_.contains(path);
    if (make_parents_ && reachable)
        MakeParents(store_, path);
    const auto place = reachable ? store_.Locate(path, false) : std::nullopt;
    if (place && entry.type == Entry::Type::File)
        return RestoreFile(reader, entry, *place);
    if (place && entry.type == Entry::Type::Link)
        return RestoreLink(reader, entry, *place);
    reader.FinishEntry();
    return place && RestoreDirectory(entry, path, *place);
}

bool Restore::RestoreDirectory(const Entry& entry, const std::string& path, const Place& place) {
    const bool made = ::mkdirat(place.directory.Get(), place.name.c_str(), 0700) == 0;
    const auto status = place.ReadStatus();
    if (!made && (!status || !S_ISDIR(status->mode)))
        return false;
    directories_.push_back({path, entry.mode, entry.changed});
    return true;
}

void Restore::FinishDirectories() {
    std::for_each(directories_.rbegin(), directories_.rend(), [this](const RestoredDirectory& restored) {
        const auto place = store_.Locate(restored.path, false);
        const Descriptor directory = place ? place->Open(O_RDONLY | O_DIRECTORY) : Descriptor();
        const std::array<std::timespec, 2> times{restored.changed, restored.changed};
        if (!directory.IsOpen() || ::fchmod(directory.Get(), restored.mode) != 0 ||
            ::futimens(directory.Get(), times.data()) != 0) {
            restored_--;
            not_restored_++;
        }
    });
}

void MakeParents(const Store& store, const std::string& path) {
    for (std::size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
        const auto place = store.Locate(path.substr(0, slash), true);
        if (place && !place->ReadStatus())
            ::mkdirat(place->directory.Get(), place->name.c_str(), 0777);
    }
}

namespace {

// Copies the data of `from` to the empty file `to` and keeps the holes.
bool CopyWithHoles(const Descriptor& from, const Descriptor& to) {
    off_t data = ::lseek(from.Get(), 0, SEEK_DATA);
    while (data >= 0) {
        const off_t end = ::lseek(from.Get(), data, SEEK_HOLE);
        if (end < 0 || ::lseek(to.Get(), data, SEEK_SET) != data)
            return false;
        while (data < end)
            if (::sendfile(to.Get(), from.Get(), &data, static_cast<std::size_t>(end - data)) <= 0)
                return false;
        data = ::lseek(from.Get(), end, SEEK_DATA);
    }
    return errno == ENXIO &&
           ::ftruncate(to.Get(), ::lseek(from.Get(), 0, SEEK_END)) == 0; // ENXIO: there is no more data
}

bool CopyFile(const std::filesystem::path& source, const Place& place) {
    const Descriptor from(::open(source.c_str(), O_RDONLY | O_CLOEXEC));
    const NewObject object(place);
    const Descriptor to = object.Create();
    return from.IsOpen() && to.IsOpen() && CopyWithHoles(from, to) && ::fchmod(to.Get(), 0644) == 0 &&
           object.MoveIntoPlace();
}

} // namespace

bool PutFile(const std::filesystem::path& source, const Place& place) {
    if (std::filesystem::is_symlink(source) ||
        ::renameat(AT_FDCWD, source.c_str(), place.directory.Get(), place.name.c_str()) != 0)
        return CopyFile(source, place);
    const Descriptor file = place.Open(O_RDONLY);
    std::filesystem::create_symlink(HostPath(file), source);
    return ::fchmod(file.Get(), 0644) == 0;
}

} // namespace rehearsal
