// A directory listing on its way into the tree, in pieces.
#include "backup.h"
#include "fuzz_support.h"

// What became of a listing, in one text.
static std::string List(const std::vector<std::string>& pieces, const std::string& path, bool as_root,
                        const Settings& settings) {
    const ObjectTree root = NewDirectoryNode(nullptr, as_root ? path : "", 0, 0, {});
    ObjectNode& dir = as_root ? *root : AppendDirectory(*root, path, 0, 0, {});
    ListingContext context{settings};
    context.path = path;
    BeginListing(context, dir);
    context.now = UnpackTime({120, 5, 15});
    for (std::string piece : pieces) {
        int length = static_cast<int>(piece.size());
        assert(ListingCallback(&context, piece.data(), &length) == 0 && length == 0 && context.path == path);
    }
    assert(dir.count == root->count && dir.size == root->size && (root->partial || context.parse_errors == 0));
    return std::to_string(context.parse_errors) + " " + std::to_string(dir.size) + " " + std::to_string(dir.count) +
           context.carry + (dir.last_dir != nullptr ? DirectoryPath(*dir.last_dir) : "") +
           (dir.last_file != nullptr ? FilePath(*dir.last_file) : "");
}

void Run(FuzzedDataProvider& input) {
    Settings settings;
    if (input.ConsumeBool())
        settings.cutoff = 1400000000;
    const bool as_root = input.ConsumeBool();
    const std::string path = input.PickValueInArray({"/", "/home", "/QSYS.LIB", "/QSYS.LIB/A*.LIB"});
    std::string excluded = input.ConsumeRandomLengthString(100);
    settings.exclude = TextStream(excluded);
    std::string whole;
    const auto pieces = TakePieces(input, 2000, whole); // two make no line that ends the program
    bool lost = false, carried = false;                 // of a line in three pieces the first is lost
    for (const std::string& piece : pieces) {
        lost = lost || (carried && !piece.empty() && piece.find('\n') == piece.npos);
        carried = piece.empty() ? carried : piece.back() != '\n';
    }
    const std::string listed = List(pieces, path, as_root, settings);
    assert(lost || whole.size() > 4000 || listed == List({whole}, path, as_root, settings));
}
