// The program's commands. Each adds itself to the command line and runs when it is chosen.
#ifndef DNNVAD_APP_COMMANDS_H
#define DNNVAD_APP_COMMANDS_H

#include <functional>

namespace CLI {
class App;
}

// What runs after the command line has been read; returns the exit status.
using Action = std::function<int()>;

void add_detect(CLI::App& program, Action& action);
void add_live(CLI::App& program, Action& action);
void add_plot(CLI::App& program, Action& action);
void add_tune(CLI::App& program, Action& action);
void add_info(CLI::App& program, Action& action);
void add_bench(CLI::App& program, Action& action);
void add_record_bleep(CLI::App& program, Action& action);

#endif
