#include "options.h"

#include <CLI/CLI.hpp>
#include <map>
#include <string>

namespace wordindex {
namespace {

constexpr const char* kPurpose =
    "Counts the words of all files below a folder and prints the most frequent ones.\n"
    "A word is a run of letters, as the locale has them; case does not count. Symbolic links "
    "below\n"
    "the folder are not followed, and a file with several names counts once.\n";

constexpr const char* kExitCodes =
    "\nExit status: 0 all counted; 1 some files or folders could not be read, the rest was "
    "counted;\n"
    "2 bad command line or no such folder; 3 the library or the output failed; 130 ended by "
    "Ctrl-C, the files counted\n"
    "until then are reported.";

constexpr const char* kRegistry =
    "\nThe registry key wordindex may hold the settings Buckets and Top (numbers) and Encoding "
    "(text).\n"
    "wordindex\\LastRun holds the folder and the figures of the last run; while it exists, that "
    "folder is\n"
    "the default. Options given here win.\n";

template <class T>
void override_with(const std::optional<T>& chosen, T& value) {
    if (chosen) value = *chosen;
}

}  // namespace

const std::map<std::string, Encoding>& encodings() {
    static const std::map<std::string, Encoding> all = {{"utf-8", Encoding::kUtf8},
                                                        {"oem", Encoding::kOem}};
    return all;
}

void apply(const Settings& settings, Options& options) {
    override_with(settings.folder, options.folder);
    override_with(settings.top, options.top);
    override_with(settings.buckets, options.buckets);
    override_with(settings.encoding, options.encoding);
}

bool read_options(int argc, char** argv, Options& options, Settings& settings, int* exit_code) {
    CLI::App app(kPurpose, "wordindex");
    app.footer(std::string(kRegistry) + kExitCodes);
    app.add_option("-f,--folder,folder", settings.folder, "Folder to index")
        ->check(CLI::ExistingDirectory)
        ->default_str(options.folder);
    app.add_option("-n,--top", settings.top, "Words to print; 0 prints all")
        ->default_str(std::to_string(options.top));
    app.add_option("-b,--buckets", settings.buckets, "Hash buckets of the word table")
        ->check(CLI::Range(1u, kMostBuckets))
        ->default_str(std::to_string(options.buckets));
    app.add_option("-e,--encoding", settings.encoding,
                   "Encoding of the files: utf-8, or oem for the code page of the locale")
        ->transform(CLI::CheckedTransformer(encodings()))
        ->default_str("utf-8");
    app.add_flag("-m,--machine-readable", options.machine_readable,
                 "Print \"name<TAB>number\" lines for the totals, an empty line, and\n"
                 "\"count<TAB>word\" lines; the totals end with a line for each owner:\n"
                 "\"owner<TAB>user id<TAB>files<TAB>bytes<TAB>words<TAB>distinct\"");
    app.add_flag("-s,--stats", options.statistics,
                 "Print the library's usage counters and objects to standard error");
    app.add_flag("-v,--verbose", options.verbose, "Tell what is wrong with the registry");
    try {
        app.parse(argc, argv);
        return true;
    } catch (const CLI::ParseError& error) {
        *exit_code = app.exit(error) == 0 ? kDone : kUsage;
        return false;
    }
}

}  // namespace wordindex
