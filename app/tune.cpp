#include "commands.h"

void add_tune(CLI::App&, Action&) {}
