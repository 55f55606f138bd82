// What the work on one line, path or block costs, without a network.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

#include <unistd.h>

#include "backup.h"
#include "commands.h"
#include "ctar.h"
#include "listing.h"
#include "path_file.h"
#include "settings.h"

namespace {

// A listing of `count` files as the server sends it.
std::string MakeListing(int count) {
    std::string listing;
    for (int i = 0; i < count; ++i)
        listing += FormatText("-rwx---rwx   1 QPGMR    0        %7d Sep 24 18:16 object%07d.txt\r\n", i, i);
    return listing;
}

Stream MakePathFile(int lines) {
    std::FILE* const file = std::tmpfile();
    for (int i = 0; i < lines; ++i)
        std::fprintf(file, i % 10 == 0 ? "/home/user%d/*.tmp\n" : "/home/user%d/scratch\n", i);
    std::fflush(file);
    ::usleep(2100000); // a file is taken for unchanged only when its last change is some time ago
    return Stream(file);
}

// Lines parsed and placed into a tree of one directory, in blocks as a transfer hands them over.
void ParseAndPlaceWith(benchmark::State& state, const std::function<void(Settings&)>& adjust) {
    const std::string listing = MakeListing(100000);
    Settings settings;
    adjust(settings);
    for (auto _ : state) {
        const ObjectTree root = NewDirectoryNode(nullptr, "", 0, 0, {});
        ObjectNode& dir = AppendDirectory(*root, "/home", 0040755, 0, {});
        ListingContext context{settings};
        context.path = "/home";
        BeginListing(context, dir);
        for (std::size_t at = 0; at < listing.size(); at += TransferCapacity) {
            std::string block = listing.substr(at, TransferCapacity);
            int length = static_cast<int>(block.size());
            ListingCallback(&context, block.data(), &length);
        }
        benchmark::DoNotOptimize(root->count);
    }
    state.SetItemsProcessed(state.iterations() * 100000);
}

// With an exclude file of so many lines, or none.
void ParseAndPlace(benchmark::State& state) {
    ParseAndPlaceWith(state, [&state](Settings& settings) {
        settings.exclude = state.range(0) > 0 ? MakePathFile(static_cast<int>(state.range(0))) : nullptr;
    });
}

// The same with --date, which converts each entry's time.
void ParseAndPlaceDated(benchmark::State& state) {
    ParseAndPlaceWith(state, [](Settings& settings) { settings.cutoff = 0; });
}
BENCHMARK(ParseAndPlaceDated)->Unit(benchmark::kMillisecond);

BENCHMARK(ParseAndPlace)->Arg(0)->Arg(1)->Arg(10)->Arg(100)->Unit(benchmark::kMillisecond);

void ParseLine(benchmark::State& state) {
    const std::string line = MakeListing(1).substr(0, MakeListing(1).size() - 1);
    const std::tm now{};
    ListingEntry entry;
    for (auto _ : state)
        benchmark::DoNotOptimize(ParseListingLine(line, now, entry));
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(ParseLine);

void AskPathFile(benchmark::State& state) {
    const Stream file = MakePathFile(static_cast<int>(state.range(0)));
    for (auto _ : state)
        benchmark::DoNotOptimize(
            MatchPathFile("/home/user/documents/letter.txt", nullptr, file.get(), WildCards::Match));
}
BENCHMARK(AskPathFile)->Arg(1)->Arg(10)->Arg(100);

void Checksum(benchmark::State& state) {
    CtarBlock block{};
    for (auto _ : state) {
        benchmark::DoNotOptimize(block);
        benchmark::DoNotOptimize(HeaderChecksum(block));
    }
}
BENCHMARK(Checksum);

void Quote(benchmark::State& state) {
    for (auto _ : state)
        benchmark::DoNotOptimize(QuoteForCL("/home/o'brien/a \"quoted\" name that is of a usual length.txt"));
}
BENCHMARK(Quote);

} // namespace

BENCHMARK_MAIN();
