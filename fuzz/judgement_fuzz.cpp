// The judgement of refused save and restore commands, by the reply's text.
#include "commands.h"
#include "fuzz_support.h"

void Run(FuzzedDataProvider& input) {
    const auto reply = input.ConsumeBytesWithTerminator<char>(input.remaining_bytes());
    assert(ClassifyRestoreReply(reply.data()) >= -1);
    const std::optional<std::string> count = CountNotSaved(reply.data());
    assert(!count || std::strstr(reply.data(), (*count + " ").c_str()) != nullptr);
}
