// Headers of entries, made and found, and the base-64 form of their sizes.
#include "ctar.h"
#include "fuzz_support.h"
#include <sys/stat.h>

void Run(FuzzedDataProvider& input) {
    const auto size = input.ConsumeIntegral<std::uint64_t>();
    const auto mode = input.ConsumeIntegral<std::uint32_t>();
    const std::string path = input.ConsumeRandomLengthString(LongestName + 20).c_str(); // up to a zero byte
    bool cut = false;
    CtarBlock block = EncodeCtarHeader(path, size, mode, {}, cut);
    std::string name = (mode & S_IFDIR) != 0 ? path + std::string(NameSuffix) : path;
    assert(HasGoodChecksum(block) && !IsCtarSentinel(block));
    assert(cut == (name.size() > LongestName) && ReadCtarName(block) == name.substr(0, LongestName));
    std::int64_t read = -1;
    const bool storable = size <= static_cast<std::uint64_t>(LargestSize);
    assert(ReadCtarSize(block, read) == storable && (!storable || read == static_cast<std::int64_t>(size)));

    input.ConsumeData(block.data(), block.size()); // over the front of a good one
    name = ReadCtarName(block);
    assert(name.size() <= LongestName && name.find('\0') == name.npos && name.starts_with(CutNameSuffix(name)));
    assert(!ReadCtarSize(block, read) || (read >= 0 && read <= LargestSize));
    assert(!HasGoodChecksum(block) || !IsCtarSentinel(block) || name.empty());
    const auto field = std::span(block).subspan<HeaderFields::Size.offset, HeaderFields::Size.width>();
    std::uint64_t value = 0, again = 0;
    DecodeSize64(value, field);
    EncodeSize64(value, field);
    assert(DecodeSize64(again, field) == 0 && again == value);
}
