#include "save_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include <unistd.h>

namespace rehearsal {

namespace {

constexpr std::size_t PathLimit = 16 * 1024; // no path is longer; more is damage

void Append(std::string& bytes, std::uint64_t number, int width) {
    for (int shift = 8 * (width - 1); shift >= 0; shift -= 8)
        bytes += static_cast<char>(number >> shift & 0xFF);
}

std::uint64_t Number(std::string_view bytes) {
    std::uint64_t number = 0;
    for (const char byte : bytes)
        number = number << 8 | static_cast<unsigned char>(byte);
    return number;
}

} // namespace

std::size_t ReadFully(int file, std::span<char> buffer) {
    std::size_t filled = 0;
    while (filled < buffer.size()) {
        const ssize_t count = ::read(file, buffer.data() + filled, buffer.size() - filled);
        if (count == 0)
            break;
        if (count < 0 && errno != EINTR)
            throw std::system_error(errno, std::generic_category(), "read");
        filled += static_cast<std::size_t>(std::max<ssize_t>(count, 0));
    }
    return filled;
}

void WriteFully(int file, std::span<const char> bytes) {
    while (!bytes.empty()) {
        const ssize_t count = ::write(file, bytes.data(), bytes.size());
        if (count < 0 && errno != EINTR)
            throw std::system_error(errno, std::generic_category(), "write");
        bytes = bytes.subspan(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    }
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

// ---- writer

SaveFileWriter::SaveFileWriter(int file, SaveKind kind, std::string name)
    : file_(file), kind_(kind), name_(std::move(name)), block_(BlockSize) {
    held_.reserve(2 * BlockSize);
    Write(Header());
}

std::string SaveFileWriter::Header() const {
    std::string header(SaveFileMagic);
    header += static_cast<char>(kind_);
    Append(header, objects_, 8);
    Append(header, name_.size(), 2);
    header += name_;
    CheckValue check;
    check.Add(header);
    Append(header, check.value(), 8);
    return header;
}

void SaveFileWriter::Begin(const Entry& entry) {
    std::string head(1, static_cast<char>(entry.type));
    Append(head, entry.mode, 4);
    Append(head, static_cast<std::uint64_t>(entry.changed.tv_sec), 8);
    Append(head, static_cast<std::uint64_t>(entry.changed.tv_nsec), 4);
    Append(head, entry.length, 8);
    Append(head, entry.path.size(), 2);
    check_ = CheckValue();
    Data(head);
    if (!entry.path.empty())
        Data(entry.path);
    objects_ += entry.type != Entry::Type::End;
}

void SaveFileWriter::Data(std::span<const char> block) {
    check_.Add(block);
    Write(block);
}

void SaveFileWriter::End() {
    std::string check;
    Append(check, check_.value(), 8);
    Write(check);
}

void SaveFileWriter::Write(std::span<const char> bytes) {
    held_.insert(held_.end(), bytes.begin(), bytes.end());
    length_ += bytes.size();
    if (held_.size() >= BlockSize)
        Flush();
}

void SaveFileWriter::Flush() {
    WriteFully(file_, held_);
    held_.clear();
}

void SaveFileWriter::AddFile(Entry entry, int source) {
    Begin(entry);
    while (entry.length > 0) {
        const std::size_t wanted = std::min<std::uint64_t>(entry.length, BlockSize);
        const std::span<char> block(block_.data(), wanted);
        const std::size_t filled = ReadFully(source, block);
        std::fill(block.begin() + static_cast<std::ptrdiff_t>(filled), block.end(), '\0');
        Data(block);
        entry.length -= wanted;
    }
    End();
}

void SaveFileWriter::AddLink(Entry entry, const std::string& target) {
    entry.length = target.size();
    Begin(entry);
    Data(target);
    End();
}

void SaveFileWriter::AddDirectory(Entry entry) {
    entry.length = 0;
    Begin(entry);
    End();
}

void SaveFileWriter::Finish() {
    Begin(Entry());
    End();
    Write(std::vector<char>((RecordLength - length_ % RecordLength) % RecordLength));
    Flush();
    const std::string header = Header();
    if (::pwrite(file_, header.data(), header.size(), 0) != static_cast<ssize_t>(header.size()))
        throw std::system_error(errno, std::generic_category(), "pwrite");
}

// ---- reader

SaveFileReader::SaveFileReader(int file) : file_(file), held_(BlockSize), block_(BlockSize) {
    std::string header = Text(SaveFileMagic.size());
    if (header != SaveFileMagic)
        throw DamagedStream();
    header += Text(1 + 8 + 2);
    const std::string_view fields = std::string_view(header).substr(SaveFileMagic.size());
    kind_ = static_cast<SaveKind>(fields[0]);
    objects_ = Number(fields.substr(1, 8));
    name_ = Text(Number(fields.substr(9, 2)));
    header += name_;
    CheckValue check;
    check.Add(header);
    if (Number(Text(8)) != check.value())
        throw DamagedStream();
}

void SaveFileReader::Take(std::span<char> to) {
    while (!to.empty()) {
        if (used_ == filled_) {
            filled_ = ReadFully(file_, held_);
            used_ = 0;
            if (filled_ == 0)
                throw DamagedStream();
        }
        const std::size_t count = std::min(to.size(), filled_ - used_);
        std::memcpy(to.data(), held_.data() + used_, count);
        used_ += count;
        to = to.subspan(count);
    }
}

void SaveFileReader::TakeChecked(std::span<char> to) {
    Take(to);
    check_.Add(to);
}

std::string SaveFileReader::Text(std::size_t length) {
    std::string text(length, '\0');
    Take(text);
    return text;
}

bool SaveFileReader::Next(Entry& entry) {
    std::string head(27, '\0');
    check_ = CheckValue();
    TakeChecked(head);
    const auto number = [&](std::size_t at, std::size_t width) {
        return Number(std::string_view(head).substr(at, width));
    };
    entry.type = static_cast<Entry::Type>(head[0]);
    entry.mode = static_cast<mode_t>(number(1, 4)) & 07777;
    entry.changed = {static_cast<std::time_t>(number(5, 8)), static_cast<long>(number(13, 4))};
    entry.length = left_ = number(17, 8);
    const std::uint64_t path_length = number(25, 2);
    if (std::string_view("FDLE").find(head[0]) == std::string_view::npos || path_length > PathLimit)
        throw DamagedStream();
    entry.path.assign(path_length, '\0');
    TakeChecked(entry.path);
    if (entry.type == Entry::Type::End)
        Finish();
    return entry.type != Entry::Type::End;
}

std::span<const char> SaveFileReader::Data() {
    const std::span<char> block(block_.data(), std::min<std::uint64_t>(left_, BlockSize));
    TakeChecked(block);
    left_ -= block.size();
    return block;
}

void SaveFileReader::Finish() {
    while (!Data().empty())
        continue;
    if (Number(Text(8)) != check_.value())
        throw DamagedStream();
}

} // namespace rehearsal
