// What becomes of the objects that were found: which directories are saved whole, which object goes to which worker.
// Pure work on trees, in the main thread.

#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "tree.h"

struct PlanOptions {
    std::uint64_t max_block_size = UINT64_MAX; // bytes; a larger directory is saved object by object
    bool changed_only = false;                 // the trees contain only what changed: what contains no file is left out
};

// One root per kind of object. The objects below are borrowed from the include tree, which must live longer.
using KindTrees = std::array<ObjectTree, ObjectKindCount>;
struct BackupPlan {
    KindTrees trees;
    std::uint64_t objects_found = 0; // files to save, those inside units included, libraries not
    // Directories that the server did not list, so that something of them is missing: no unit above them is saved
    // whole.
    std::vector<std::string> unlisted;
};
// Appends the paths of the directories that the server did not list, among this one and all below it. `path` is that of
// the directory's parent.
void AppendUnlisted(const ObjectNode& dir, std::string path, std::vector<std::string>& unlisted);

BackupPlan BuildBackupPlan(const ObjectNode& include_tree, const PlanOptions& options);
