#include "commands.h"

void add_plot(CLI::App&, Action&) {}
