// vondral-nightly status: the last good night of each server, and whether it is recent enough.

#include "subcommands.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <optional>
#include <vector>

#include <CLI/CLI.hpp>

#include "config.h"
#include "drill.h"
#include "failure.h"
#include "moments.h"
#include "night.h"
#include "records.h"
#include "report/display.h"
#include "text.h"

namespace nightly {

namespace {

struct StatusOptions {
    std::vector<std::string> names; // none: all servers
    std::string max_age = "26h";
    bool json = false;
};

struct ServerStatus {
    std::string name;
    std::vector<Night> nights;
    const Night* good = nullptr; // the last one that counts as a backup
    const Night* last = nullptr; // the last one that ran
    bool restorable = false;     // the good one and all that it builds on have their archives
    std::optional<DrillRecord> drill;
    double age = 0;            // seconds since the good night began
    double median_seconds = 0; // of the last 30 good nights of its level
    std::string trouble;       // why nothing is known; "" when something is
};

ServerStatus ReadServer(const std::string& configs, const std::string& name, std::time_t now) {
    const Config config = ReadConfig(configs, name);
    ServerStatus status;
    status.name = name;
    status.nights = ListOwnNights(config);
    status.drill = ReadDrill(config.directory);
    status.good = LastGood(status.nights, now + 1);
    for (const Night& night : status.nights)
        if (night.moment <= now && night.record && !night.foreign)
            status.last = &night;
    if (status.good != nullptr) {
        status.restorable = !ChainOf(status.nights, *status.good).empty();
        status.age = static_cast<double>(now - status.good->moment);
        status.median_seconds = UsualSeconds(status.nights, status.good->record->level, status.good->moment + 1);
    }
    return status;
}

// One server that cannot be read hides no other one.
ServerStatus ReadStatus(const std::string& configs, const std::string& name, std::time_t now) {
    try {
        return ReadServer(configs, name, now);
    } catch (const Failure& failure) {
        ServerStatus status;
        status.name = name;
        status.trouble = failure.what();
        return status;
    }
}

Json RecordOf(const ServerStatus& status) {
    if (status.good == nullptr)
        return {{"server", status.name},
                {"night", nullptr},
                {"level", nullptr},
                {"verdict", "none"},
                {"age_seconds", nullptr},
                {"objects", nullptr},
                {"bytes", nullptr},
                {"seconds", nullptr},
                {"missing", nullptr},
                {"newly_missing", nullptr},
                {"reason", status.trouble.empty() ? "no good night yet" : status.trouble}};
    const NightRecord& record = *status.good->record;
    return {{"server", status.name},
            {"night", status.good->Name()},
            {"level", LevelName(record.level)},
            {"verdict", VerdictName(record.verdict)},
            {"age_seconds", static_cast<std::int64_t>(status.age)},
            {"objects", record.objects},
            {"bytes", record.bytes},
            {"seconds", static_cast<std::int64_t>(record.Seconds())},
            {"missing", record.missing},
            {"newly_missing", record.newly_missing}};
}

std::vector<std::string> RowOf(const ServerStatus& status) {
    if (status.good == nullptr)
        return {status.name, "none", "", "", "", "", "", "", "", "", ""};
    const NightRecord& record = *status.good->record;
    return {status.name,
            status.good->Name(),
            ShowSpan(status.age),
            LevelName(record.level),
            VerdictName(record.verdict),
            std::to_string(record.objects),
            report::ShowBytes(static_cast<double>(record.bytes)),
            report::ShowDuration(record.Seconds()),
            report::ShowDuration(status.median_seconds),
            std::to_string(record.missing),
            std::to_string(record.newly_missing)};
}

// What the table cannot say.
void PrintRemarks(const ServerStatus& status, bool is_late, const std::string& max_age, std::time_t now) {
    const char* const name = status.name.c_str();
    if (!status.trouble.empty())
        std::printf("%s: %s\n", name, Shown(status.trouble).c_str());
    else if (status.good == nullptr)
        std::printf("%s: no good night yet\n", name);
    else if (!status.restorable)
        std::printf("%s: %s cannot be restored: an archive of it, or one that it builds on, is gone\n", name,
                    status.good->Name().c_str());
    else if (is_late)
        std::printf("%s: the last good night is older than %s\n", name, max_age.c_str());
    if (status.last != nullptr && status.last != status.good && !status.last->IsGood()) {
        const NightRecord& record = *status.last->record;
        std::printf("%s: the last night, %s, was %s: %s\n", name, status.last->Name().c_str(),
                    VerdictName(record.verdict), record.reasons.empty() ? "" : Shown(record.reasons.front()).c_str());
    }
    for (const std::string& remark : FindOddNights(status.nights, now))
        std::printf("%s: %s\n", name, remark.c_str());
    if (status.drill)
        std::printf("%s: the last drill was %s ago and %s\n", name,
                    ShowSpan(static_cast<double>(now - status.drill->moment)).c_str(),
                    status.drill->good ? "good" : "failed");
}

int Status(const std::string& configs, const StatusOptions& options) {
    const std::optional<std::int64_t> max_age = ParseDuration(options.max_age);
    if (!max_age)
        throw Failure("--max-age " + options.max_age + ": not a duration, such as 26h");
    const std::time_t now = std::time(nullptr);
    std::vector<ServerStatus> servers;
    for (const std::string& name : options.names.empty() ? ListServers(configs) : options.names)
        servers.push_back(ReadStatus(configs, name, now));
    if (servers.empty())
        throw Failure(configs + ": no server is configured");
    Json records = Json::array();
    std::vector<std::vector<std::string>> rows;
    int result = Good;
    const auto is_late = [&](const ServerStatus& server) {
        return server.good == nullptr || server.age > static_cast<double>(*max_age) || !server.restorable;
    };
    for (const ServerStatus& server : servers) {
        records.push_back(RecordOf(server));
        rows.push_back(RowOf(server));
        if (server.trouble.empty() && is_late(server))
            result = Bad;
        else if (!server.trouble.empty() && result != Bad)
            result = Trouble;
    }
    if (options.json) {
        PrintRecords(records);
        return result;
    }
    PrintTable({"server", "last good night", ">age", "level", "verdict", ">files", ">size", ">duration", ">median",
                ">missing", ">new"},
               rows);
    for (const ServerStatus& server : servers)
        PrintRemarks(server, is_late(server), options.max_age, now);
    return result;
}

} // namespace

Action DeclareStatus(CLI::App& command, const std::string& configs) {
    static StatusOptions options;
    command.add_option("NAME", options.names, "the servers; all by default");
    command.add_option("--max-age", options.max_age, "how old the last good night may be (26h)")->type_name("DURATION");
    command.add_flag("--json", options.json, "print records for programs");
    return [&configs] { return Status(configs, options); };
}

} // namespace nightly
