// Command-line parsing shared by the load tools: --help prints and exits with 0, a bad option
// is one line on stderr and exit code 2.
#pragma once

#include <cstdio>
#include <optional>

#include <CLI/CLI.hpp>

// The exit code when the program is to stop now (after --help or a bad option); nothing when it
// goes on.
inline std::optional<int> parseOptions(CLI::App& app, int argc, char** argv, const char* program) {
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        if (e.get_exit_code() == 0)  // --help
            return app.exit(e);
        std::fprintf(stderr, "%s: %s\n", program, e.what());
        return 2;
    }
    return std::nullopt;
}
