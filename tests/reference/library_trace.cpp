// Prints the trace of scenario scripts as the library plays them, for fuzz_compare.py:
//     library_trace SCRIPT OUTPUT ...
#include "../session_trace.h"

int main(int argc, char** argv) {
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string path = argv[i];
        session_trace::Trace trace(path.substr(0, path.find_last_of('/')));
        std::ifstream script(path);
        std::ofstream output(argv[i + 1]);
        for (std::string line; std::getline(script, line);) {
            if (line.rfind("> ", 0) != 0)
                continue;
            output << line << "\n";
            for (const auto& text : trace.operation(line.substr(2)))
                output << text << "\n";
            output.flush();
        }
    }
    return 0;
}
