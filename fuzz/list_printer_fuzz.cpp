// List mode's printer: the cuts between pieces do not show.
#include "fuzz_support.h"
#include "vondral.h"

static std::string Print(const std::vector<std::string>& pieces, const std::string& include_path) {
    std::string text(65536, '\0');
    Settings settings;
    settings.list.reset(::fmemopen(text.data(), text.size(), "w"));
    ListPrinterContext context{settings, include_path};
    int result = 0;
    for (std::string piece : pieces) {
        int count = static_cast<int>(piece.size());
        result = result == 0 ? ListPrinter(&context, piece.data(), &count) : result;
    }
    settings.list.reset();
    return std::to_string(result) + text.c_str() + "|" + (result == 0 ? context.lines.pending : "");
}

void Run(FuzzedDataProvider& input) {
    const std::string include_path = input.ConsumeRandomLengthString(4095);
    std::string whole;
    const std::string printed = Print(TakePieces(input, 5000, whole), include_path);
    // The limit of a line depends on whether its end has arrived.
    assert(whole.size() >= 4095 || printed == Print({whole}, include_path));
}
