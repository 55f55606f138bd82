#include "settings.h"

Settings RunSettings;
int StderrIsTerminal = 0;
int PageSize = 4096;
