// Questions to an include or exclude file.
#include "fuzz_support.h"
#include "path_file.h"

void Run(FuzzedDataProvider& input) {
    const WildCards wild_cards = input.ConsumeBool() ? WildCards::Ignore : WildCards::Match;
    const std::string path = input.ConsumeRandomLengthString(500).c_str(); // up to a zero byte
    std::string text = input.ConsumeRemainingBytesAsString();
    const Stream stream = TextStream(text);
    StringList list;
    assert(MatchPathFile(path, &list, stream.get(), wild_cards) == (list.empty() ? 1 : 0));
    for (const StringPair& pair : list)
        assert(pair.first == path ? &pair == &list.back() : pair.first.starts_with(path + "/"));
    assert(MatchPathFile(path, nullptr, stream.get(), wild_cards) == (!list.empty() && list.back().first == path ? 0 : 1));
}
