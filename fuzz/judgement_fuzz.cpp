// The judgement of refused save and restore commands, by the reply's text.
#include "commands.h"
#include "fuzz_support.h"

void Run(FuzzedDataProvider& input) {
    const auto reply = input.ConsumeBytesWithTerminator<char>(input.remaining_bytes());
    std::vector<char> capitals = reply;
    for (char& c : capitals)
        c = c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
    assert(ClassifyRestoreReply(reply.data()) == ClassifyRestoreReply(capitals.data()));
    const std::optional<std::string> count = CountNotSaved(reply.data());
    assert(!count || std::strstr(reply.data(), (*count + " ").c_str()) != nullptr);
}
