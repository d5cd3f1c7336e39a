// dnnvad: the command line of the program.
#include <CLI/CLI.hpp>
#include <cstdio>

#include "program.h"

namespace {

int run(int argc, char** argv) {
    CLI::App program(
        "Finds out when people start and stop speaking.\n"
        "dnnvad COMMAND --help tells about a command; man dnnvad about all.",
        "dnnvad");
    program.require_subcommand(1);
    program.fallthrough();
    program.set_version_flag("--version", "dnnvad " DNNVAD_VERSION);
    std::string library_log;
    program
        .add_option("--library-log", library_log,
                    "Append the library's diagnostic lines to this file")
        ->type_name("FILE");
    program.failure_message([](const CLI::App*, const CLI::Error& error) {
        return std::string("dnnvad: ") + error.what() + " (--help tells more)\n";
    });
    Action action;
    for (const auto add :
         {add_detect, add_live, add_plot, add_tune, add_info, add_bench, add_record_bleep}) {
        add(program, action);
    }
    if (argc > 1 && *argv[1] != '-' &&
        program.get_subcommands([&](CLI::App* command) { return command->check_name(argv[1]); })
            .empty()) {
        throw UsageError(format("there is no command '%s'; dnnvad --help lists them", argv[1]));
    }
    try {
        program.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return program.exit(error) == 0 ? 0 : 2;
    }
    claim_output(library_log);
    const int status = action();
    finish_output();
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    prepare_process();
    try {
        return run(argc, argv);
    } catch (const UsageError& error) {
        std::fprintf(stderr, "dnnvad: %s\n", error.what());
        return 2;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "dnnvad: %s\n", error.what());
        return 1;
    }
}
