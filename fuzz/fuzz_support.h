// What the fuzz targets share. Byte strings are taken from the front of an input, where "\." ends one; numbers and
// choices from its back. How to run and replay: CMakeLists.txt.
#pragma once
#undef NDEBUG
#include <cassert>
#include <cstring>
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <string>
#include <vector>

#include "resources.h"

void Run(FuzzedDataProvider& input); // what each target defines

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    FuzzedDataProvider input(bytes, size);
    Run(input);
    return 0;
}

inline std::vector<std::string> TakePieces(FuzzedDataProvider& input, std::size_t longest, std::string& whole) {
    std::vector<std::string> pieces;
    for (; input.remaining_bytes() > 0 && pieces.size() < 64; whole += pieces.back())
        pieces.push_back(input.ConsumeRandomLengthString(longest));
    return pieces;
}

// A stream over `text`, which must live longer; nothing for an empty one.
inline Stream TextStream(std::string& text) {
    return Stream(text.empty() ? nullptr : ::fmemopen(text.data(), text.size(), "r"));
}
