// The commands of the tool. Each adds itself to the command line.
#pragma once

#include <CLI/CLI.hpp>

namespace osalctl {

struct Options {
    bool json = false;
};

void add_registry_commands(CLI::App& app, const Options& options);
void add_info_commands(CLI::App& app, const Options& options);

}  // namespace osalctl
