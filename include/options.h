// The command line: the table of options, their effect on the run-wide settings, and the usage text.

#pragma once

#include "settings.h"

// Reads the options into the settings and logs everything that is wrong with them at once. Returns 0 when a run may
// start, else -1 after the usage text. Overwrites a passphrase in `argv`.
int ParseCommandLine(int argc, char** argv, Settings& settings);

// Handles one result of getopt_long with its argument, if any. Returns 0, or the error state that follows from it.
int HandleOption(int result, char* argument, Settings& settings);

void Usage();
