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

constexpr UINT32 kMostBuckets = 1u << 24;

}  // namespace

bool read_options(int argc, char** argv, Options& options, int* exit_code) {
    CLI::App app(kPurpose, "wordindex");
    app.footer(kExitCodes);
    app.add_option("-f,--folder,folder", options.folder, "Folder to index")
        ->check(CLI::ExistingDirectory)
        ->capture_default_str();
    app.add_option("-n,--top", options.top, "Words to print; 0 prints all")->capture_default_str();
    app.add_option("-b,--buckets", options.buckets, "Hash buckets of the word table")
        ->check(CLI::Range(1u, kMostBuckets))
        ->capture_default_str();
    app.add_option("-e,--encoding", options.encoding,
                   "Encoding of the files: utf-8, or oem for the code page of the locale")
        ->transform(CLI::CheckedTransformer(
            std::map<std::string, Encoding>{{"utf-8", Encoding::kUtf8}, {"oem", Encoding::kOem}}))
        ->default_str("utf-8");
    app.add_flag("-m,--machine-readable", options.machine_readable,
                 "Print \"name<TAB>number\" lines for the totals, an empty line, and\n"
                 "\"count<TAB>word\" lines; the totals end with a line for each owner:\n"
                 "\"owner<TAB>user id<TAB>files<TAB>bytes<TAB>words<TAB>distinct\"");
    app.add_flag("-s,--stats", options.statistics,
                 "Print the library's usage counters and objects to standard error");
    try {
        app.parse(argc, argv);
        return true;
    } catch (const CLI::ParseError& error) {
        *exit_code = app.exit(error) == 0 ? kDone : kUsage;
        return false;
    }
}

}  // namespace wordindex
