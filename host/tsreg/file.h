// Where the registry file lies, and its making.
#pragma once

#include <cstddef>

namespace tsreg {

constexpr std::size_t kPathSize = 4096;

// Writes the path of the file. False: it is too long, or there is no home folder to put it in.
bool choose_file(char (&path)[kPathSize]);

// Makes the file, empty, and the folders on the way to it, unless they exist. Failures show when
// the file is opened.
void make_file(const char* path);

}  // namespace tsreg
