#include "hooks.h"

#include <cstdio>

#include "process.h"

namespace nightly {

namespace {

const std::vector<std::string>& CommandsFor(const Hooks& hooks, HookKind kind) {
    switch (kind) {
    case HookKind::Start:
        return hooks.on_start;
    case HookKind::Success:
        return hooks.on_success;
    case HookKind::Failure:
        break;
    }
    return hooks.on_failure;
}

} // namespace

void RunHooks(const Config& config, HookKind kind, const HookFacts& facts) {
    for (const std::string& text : CommandsFor(config.hooks, kind)) {
        Command command;
        command.arguments = {"/bin/sh", "-c", text};
        command.environment = {{"SERVER", config.name},    {"NIGHT", facts.night}, {"VERDICT", facts.verdict},
                               {"SUMMARY", facts.summary}, {"PAGE", facts.page},   {"LOG", facts.log}};
        command.heeds_stop = false; // it tells that the run was stopped
        command.limit = static_cast<double>(config.hooks.limit);
        const int status = RunCommand(command);
        if (status != 0)
            std::fprintf(stderr, "vondral-nightly: hook \"%s\" ended with %d%s\n", text.c_str(), status,
                         status == 137 ? " (killed; hooks.limit is its time)" : "");
    }
}

} // namespace nightly
