// What the program is told to do: by the command line, else by the registry.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "count.h"

namespace wordindex {

constexpr UINT32 kMostBuckets = 1u << 24;

struct Options {
    std::string folder = "/usr/share/common-licenses";
    UINT32 top = 20;  // 0: all
    UINT32 buckets = 1021;
    Encoding encoding = Encoding::kUtf8;
    bool machine_readable = false;
    bool statistics = false;
    bool verbose = false;
};

// Those options that may come from several places.
struct Settings {
    std::optional<std::string> folder;
    std::optional<UINT32> top;
    std::optional<UINT32> buckets;
    std::optional<Encoding> encoding;
};

// Changes the options that are set.
void apply(const Settings& settings, Options& options);

const std::map<std::string, Encoding>& encodings();

// What the program ends with.
enum ExitCode {
    kDone = 0,
    kSomeUnreadable = 1,  // the rest was counted and printed
    kUsage = 2,           // bad command line, or no such folder
    kInterrupted = 130,   // by Ctrl-C; what was counted until then was printed
    kLibrary = 3,         // osal.so cannot be reached or failed, or the output did
};

// Reads the command line; what others may set, and were not set by it, is left out. False if there
// is nothing to do but to end with *exit_code; what was wrong, or the help, is printed then.
bool read_options(int argc, char** argv, Options& options, Settings& settings, int* exit_code);

}  // namespace wordindex
