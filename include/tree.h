// The object tree: the server objects that a backup will save.
//
// A directory is an ObjectNode; everything saved as one piece (files, libraries, the document library, the two special
// objects) is an ObjectFile. In a listed tree a name is "/" and the entry's name, so that a path is the concatenation
// of the names from the root down; a root's name is a path, a wild-card pattern or empty. Each directory has two chains
// of children, in the order of appending, each child owned by its predecessor.
//
// One thread builds the trees; afterwards any thread reads them, and only SAV changes a name, in the worker whose tree
// it is. A server object costs at most 160 bytes and its name. Chains of millions are walked and freed by loops.

#pragma once

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <memory>
#include <string>
#include <string_view>

#include "object_kind.h"

// The local time of a listing line, in 8 bytes where std::tm takes 56.
struct CalendarTime {
    std::int16_t year = 0; // since 1900
    std::int8_t month = 0; // 0 to 11
    std::int8_t day = 0;   // 1 to 31
    std::int8_t hour = 0;
    std::int8_t minute = 0;
    std::int8_t second = 0;
    std::int8_t daylight = -1; // as tm_isdst: -1 leaves it to the system
};
CalendarTime PackTime(const std::tm& time);
std::tm UnpackTime(const CalendarTime& time);

constexpr std::size_t PathCapacity = 4096; // a path and its terminator; longer ones are cut

struct ObjectNode;

struct ObjectFile {
    std::string name;
    ObjectNode* parent = nullptr;
    std::uint32_t mode = 0; // st_mode
    CalendarTime mtime;
    std::uint64_t size = 0; // as listed, bytes
    std::unique_ptr<ObjectFile> next;

    ~ObjectFile();
};

struct ObjectNode {
    std::string name;
    ObjectNode* parent = nullptr; // none for a root
    std::uint32_t mode = 0;
    CalendarTime mtime;
    bool partial = false;    // something below was left out or failed to parse: never saved as one unit
    bool unlisted = false;   // the server's listing of it failed
    bool released = false;   // its name was released: neither walked nor planned
    std::uint64_t size = 0;  // its own and that of everything appended below
    std::uint64_t count = 0; // files appended anywhere below; directories do not count
    const ObjectNode* borrowed_from = nullptr; // an adopted copy shows the children of this node
    std::unique_ptr<ObjectNode> next;
    std::unique_ptr<ObjectNode> first_dir;
    ObjectNode* last_dir = nullptr;
    std::unique_ptr<ObjectFile> first_file;
    ObjectFile* last_file = nullptr;

    ~ObjectNode();
};

// A root and everything below it.
using ObjectTree = std::unique_ptr<ObjectNode>;

// Makes a node that is not linked anywhere and rolls nothing up.
ObjectTree NewDirectoryNode(ObjectNode* parent, std::string_view name, std::uint32_t mode, std::uint64_t size,
                            const CalendarTime& mtime);

// Append to `dir` in constant time and roll the size up, a file also its count of one. The results are owned
// by the tree.
ObjectNode& AppendDirectory(ObjectNode& dir, std::string_view name, std::uint32_t mode, std::uint64_t size,
                            const CalendarTime& mtime);
ObjectFile& AppendFile(ObjectNode& dir, std::string_view name, std::uint32_t mode, std::uint64_t size,
                       const CalendarTime& mtime);

// Adds to `dir` and each of its ancestors.
void RollUp(ObjectNode& dir, std::uint64_t size, std::uint64_t count);

// Sets the partial flag on `dir` and each of its ancestors.
void MarkPartial(ObjectNode& dir);

// Releases the name; the walk and the plan then skip the directory.
void ReleaseName(ObjectNode& dir);

// Append a copy of another tree's node to `root`, under its full path as its name, and roll it up. A directory shows
// its source's children, so the source's tree must outlive the copy.
void AdoptDirectory(ObjectNode& root, const ObjectNode& dir);
void AdoptFile(ObjectNode& root, const ObjectFile& file);

// Appends to a path, cut at its capacity.
void AppendToPath(std::string& path, std::string_view name);

std::string DirectoryPath(const ObjectNode& dir);
std::string FilePath(const ObjectFile& file);

// Write to the stream as log lines: a file's path, or the path of every file below a directory, those in its
// subdirectories first.
void PrintFilePath(std::FILE* stream, const ObjectFile& file);
void DumpTree(std::FILE* stream, const ObjectNode& dir);
