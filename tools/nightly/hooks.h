// Commands of the operator that a night runs.

#pragma once

#include "config.h"
#include "run.h"

namespace nightly {

// Runs the commands one after the other, each with NIGHT, VERDICT, SUMMARY, PAGE, LOG and SERVER in its environment.
// One that fails or takes too long is reported on standard error and changes nothing.
void RunHooks(const Config& config, HookKind kind, const HookFacts& facts);

} // namespace nightly
