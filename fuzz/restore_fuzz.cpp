// A whole archive, damaged anywhere, read without a session: every wanted entry fails and is passed over. Then what an
// upload would be fed of it.
#include "fuzz_support.h"
#include "restore.h"
#include <sys/mman.h>
#include <unistd.h>

static void Feed(const std::string& path, std::string_view rest, std::int64_t size) {
    RestoredArchive archive{{}, path};
    assert(archive.reader.Open(path));
    archive.reader.BeginEntry(size);
    alignas(4096) static std::array<char, 65536> buffer;
    for (std::string_view data; SupplyEntryData(&archive, buffer, data) == 0 && !data.empty();) {
        assert(rest.starts_with(data));
        rest.remove_prefix(data.size());
    }
    assert(rest.empty() || archive.reader.Left() <= 0);
}

void Run(FuzzedDataProvider& input) {
    const auto repaired = input.ConsumeIntegral<std::uint32_t>(); // a bit for each block: gets a good checksum
    const bool through_pipe = input.ConsumeBool();
    std::string include = input.ConsumeRandomLengthString(200);
    std::string exclude = input.ConsumeRandomLengthString(200);
    std::string archive = input.ConsumeRemainingBytesAsString();
    archive.resize(std::min<std::size_t>(archive.size(), 32 * BlockSize)); // less than a pipe holds
    const auto block = [&](std::size_t at) { return std::span<char, BlockSize>(archive.data() + at, BlockSize); };
    for (std::size_t at = 0; at + BlockSize <= archive.size(); at += BlockSize)
        if ((repaired >> at / BlockSize & 1) != 0)
            archive.replace(at + HeaderFields::Checksum.offset, 7, FormatText("%07o", HeaderChecksum(block(at))));
    int ends[2];
    assert(::pipe(ends) == 0);
    const Descriptor file(::memfd_create("archive", 0)), reader(ends[0]);
    Descriptor writer(ends[1]);
    assert(::write((through_pipe ? writer : file).Get(), archive.data(), archive.size()) >= 0);
    writer.Reset();
    Settings settings;
    settings.restore_path = "/proc/self/fd/" + std::to_string((through_pipe ? reader : file).Get());
    settings.include = TextStream(include);
    settings.exclude = TextStream(exclude);
    const bool wanted = !settings.include && !settings.exclude; // every entry
    assert(RestoreArchive(nullptr, settings) == -1 || !wanted || IsCtarSentinel(block(0)));
    if (!through_pipe)
        for (const std::int64_t size : {std::int64_t{700}, ReadAhead::PieceSize, INT64_MAX - 1025})
            Feed(*settings.restore_path, archive, size);
}
