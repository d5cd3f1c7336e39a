#include "commands.h"

void add_record_bleep(CLI::App&, Action&) {}
