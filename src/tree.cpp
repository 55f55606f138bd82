#include "tree.h"

#include <utility>
#include <vector>

#include "support.h"

CalendarTime PackTime(const std::tm& time) {
    const auto small = [](int field) { return static_cast<std::int8_t>(field); };
    return {static_cast<std::int16_t>(time.tm_year),
            small(time.tm_mon),
            small(time.tm_mday),
            small(time.tm_hour),
            small(time.tm_min),
            small(time.tm_sec),
            small(time.tm_isdst)};
}

std::tm UnpackTime(const CalendarTime& time) {
    std::tm unpacked{};
    unpacked.tm_year = time.year;
    unpacked.tm_mon = time.month;
    unpacked.tm_mday = time.day;
    unpacked.tm_hour = time.hour;
    unpacked.tm_min = time.minute;
    unpacked.tm_sec = time.second;
    unpacked.tm_isdst = time.daylight;
    return unpacked;
}

// Freeing

namespace {

// Frees a chain from its front: left to the destructors alone it would take a stack frame for every sibling.
template <class Record>
void FreeChain(std::unique_ptr<Record>& first) {
    while (first != nullptr)
        first = std::move(first->next);
}

} // namespace

ObjectFile::~ObjectFile() {
    FreeChain(next);
}

ObjectNode::~ObjectNode() {
    FreeChain(next);
    FreeChain(first_dir);
    FreeChain(first_file);
}

// Building

namespace {

template <class Record>
Record& Append(std::unique_ptr<Record>& first, Record*& last, std::unique_ptr<Record> record) {
    std::unique_ptr<Record>& link = last != nullptr ? last->next : first;
    link = std::move(record);
    last = link.get();
    return *last;
}

template <class Record>
std::unique_ptr<Record> NewObject(ObjectNode* parent, std::string_view name, std::uint32_t mode, std::uint64_t size,
                                  const CalendarTime& mtime) {
    auto record = std::make_unique<Record>();
    record->name = name;
    record->parent = parent;
    record->mode = mode;
    record->size = size;
    record->mtime = mtime;
    return record;
}

} // namespace

ObjectTree NewDirectoryNode(ObjectNode* parent, std::string_view name, std::uint32_t mode, std::uint64_t size,
                            const CalendarTime& mtime) {
    return NewObject<ObjectNode>(parent, name, mode, size, mtime);
}

ObjectNode& AppendDirectory(ObjectNode& dir, std::string_view name, std::uint32_t mode, std::uint64_t size,
                            const CalendarTime& mtime) {
    RollUp(dir, size, 0);
    return Append(dir.first_dir, dir.last_dir, NewObject<ObjectNode>(&dir, name, mode, size, mtime));
}

ObjectFile& AppendFile(ObjectNode& dir, std::string_view name, std::uint32_t mode, std::uint64_t size,
                       const CalendarTime& mtime) {
    RollUp(dir, size, 1);
    return Append(dir.first_file, dir.last_file, NewObject<ObjectFile>(&dir, name, mode, size, mtime));
}

void RollUp(ObjectNode& dir, std::uint64_t size, std::uint64_t count) {
    for (ObjectNode* node = &dir; node != nullptr; node = node->parent) {
        node->size += size;
        node->count += count;
    }
}

void MarkPartial(ObjectNode& dir) {
    for (ObjectNode* node = &dir; node != nullptr; node = node->parent)
        node->partial = true;
}

void ReleaseName(ObjectNode& dir) {
    if (dir.borrowed_from != nullptr)
        return;
    dir.name.clear();
    dir.released = true;
}

void AdoptDirectory(ObjectNode& root, const ObjectNode& dir) {
    ObjectNode& copy = AppendDirectory(root, DirectoryPath(dir), dir.mode, dir.size, dir.mtime);
    copy.count = dir.count;
    copy.borrowed_from = &dir;
    RollUp(root, 0, dir.count);
}

void AdoptFile(ObjectNode& root, const ObjectFile& file) {
    AppendFile(root, FilePath(file), file.mode, file.size, file.mtime);
}

// Paths

void AppendToPath(std::string& path, std::string_view name) {
    path.append(name.substr(0, PathCapacity - 1 - path.size()));
}

std::string DirectoryPath(const ObjectNode& dir) {
    std::vector<const ObjectNode*> ancestry;
    for (const ObjectNode* node = &dir; node != nullptr; node = node->parent)
        ancestry.push_back(node);
    std::string path;
    for (auto node = ancestry.rbegin(); node != ancestry.rend(); ++node)
        AppendToPath(path, (*node)->name);
    return path;
}

std::string FilePath(const ObjectFile& file) {
    std::string path = file.parent != nullptr ? DirectoryPath(*file.parent) : std::string();
    AppendToPath(path, file.name);
    return path;
}

// Printing

void PrintFilePath(std::FILE* stream, const ObjectFile& file) {
    LogMessageTo(stream, "%s\n", FilePath(file).c_str());
}

namespace {

// `path` is the directory's own, and is the same on return.
void DumpBelow(std::FILE* stream, const ObjectNode& dir, std::string& path) {
    const ObjectNode& shown = dir.borrowed_from != nullptr ? *dir.borrowed_from : dir;
    const std::size_t length = path.size();
    for (const ObjectNode* child = shown.first_dir.get(); child != nullptr; child = child->next.get()) {
        path += child->name;
        DumpBelow(stream, *child, path);
        path.resize(length);
    }
    for (const ObjectFile* file = shown.first_file.get(); file != nullptr; file = file->next.get())
        LogMessageTo(stream, "%s%s\n", path.c_str(), file->name.c_str());
}

} // namespace

void DumpTree(std::FILE* stream, const ObjectNode& dir) {
    std::string path = DirectoryPath(dir);
    DumpBelow(stream, dir, path);
}
