#include "backup_plan.h"

#include <string>
#include <string_view>

namespace {

bool IsUnchanged(const ObjectNode& dir, const PlanOptions& options) {
    return options.changed_only && dir.count == 0;
}

// Whether a directory is saved as one unit: nothing below it was left out, and it is not too large.
bool IsOneUnit(const ObjectNode& dir, const PlanOptions& options) {
    return dir.parent != nullptr && !dir.partial && (dir.size <= options.max_block_size || dir.count == 0);
}

ObjectNode& KindTree(KindTrees& trees, std::string_view path) {
    return *trees[static_cast<std::size_t>(ClassifyPath(path))];
}

// Places a directory of the include tree and everything below it. `path` is its parent's and is the same on return.
void PlaceDirectory(BackupPlan& plan, const ObjectNode& dir, std::string& path, const PlanOptions& options) {
    const std::size_t parent_length = path.size();
    AppendToPath(path, dir.name);
    const std::size_t length = path.size();
    const bool is_library = path.starts_with(LibraryPrefix);
    if ((is_library || IsOneUnit(dir, options)) && IsUnchanged(dir, options)) {
        AppendUnlisted(dir, path.substr(0, parent_length), plan.unlisted);
    } else if (is_library) {
        AppendFile(KindTree(plan.trees, path), path, dir.mode, dir.size, dir.mtime);
    } else if (IsOneUnit(dir, options)) {
        AdoptDirectory(KindTree(plan.trees, path), dir);
        plan.objects_found += dir.count;
    } else {
        if (dir.unlisted)
            plan.unlisted.push_back(path);
        for (const ObjectFile* file = dir.first_file.get(); file != nullptr; file = file->next.get()) {
            AppendToPath(path, file->name);
            AdoptFile(KindTree(plan.trees, path), *file);
            path.resize(length);
            ++plan.objects_found;
        }
        for (const ObjectNode* child = dir.first_dir.get(); child != nullptr; child = child->next.get())
            if (!child->released)
                PlaceDirectory(plan, *child, path, options);
    }
    path.resize(parent_length);
}

} // namespace

void AppendUnlisted(const ObjectNode& dir, std::string path, std::vector<std::string>& unlisted) {
    const ObjectNode& source = dir.borrowed_from != nullptr ? *dir.borrowed_from : dir;
    AppendToPath(path, dir.name);
    if (source.unlisted)
        unlisted.push_back(path);
    for (const ObjectNode* child = source.first_dir.get(); child != nullptr; child = child->next.get())
        AppendUnlisted(*child, path, unlisted);
}

BackupPlan BuildBackupPlan(const ObjectNode& include_tree, const PlanOptions& options) {
    BackupPlan plan;
    for (ObjectTree& tree : plan.trees)
        tree = NewDirectoryNode(nullptr, "", 0, 0, CalendarTime{});
    std::string path;
    PlaceDirectory(plan, include_tree, path, options);
    return plan;
}
