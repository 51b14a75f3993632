// Where components are looked for, and which files and folders are trusted.
//
// No state. Functions that return strings may throw std::bad_alloc.
#pragma once

#include <sys/stat.h>

#include <string>
#include <vector>

namespace lcm {

struct Folder {
    std::string path;
    bool may_be_missing;
    bool must_be_absolute;
};

// The folders to search, in order. `callers` may be null.
std::vector<Folder> search_path(const char* callers);

// The path without links and dots; empty, with errno set, if it leads nowhere.
std::string real_path(const std::string& path);

// Why others than root and the effective user could put code into a file or folder; null if they
// could not. Links are followed.
const char* distrust(const std::string& path);
const char* distrust(const struct stat& status);

// Names of the component files of a folder, in the order of their bytes. False with errno set if
// the folder cannot be read.
bool list_components(const std::string& folder, std::vector<std::string>& names);

}  // namespace lcm
