// The stream in a save file: the objects of one save operation, written and read from front to back. Numbers are
// big-endian.
//
//     header   16  magic
//               1  kind of save operation (SaveKind)
//               8  number of objects
//               2  length of the name
//               -  name: the library, for other kinds the name of the command
//               8  check value of the header
//     record    1  'F' file, 'D' directory, 'L' link; 'E' ends the stream and has zeros in the fields below
//               4  permissions
//               8  time of last change, seconds since 1970
//               4  nanoseconds of that
//               8  length of the data: the bytes of a file, the target of a link, nothing for a directory
//               2  length of the path
//               -  server path
//               -  data
//               8  check value of the record up to here
//     padding      zeros up to a multiple of RecordLength
//
// A directory precedes what is in it. The number of objects is known only at the end of a save and is patched in then.
// The check value is computed over the 8-byte words of each block, which costs next to nothing. The last word of a
// block may be short, so both sides must cut the data into the same blocks: TransferPiece bytes each but for the last.

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

constexpr std::size_t RecordLength = 528;         // bytes; a save file is a whole number of records
constexpr std::size_t TransferPiece = 256 * 1024; // bytes moved at once, in save files and on data connections
constexpr std::string_view SaveFileMagic = "REHEARSAL SAVE 1";

enum class SaveKind : char { Paths = 'P', Library = 'L', Documents = 'D', Security = 'S', Configuration = 'C' };

struct Entry {
    enum class Type : char { File = 'F', Directory = 'D', Link = 'L', End = 'E' };
    Type type = Type::End;
    mode_t mode = 0; // permissions only
    std::timespec changed{};
    std::uint64_t length = 0; // of the data, in bytes
    std::string path;
};

// Thrown when the stream is not what a SaveFileWriter wrote.
struct DamagedStream {};

void WriteOrThrow(int file, std::span<const char> bytes); // throws std::system_error

class CheckValue {
public:
    void Add(std::span<const char> block);
    std::uint64_t Value() const { return value_; }

private:
    std::uint64_t value_ = 0x9E3779B97F4A7C15;
};

// Writes a stream into an empty file. Every call may throw std::system_error.
class SaveFileWriter {
public:
    SaveFileWriter(int file, SaveKind kind, std::string name);
    // Adds entry.length bytes of `source`, with zeros at the end when it is shorter.
    void AddFile(Entry entry, int source);
    void AddLink(Entry entry, const std::string& target);
    void AddDirectory(Entry entry);
    void Finish();
    std::uint64_t Length() const { return length_; } // of the stream so far, in bytes

private:
    std::string Header() const;
    void BeginEntry(const Entry& entry);
    void WriteData(std::span<const char> block);
    void EndEntry();
    void Write(std::span<const char> bytes);
    void Flush();

    int file_;
    SaveKind kind_;
    std::string name_;
    std::uint64_t objects_ = 0;
    std::uint64_t length_ = 0;
    CheckValue check_;         // of the current record
    std::vector<char> buffer_; // not yet written
    std::vector<char> block_;
};

// Reads a stream from the start of a file. Every call may throw DamagedStream or std::system_error.
class SaveFileReader {
public:
    explicit SaveFileReader(int file);
    SaveKind Kind() const { return kind_; }
    const std::string& Name() const { return name_; }
    std::uint64_t ObjectCount() const { return objects_; }

    // Reads the next record up to its data; returns false at the end of the stream. Requires: FinishEntry was called
    // for the record before.
    bool ReadEntry(Entry& entry);
    // Returns the next block of the data, valid until the next call; empty at the end.
    std::span<const char> ReadData();
    // Skips the rest of the data and checks the check value. Only then is the data known to be right.
    void FinishEntry();

private:
    std::string ReadText(std::size_t length);
    void Read(std::span<char> bytes);
    void ReadChecked(std::span<char> bytes);

    int file_;
    SaveKind kind_{};
    std::string name_;
    std::uint64_t objects_ = 0;
    std::uint64_t left_ = 0; // unread data of the current entry, in bytes
    CheckValue check_;
    std::vector<char> buffer_; // bytes used_ to filled_ are read ahead
    std::size_t used_ = 0;
    std::size_t filled_ = 0;
    std::vector<char> block_;
};

} // namespace rehearsal
