// Finding the files of a folder.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace wordindex {

struct FoundFile {
    std::string path;
    uint64_t bytes;  // when it was found
    uid_t owner;     // likewise
};

// A file or folder that could not be read, and why (an errno value).
struct Unreadable {
    std::string path;
    int error;
};

// All regular files below a folder, by name within each folder. Symbolic links are not followed,
// but for `folder` itself; a file with several names is found once. Folders that cannot be read are
// added to `unreadable`. Ctrl-C cuts the search short.
std::vector<FoundFile> find_files(const std::string& folder, std::vector<Unreadable>& unreadable);

}  // namespace wordindex
