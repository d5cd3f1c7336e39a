#include "commands.h"

void add_live(CLI::App&, Action&) {}
