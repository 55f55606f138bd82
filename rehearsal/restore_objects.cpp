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

constexpr std::size_t LinkLimit = 4096; // bytes of a link's target

// A file or link in the making: it stands beside its place under a name of its own until it takes that place,
// so that whatever stood there is replaced whole or not at all, and a link there is never written through.
class NewObject {
public:
    explicit NewObject(const Place& place)
        : beside_{Descriptor(::fcntl(place.directory.get(), F_DUPFD_CLOEXEC, 0)),
                  ".rehearsal-unfinished" + std::to_string(::gettid())},
          place_(place) {
        ::unlinkat(beside_.directory.get(), beside_.name.c_str(), 0);
    }
    ~NewObject() { ::unlinkat(beside_.directory.get(), beside_.name.c_str(), 0); }
    NewObject(const NewObject&) = delete;
    NewObject& operator=(const NewObject&) = delete;

    Descriptor Create() const { return beside_.Open(O_WRONLY | O_CREAT | O_EXCL, 0600); }
    bool CreateLink(const std::string& target) const {
        return ::symlinkat(target.c_str(), beside_.directory.get(), beside_.name.c_str()) == 0;
    }
    bool SetTime(std::timespec changed) const {
        const std::array<std::timespec, 2> times{changed, changed};
        return ::utimensat(beside_.directory.get(), beside_.name.c_str(), times.data(), AT_SYMLINK_NOFOLLOW) == 0;
    }
    bool TakePlace() const {
        return ::renameat(beside_.directory.get(), beside_.name.c_str(), place_.directory.get(), place_.name.c_str()) ==
               0;
    }

private:
    const Place beside_;
    const Place& place_;
};

bool RestoreFile(SaveFileReader& reader, const Entry& entry, const Place& place) {
    const NewObject object(place);
    const Descriptor file = object.Create();
    for (auto block = reader.Data(); file && !block.empty(); block = reader.Data())
        WriteFully(file.get(), block);
    reader.Finish();
    return file && ::fchmod(file.get(), entry.mode) == 0 && object.SetTime(entry.changed) && object.TakePlace();
}

bool RestoreLink(SaveFileReader& reader, const Entry& entry, const Place& place) {
    std::string target;
    for (auto block = reader.Data(); !block.empty() && target.size() < LinkLimit; block = reader.Data())
        target.append(block.begin(), block.end());
    reader.Finish();
    const NewObject object(place);
    return object.CreateLink(target) && object.SetTime(entry.changed) && object.TakePlace();
}

} // namespace

void Restore::Run(SaveFileReader& reader, const Destination& destination) {
    std::uint64_t seen = 0;
    try {
        Objects(reader, destination, seen);
    } catch (const DamagedStream&) {
        refused_ += std::max(reader.objects(), seen + 1) - seen;
        FinishDirectories();
        throw;
    }
    FinishDirectories();
}

void Restore::Objects(SaveFileReader& reader, const Destination& destination, std::uint64_t& seen) {
    for (Entry entry; reader.Next(entry); seen++) {
        const auto path = destination(entry.path);
        const bool good = path && One(reader, entry, *path);
        if (!path)
            reader.Finish();
        restored_ += good;
        refused_ += path && !good;
    }
}

bool Restore::One(SaveFileReader& reader, const Entry& entry, const std::string& path) {
    const bool reachable = !path.empty() && !locked_.contains(path);
    if (make_parents_ && reachable)
        MakeParents(store_, path);
    const auto place = reachable ? store_.Locate(path, false) : std::nullopt;
    if (place && entry.type == Entry::Type::File)
        return RestoreFile(reader, entry, *place);
    if (place && entry.type == Entry::Type::Link)
        return RestoreLink(reader, entry, *place);
    reader.Finish();
    return place && Directory(entry, path, *place);
}

bool Restore::Directory(const Entry& entry, const std::string& path, const Place& place) {
    const bool made = ::mkdirat(place.directory.get(), place.name.c_str(), 0700) == 0;
    const auto status = place.Look();
    if (!made && (!status || !S_ISDIR(status->mode)))
        return false;
    directories_.push_back({path, entry.mode, entry.changed});
    return true;
}

void Restore::FinishDirectories() {
    std::for_each(directories_.rbegin(), directories_.rend(), [this](const Made& made) {
        const auto place = store_.Locate(made.path, false);
        const Descriptor directory = place ? place->Open(O_RDONLY | O_DIRECTORY) : Descriptor();
        const std::array<std::timespec, 2> times{made.changed, made.changed};
        if (!directory || ::fchmod(directory.get(), made.mode) != 0 || ::futimens(directory.get(), times.data()) != 0) {
            restored_--;
            refused_++;
        }
    });
}

void MakeParents(const Store& store, const std::string& path) {
    for (std::size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
        const auto place = store.Locate(path.substr(0, slash), true);
        if (place && !place->Look())
            ::mkdirat(place->directory.get(), place->name.c_str(), 0777);
    }
}

// ---- files without a frame

namespace {

// Copies what is data in `from` to the same offsets of the empty file `to`.
bool CopyWithHoles(const Descriptor& from, const Descriptor& to) {
    off_t data = ::lseek(from.get(), 0, SEEK_DATA);
    while (data >= 0) {
        const off_t end = ::lseek(from.get(), data, SEEK_HOLE);
        if (end < 0 || ::lseek(to.get(), data, SEEK_SET) != data)
            return false;
        while (data < end)
            if (::sendfile(to.get(), from.get(), &data, static_cast<std::size_t>(end - data)) <= 0)
                return false;
        data = ::lseek(from.get(), end, SEEK_DATA);
    }
    return errno == ENXIO && ::ftruncate(to.get(), ::lseek(from.get(), 0, SEEK_END)) == 0; // ENXIO: no more data
}

bool CopyFile(const std::filesystem::path& source, const Place& place) {
    const Descriptor from(::open(source.c_str(), O_RDONLY | O_CLOEXEC));
    const NewObject object(place);
    const Descriptor to = object.Create();
    return from && to && CopyWithHoles(from, to) && ::fchmod(to.get(), 0644) == 0 && object.TakePlace();
}

} // namespace

bool PutFile(const std::filesystem::path& source, const Place& place) {
    if (std::filesystem::is_symlink(source) ||
        ::renameat(AT_FDCWD, source.c_str(), place.directory.get(), place.name.c_str()) != 0)
        return CopyFile(source, place);
    const Descriptor file = place.Open(O_RDONLY);
    std::filesystem::create_symlink(OpenedAs(file), source);
    return ::fchmod(file.get(), 0644) == 0;
}

} // namespace rehearsal
