#include "save_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include <unistd.h>

#include "resources.h"

namespace rehearsal {

namespace {

constexpr std::size_t PathLimit = 16 * 1024; // bytes; a longer path means that the stream is damaged

void AppendNumber(std::string& bytes, std::uint64_t number, int width) {
    for (int shift = 8 * (width - 1); shift >= 0; shift -= 8)
        bytes += static_cast<char>(number >> shift & 0xFF);
}

std::uint64_t DecodeNumber(std::string_view bytes) {
    std::uint64_t number = 0;
    for (const char byte : bytes)
        number = number << 8 | static_cast<unsigned char>(byte);
    return number;
}

// Reads up to buffer.size() bytes; fewer only at the end of the file.
std::size_t ReadOrThrow(int file, std::span<char> buffer) {
    std::size_t filled = 0;
    while (filled < buffer.size()) {
        const ssize_t count = ReadSome(file, buffer.data() + filled, buffer.size() - filled);
        if (count < 0)
            throw std::system_error(errno, std::generic_category(), "read");
        if (count == 0)
            break;
        filled += static_cast<std::size_t>(count);
    }
    return filled;
}

} // namespace

void WriteOrThrow(int file, std::span<const char> bytes) {
    if (!WriteAll(file, bytes.data(), bytes.size()))
        throw std::system_error(errno, std::generic_category(), "write");
}

void CheckValue::Add(std::span<const char> block) {
    constexpr std::uint64_t prime = 0x100000001B3;
    while (!block.empty()) {
        std::uint64_t word = 0;
        const std::size_t count = std::min(block.size(), sizeof word);
        std::memcpy(&word, block.data(), count);
        value_ = (value_ ^ word) * prime;
        value_ ^= value_ >> 29;
        block = block.subspan(count);
    }
}

SaveFileWriter::SaveFileWriter(int file, SaveKind kind, std::string name)
    : file_(file), kind_(kind), name_(std::move(name)), block_(TransferPiece) {
    buffer_.reserve(2 * TransferPiece);
    Write(Header());
}

std::string SaveFileWriter::Header() const {
    std::string header(SaveFileMagic);
    header += static_cast<char>(kind_);
    AppendNumber(header, objects_, 8);
    AppendNumber(header, name_.size(), 2);
    header += name_;
    CheckValue check;
    check.Add(header);
    AppendNumber(header, check.Value(), 8);
    return header;
}

void SaveFileWriter::BeginEntry(const Entry& entry) {
    std::string head(1, static_cast<char>(entry.type));
    AppendNumber(head, entry.mode, 4);
    AppendNumber(head, static_cast<std::uint64_t>(entry.changed.tv_sec), 8);
    AppendNumber(head, static_cast<std::uint64_t>(entry.changed.tv_nsec), 4);
    AppendNumber(head, entry.length, 8);
    AppendNumber(head, entry.path.size(), 2);
    check_ = CheckValue();
    WriteData(head);
    if (!entry.path.empty())
        WriteData(entry.path);
    objects_ += entry.type != Entry::Type::End;
}

void SaveFileWriter::WriteData(std::span<const char> block) {
    check_.Add(block);
    Write(block);
}

void SaveFileWriter::EndEntry() {
    std::string check;
    AppendNumber(check, check_.Value(), 8);
    Write(check);
}

void SaveFileWriter::Write(std::span<const char> bytes) {
    buffer_.insert(buffer_.end(), bytes.begin(), bytes.end());
    length_ += bytes.size();
    if (buffer_.size() >= TransferPiece)
        Flush();
}

void SaveFileWriter::Flush() {
    WriteOrThrow(file_, buffer_);
    buffer_.clear();
}

void SaveFileWriter::AddFile(Entry entry, int source) {
    BeginEntry(entry);
    while (entry.length > 0) {
        const std::size_t wanted = std::min<std::uint64_t>(entry.length, TransferPiece);
        const std::span<char> block(block_.data(), wanted);
        const std::size_t filled = ReadOrThrow(source, block);
        std::fill(block.begin() + static_cast<std::ptrdiff_t>(filled), block.end(), '\0');
        WriteData(block);
        entry.length -= wanted;
    }
    EndEntry();
}

void SaveFileWriter::AddLink(Entry entry, const std::string& target) {
    entry.length = target.size();
    BeginEntry(entry);
    WriteData(target);
    EndEntry();
}

void SaveFileWriter::AddDirectory(Entry entry) {
    entry.length = 0;
    BeginEntry(entry);
    EndEntry();
}

void SaveFileWriter::Finish() {
    BeginEntry(Entry());
    EndEntry();
    Write(std::vector<char>((RecordLength - length_ % RecordLength) % RecordLength));
    Flush();
    const std::string header = Header();
    if (::pwrite(file_, header.data(), header.size(), 0) != static_cast<ssize_t>(header.size()))
        throw std::system_error(errno, std::generic_category(), "pwrite");
}

SaveFileReader::SaveFileReader(int file) : file_(file), buffer_(TransferPiece), block_(TransferPiece) {
    std::string header = ReadText(SaveFileMagic.size());
    if (header != SaveFileMagic)
        throw DamagedStream();
    header += ReadText(1 + 8 + 2);
    const std::string_view fields = std::string_view(header).substr(SaveFileMagic.size());
    kind_ = static_cast<SaveKind>(fields[0]);
    objects_ = DecodeNumber(fields.substr(1, 8));
    name_ = ReadText(DecodeNumber(fields.substr(9, 2)));
    header += name_;
    CheckValue check;
    check.Add(header);
    if (DecodeNumber(ReadText(8)) != check.Value())
        throw DamagedStream();
}

void SaveFileReader::Read(std::span<char> bytes) {
    while (!bytes.empty()) {
        if (used_ == filled_) {
            filled_ = ReadOrThrow(file_, buffer_);
            used_ = 0;
            if (filled_ == 0)
                throw DamagedStream();
        }
        const std::size_t count = std::min(bytes.size(), filled_ - used_);
        std::memcpy(bytes.data(), buffer_.data() + used_, count);
        used_ += count;
        bytes = bytes.subspan(count);
    }
}

void SaveFileReader::ReadChecked(std::span<char> bytes) {
    Read(bytes);
    check_.Add(bytes);
}

std::string SaveFileReader::ReadText(std::size_t length) {
    std::string text(length, '\0');
    Read(text);
    return text;
}

bool SaveFileReader::ReadEntry(Entry& entry) {
    std::string head(27, '\0');
    check_ = CheckValue();
    ReadChecked(head);
    const auto number = [&](std::size_t at, std::size_t width) {
        return DecodeNumber(std::string_view(head).substr(at, width));
    };
    entry.type = static_cast<Entry::Type>(head[0]);
    entry.mode = static_cast<mode_t>(number(1, 4)) & 07777;
    entry.changed = {static_cast<std::time_t>(number(5, 8)), static_cast<long>(number(13, 4))};
    entry.length = left_ = number(17, 8);
    const std::uint64_t path_length = number(25, 2);
    if (std::string_view("FDLE").find(head[0]) == std::string_view::npos || path_length > PathLimit)
        throw DamagedStream();
    entry.path.assign(path_length, '\0');
    ReadChecked(entry.path);
    if (entry.type == Entry::Type::End)
        FinishEntry();
    return entry.type != Entry::Type::End;
}

std::span<const char> SaveFileReader::ReadData() {
    const std::span<char> block(block_.data(), std::min<std::uint64_t>(left_, TransferPiece));
    ReadChecked(block);
    left_ -= block.size();
    return block;
}

void SaveFileReader::FinishEntry() {
    while (!ReadData().empty())
        continue;
    if (DecodeNumber(ReadText(8)) != check_.Value())
        throw DamagedStream();
}

} // namespace rehearsal
