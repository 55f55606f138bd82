#include "reply_buffer.h"

#include <algorithm>

namespace {

constexpr std::string_view LineEnd = "\r\n";

} // namespace

void ReplyBuffer::Clear() {
    held_ = 0;
    lines_ = 0;
}

std::span<char> ReplyBuffer::Room() {
    return std::span(bytes_).subspan(held_);
}

void ReplyBuffer::Append(std::size_t count) {
    const std::string_view chunk(bytes_.data() + held_, count);
    held_ += count;
    for (std::size_t end = chunk.find(LineEnd); end != chunk.npos; end = chunk.find(LineEnd, end + LineEnd.size()))
        ++lines_;
}

std::string_view ReplyBuffer::FirstLine() const {
    const std::string_view held(bytes_.data(), held_);
    return held.substr(0, held.find(LineEnd));
}

void ReplyBuffer::DropFirstLine() {
    const std::size_t dropped = FirstLine().size() + LineEnd.size();
    std::copy(bytes_.begin() + dropped, bytes_.begin() + held_, bytes_.begin());
    held_ -= dropped;
    --lines_;
}

void ReplyBuffer::DropIntermediateLines() {
    while (lines_ > 0 && StartsWithIntermediateLine())
        DropFirstLine();
}
