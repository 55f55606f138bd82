// Credentials of the run: "username:where:key" with where one of here, env, fd and file.

#pragma once

// Sets the run's user and password from the argument. Gives 0, or -1 after a message with neither of them
// set. Of a descriptor or a file only one read of at most 4095 bytes is made, and its first line counts.
int ReadCredentials(const char* argument);

// Overwrites a passphrase that stands in the argument itself, so that process listings do not show it.
void HidePassphrase(char* argument);
