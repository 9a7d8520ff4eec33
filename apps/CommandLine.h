// Reading a program's command line: CLI11 parses it, then the program's own check turns what
// was given into settings. Shared by the programs and the load tools.
#pragma once

#include <cstdio>
#include <optional>

#include <CLI/CLI.hpp>

#include "AppOptions.h"

namespace AppOptions {

// Parses the command line, then calls check(), which may throw BadOption for a value it
// refuses. The exit code when the program is to stop now: 0 after --help or --version, 2 after
// a bad option, told in one line on stderr that starts with the program's name; nothing when
// it goes on.
template <typename Check>
std::optional<int> parseCommandLine(CLI::App& app, int argc, char** argv, const char* program,
                                    Check check) {
    try {
        app.parse(argc, argv);
        check();
    } catch (const CLI::ParseError& e) {
        if (e.get_exit_code() == 0)  // --help, --version
            return app.exit(e);
        std::fprintf(stderr, "%s: %s\n", program, e.what());
        return 2;
    } catch (const BadOption& e) {
        std::fprintf(stderr, "%s: %s\n", program, e.what());
        return 2;
    }
    return std::nullopt;
}

}  // namespace AppOptions
