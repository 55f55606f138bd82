// The stream in a save file: one save operation's objects, written and read front to back. Numbers are
// big-endian.
//
//     header   16  magic
//               1  kind of save operation (SaveKind)
//               8  number of objects
//               2  length of the name, and the name: the library, or the command's name for other kinds
//               8  check value of the header
//     record    1  'F' file, 'D' directory, 'L' link; 'E' ends the stream, its other numbers are zero
//               4  permissions
//               8  time of last change, seconds since 1970
//               4  nanoseconds of that
//               8  length of the data: a file's bytes, a link's target, nothing for a directory
//               2  length of the path, and the server path
//               -  the data
//               8  check value of everything in the record before it
//     padding      zero bytes up to a multiple of RecordLength
//
// A directory stands before what is in it. The number of objects is known only at the end of a save and
// patched in. The check value runs over 8-byte words of each block of BlockSize, so that it costs next to
// nothing; both sides therefore move data in blocks of exactly that size but for the last.

#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

namespace rehearsal {

constexpr std::size_t RecordLength = 528; // save files are whole records of this
constexpr std::size_t BlockSize = 256 * 1024;
constexpr std::string_view SaveFileMagic = "REHEARSAL SAVE 1";

enum class SaveKind : char { Paths = 'P', Library = 'L', Documents = 'D', Security = 'S', Configuration = 'C' };

struct Entry {
    enum class Type : char { File = 'F', Directory = 'D', Link = 'L', End = 'E' };
    Type type = Type::End;
    mode_t mode = 0; // permissions only
    std::timespec changed{};
    std::uint64_t length = 0; // of the data
    std::string path;
};

// The stream is not what a SaveFileWriter wrote.
struct DamagedStream {};

// Reads up to buffer.size() bytes, fewer only at the end of the file. Throws std::system_error.
std::size_t ReadFully(int file, std::span<char> buffer);
// Throws std::system_error.
void WriteFully(int file, std::span<const char> bytes);

class CheckValue {
public:
    void Add(std::span<const char> block);
    std::uint64_t value() const { return value_; }

private:
    std::uint64_t value_ = 0x9E3779B97F4A7C15;
};

// Writes a stream into an empty file. Every call may throw std::system_error.
class SaveFileWriter {
public:
    SaveFileWriter(int file, SaveKind kind, std::string name);
    void AddFile(Entry entry,
                 int source); // takes its length from the entry: a shorter file is filled with zeros
    void AddLink(Entry entry, const std::string& target);
    void AddDirectory(Entry entry);
    void Finish();

private:
    std::string Header() const;
    void Begin(const Entry& entry);
    void Data(std::span<const char> block);
    void End();
    void Write(std::span<const char> bytes);
    void Flush();

    int file_;
    SaveKind kind_;
    std::string name_;
    std::uint64_t objects_ = 0;
    std::uint64_t length_ = 0; // of the stream so far
    CheckValue check_;         // of the record being written
    std::vector<char> held_;   // not yet written
    std::vector<char> block_;
};

// Reads a stream from the start of a file. Every call may throw DamagedStream or std::system_error.
class SaveFileReader {
public:
    explicit SaveFileReader(int file);
    SaveKind kind() const { return kind_; }
    const std::string& name() const { return name_; }
    std::uint64_t objects() const { return objects_; }

    // The next object; false at the end of the stream. Requires: Finish was called for the one before.
    bool Next(Entry& entry);
    // The next block of the object's data, valid until the next call; empty at its end.
    std::span<const char> Data();
    // Passes what is left of the object and compares its check value: only then are its data known to be
    // right.
    void Finish();

private:
    std::string Text(std::size_t length);
    void Take(std::span<char> to);
    void TakeChecked(std::span<char> to);

    int file_;
    SaveKind kind_{};
    std::string name_;
    std::uint64_t objects_ = 0;
    std::uint64_t left_ = 0; // data of the current object not yet read
    CheckValue check_;
    std::vector<char> held_; // read ahead; used from `used_` to `filled_`
    std::size_t used_ = 0;
    std::size_t filled_ = 0;
    std::vector<char> block_;
};

} // namespace rehearsal
