// The command line.
#pragma once

#include <string>

#include "count.h"

namespace wordindex {

struct Options {
    std::string folder = "/usr/share/common-licenses";
    UINT32 top = 20;  // 0: all
    UINT32 buckets = 1021;
    Encoding encoding = Encoding::kUtf8;
    bool machine_readable = false;
    bool statistics = false;
    bool verbose = false;
};

// What the program ends with.
enum ExitCode {
    kDone = 0,
    kSomeUnreadable = 1,  // the rest was counted and printed
    kUsage = 2,           // bad command line, or no such folder
    kInterrupted = 130,   // by Ctrl-C; what was counted until then was printed
    kLibrary = 3,         // osal.so cannot be reached or failed, or the output did
};

// Reads the command line. False if there is nothing to do but to end with *exit_code; what was
// wrong, or the help, is printed then.
bool read_options(int argc, char** argv, Options& options, int* exit_code);

}  // namespace wordindex
