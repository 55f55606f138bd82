// The command line: the table of options, their effect on the run-wide settings, and the usage text.

#pragma once

// Reads the options into RunSettings, reporting everything that is wrong with them at once. Gives 0 when a
// run may start; else -1 after messages and the usage text. Overwrites a passphrase in `argv`.
int ParseCommandLine(int argc, char** argv);

// Handles one result of getopt_long with its argument, if any. Gives 0, or the error state it leads to.
int HandleOption(int result, char* argument);

void Usage();
