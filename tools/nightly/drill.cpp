#include "drill.h"

#include <algorithm>
#include <cstdio>

#include <nlohmann/json.hpp>

#include "contents.h"
#include "failure.h"
#include "night.h"
#include "object_kind.h"
#include "restore_steps.h"
#include "support.h"

namespace nightly {

namespace {

std::string RecordPath(const std::string& directory) {
    return directory + "/drill.json";
}

void WriteDrill(Disk& disk, const std::string& directory, const DrillRecord& record) {
    const nlohmann::ordered_json json{
        {"time", record.moment}, {"good", record.good}, {"night", record.night}, {"seconds", record.seconds}};
    disk.WriteFile(RecordPath(directory), json.dump(2) + "\n");
}

// The archive of the newest restorable night that has the library, and the night.
std::pair<std::string, const Night*> FindLibrary(const std::vector<Night>& nights, const std::string& library) {
    const std::vector<const Night*> restorable = Restorable(nights);
    for (auto night = restorable.rbegin(); night != restorable.rend(); ++night)
        for (const std::string& name : (*night)->record->archives) {
            const std::vector<EntryFacts> entries = ReadArchive((*night)->File(name), Digests::Skip).entries;
            if (std::any_of(entries.begin(), entries.end(),
                            [&library](const EntryFacts& entry) { return entry.path == library; }))
                return {(*night)->File(name), *night};
        }
    throw Failure("drill: no good night has " + library + " as an entry");
}

} // namespace

std::optional<DrillRecord> ReadDrill(const std::string& directory) {
    try {
        const nlohmann::json json = nlohmann::json::parse(ReadSmallFile(RecordPath(directory)));
        return DrillRecord{json.at("time"), json.at("good"), json.at("night"), json.at("seconds")};
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

int RunDrill(Disk& disk, const Config& config, std::time_t now) {
    if (!config.drill)
        throw Failure("the configuration has no key drill");
    const DrillPlan& drill = *config.drill;
    const std::vector<Night> nights = ListOwnNights(config);
    const auto [archive, night] = FindLibrary(nights, drill.library);
    const std::string include = config.directory + "/drill.include", exclude = config.directory + "/drill.exclude";
    disk.WriteFile(include, drill.library + " :: " + drill.as + "\n");
    disk.WriteFile(exclude, std::string(SecurityDataPath) + "\n" + std::string(ConfigurationPath) + "\n");
    const double begun = SecondsNow();
    const RestoreOutcome outcome =
        RunRestore(config, {drill.server, archive, {include, exclude}, config.directory + "/drill.log"});
    const std::string wanted = drill.library.substr(0, drill.library.size() - LibrarySuffix.size());
    DrillRecord record{now, false, night->Name(), SecondsNow() - begun};
    record.good = std::find(outcome.successes.begin(), outcome.successes.end(), wanted) != outcome.successes.end();
    WriteDrill(disk, config.directory, record);
    if (record.good) {
        std::printf("drill: %s of %s restored as %s on %s in %.0f s\n", drill.library.c_str(), night->Name().c_str(),
                    drill.as.c_str(), drill.server.c_str(), record.seconds);
        return Good;
    }
    std::fprintf(stderr, "vondral-nightly: drill: %s was not restored on %s: read %s/drill.log\n",
                 drill.library.c_str(), drill.server.c_str(), config.directory.c_str());
    return Bad;
}

} // namespace nightly
