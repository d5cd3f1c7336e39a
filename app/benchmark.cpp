#include "commands.h"

void add_bench(CLI::App&, Action&) {}
