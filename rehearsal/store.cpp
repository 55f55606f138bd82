#include "store.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <deque>
#include <memory>
#include <system_error>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace rehearsal {

namespace {

constexpr int LinkLimit = 40; // links followed for one path, so that a loop of links ends
constexpr int PathOnly = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

std::vector<std::string> Components(std::string_view path) {
    std::vector<std::string> names;
    for (std::size_t at = 0; at < path.size();) {
        const std::size_t end = std::min(path.find('/', at), path.size());
        const std::string_view name = path.substr(at, end - at);
        if (!name.empty() && name != ".")
            names.emplace_back(name);
        at = end + 1;
    }
    return names;
}

bool IsHidden(std::string_view name) {
    return name == std::string_view(SecurityData).substr(1) || name == std::string_view(SystemConfiguration).substr(1);
}

Status ToStatus(const struct stat& info) {
    return {info.st_mode, static_cast<std::uint64_t>(info.st_size), info.st_mtim};
}

} // namespace

std::optional<std::string> NormalPath(const std::string& current, std::string_view path) {
    if (path.find('\0') != std::string_view::npos)
        return std::nullopt;
    const bool absolute = path.starts_with('/');
    std::string normal;
    for (const std::string& name : Components(absolute ? std::string(path) : current + "/" + std::string(path))) {
        if (name == ".." || (normal.empty() && IsHidden(name)))
            return std::nullopt;
        normal += "/" + name;
    }
    return normal.empty() ? "/" : normal;
}

bool IsWithin(std::string_view path, std::string_view base) {
    return base == "/" || (path.starts_with(base) && (path.size() == base.size() || path[base.size()] == '/'));
}

std::string NameOf(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

std::string Join(const std::string& directory, const std::string& name) {
    return directory == "/" ? "/" + name : directory + "/" + name;
}

std::optional<Status> Place::ReadStatus() const {
    struct stat info {};
    if (::fstatat(directory.Get(), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0)
        return std::nullopt;
    return ToStatus(info);
}

Descriptor Place::Open(int flags, mode_t mode) const {
    return Descriptor(::openat(directory.Get(), name.c_str(), flags | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, mode));
}

std::string Place::LinkTarget() const {
    std::array<char, PATH_MAX> target{};
    const ssize_t length = ::readlinkat(directory.Get(), name.c_str(), target.data(), target.size());
    return {target.data(), length > 0 ? static_cast<std::size_t>(length) : 0};
}

std::filesystem::path HostPath(const Descriptor& file) {
    return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(file.Get()));
}

Store::Store(const std::filesystem::path& root) : root_(::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)) {
    if (!root_.IsOpen())
        throw std::system_error(errno, std::generic_category(), "open(" + root.string() + ")");
}

Descriptor Store::OpenFromRoot(const std::vector<std::string>& names) const {
    Descriptor directory(::openat(root_.Get(), ".", PathOnly));
    for (const std::string& name : names)
        directory = Descriptor(::openat(directory.Get(), name.c_str(), PathOnly));
    return directory;
}

std::optional<Place> Store::Locate(const std::string& path, bool follow) const {
    const auto first = Components(path);
    std::deque<std::string> pending(first.begin(), first.end());
    std::vector<std::string> resolved; // the path of `place.directory`, without links
    Place place{OpenFromRoot(resolved), "."};
    for (int links = 0; place.directory.IsOpen() && !pending.empty();) {
        place.name = std::move(pending.front());
        pending.pop_front();
        if (links > 0 && resolved.empty() && IsHidden(place.name))
            return std::nullopt;
        if (place.name == "..") { // only in the target of a link
            if (!resolved.empty())
                resolved.pop_back();
            place = {OpenFromRoot(resolved), "."};
            continue;
        }
        const auto status = place.ReadStatus();
        if (status && S_ISLNK(status->mode) && (follow || !pending.empty())) {
            const std::string target = place.LinkTarget();
            const auto names = Components(target);
            if (++links > LinkLimit || target.empty())
                return std::nullopt;
            if (target.starts_with('/'))
                resolved.clear();
            pending.insert(pending.begin(), names.begin(), names.end());
            place = {OpenFromRoot(resolved), "."};
        } else if (!pending.empty()) {
            resolved.push_back(place.name);
            place = {Descriptor(::openat(place.directory.Get(), resolved.back().c_str(), PathOnly)), "."};
        }
    }
    return place.directory.IsOpen() ? std::optional(std::move(place)) : std::nullopt;
}

std::optional<Status> Store::ReadStatus(const std::string& path, bool follow) const {
    const auto place = Locate(path, follow);
    return place ? place->ReadStatus() : std::nullopt;
}

Descriptor Store::OpenDirectory(const std::string& path) const {
    const auto place = Locate(path, true);
    return place ? place->Open(O_RDONLY | O_DIRECTORY) : Descriptor();
}

std::vector<Child> Store::Children(const std::string& path) const {
    std::vector<Child> children;
    const Descriptor directory = OpenDirectory(path);
    if (!directory.IsOpen())
        return children;
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(::fdopendir(::dup(directory.Get())), ::closedir);
    while (const dirent* entry = stream ? ::readdir(stream.get()) : nullptr) {
        struct stat info {};
        std::string name = entry->d_name;
        if (name == "." || name == ".." || (path == "/" && IsHidden(name)))
            continue;
        if (::fstatat(directory.Get(), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0)
            children.push_back({std::move(name), ToStatus(info)});
    }
    std::sort(children.begin(), children.end(), [](const Child& a, const Child& b) { return a.name < b.name; });
    return children;
}

} // namespace rehearsal
