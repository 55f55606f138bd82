// The command line. Nothing but the null device is opened, read or taken for a stream.
#include "fuzz_support.h"
#include "options.h"

void Run(FuzzedDataProvider& input) {
    std::vector<std::string> words{"vondral"};
    while (input.remaining_bytes() > 0 && words.size() < 64) {
        const char letter = input.PickValueInArray({'b', 'c', 'd', 'e', 'i', 'l', 'm', 'n', 'p', 'r', 's', 'z', '-'});
        std::string text = input.ConsumeRandomLengthString(200).c_str();
        if (letter == 'l' || letter == 'n')
            text.insert(0, "100"); // none that is open
        if (letter == 'e' || letter == 'i')
            text = "/dev/null";
        if (letter == 'c' && text.find_first_of("fF") != text.npos)
            text = "user:file:/dev/null";
        if (letter != '-' && !text.empty()) // in one word: another option before it can take nothing off it
            words.push_back(std::string{'-', letter} + text);
        else if (letter == '-' && (!text.starts_with('-') || text.find_first_of("Ccieln") == text.npos))
            words.push_back(text);
    }
    std::vector<char*> pointers(words.size() + 1);
    std::transform(words.begin(), words.end(), pointers.begin(), [](std::string& word) { return word.data(); });
    Settings settings;
    const int result = ParseCommandLine(static_cast<int>(words.size()), pointers.data(), settings);
    assert(result == -1 || (result == 0 && settings.server && settings.user && settings.password));
    assert(settings.transport.timeout >= 1 && settings.transport.timeout <= 99999);
}
