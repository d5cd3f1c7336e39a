#include "commands.h"

void add_info(CLI::App&, Action&) {}
