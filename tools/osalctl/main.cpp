// osalctl: looks at osal.so and its registry from the command line.
#include <cstdio>

#include "commands.h"
#include "session.h"

namespace {

constexpr const char* kFooter =
    "Exit codes: 0 done, 1 failed, 2 wrong usage or input, 3 key or value not found.\n"
    "The registry file is the one that TSREG_FILE names, else /var/lib/orvane/registry.db for\n"
    "root and ~/.local/state/orvane/registry.db for others.\n"
    "Example: osalctl registry set wordindex BucketCount 4096 --type uint32";

int parse(CLI::App& app, int argc, char** argv) try {
    app.parse(argc, argv);
    return osalctl::kDone;
} catch (const CLI::ParseError& problem) {
    return app.exit(problem) == 0 ? osalctl::kDone : osalctl::kUsage;
}

int run(int argc, char** argv) {
    CLI::App app("Looks at osal.so and its registry.", "osalctl");
    osalctl::Options options;
    app.add_flag("--json", options.json, "Print JSON instead of text");
    app.fallthrough();
    app.require_subcommand(1);
    app.footer(kFooter);
    osalctl::add_registry_commands(app, options);
    osalctl::add_info_commands(app, options);
    return parse(app, argc, argv);
}

}  // namespace

int main(int argc, char** argv) try {
    return run(argc, argv);
} catch (const osalctl::Failure& problem) {
    std::fprintf(stderr, "osalctl: %s\n", problem.what());
    return problem.exit;
} catch (const std::exception& problem) {
    std::fprintf(stderr, "osalctl: %s\n", problem.what());
    return osalctl::kFailed;
} catch (...) {
    std::fputs("osalctl: ended by an unknown exception\n", stderr);
    return osalctl::kFailed;
}
