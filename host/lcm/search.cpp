#include "search.h"

#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string_view>

namespace lcm {
namespace {

constexpr const char* kOwnFolder = "components";
constexpr const char* kPathVariable = "LCM_COMPONENT_PATH";
constexpr std::string_view kSuffix = ".so";

// Any object of this library: its address tells which file it was loaded from.
constexpr char kHere = 0;

struct Free {
    void operator()(void* memory) const { free(memory); }
};
struct CloseFolder {
    void operator()(DIR* folder) const { closedir(folder); }
};

// A relative path, which is refused, if this library's file is gone.
std::string own_folder() {
    Dl_info here;
    const std::string file = dladdr(&kHere, &here) != 0 ? real_path(here.dli_fname) : "";
    return file.substr(0, file.rfind('/') + 1) + kOwnFolder;
}

void add_variable(std::vector<Folder>& folders) {
    const char* value = secure_getenv(kPathVariable);
    std::string_view rest = value != nullptr ? value : "";
    while (!rest.empty()) {
        const std::size_t end = std::min(rest.find(':'), rest.size());
        if (end > 0) folders.push_back({std::string(rest.substr(0, end)), false, true});
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
}

bool is_component_name(std::string_view name) {
    return name.size() > kSuffix.size() && name.ends_with(kSuffix);
}

}  // namespace

std::vector<Folder> search_path(const char* callers) {
    std::vector<Folder> folders = {{own_folder(), true, true}};
    if (callers != nullptr) folders.push_back({callers, false, false});
    add_variable(folders);
    return folders;
}

std::string real_path(const std::string& path) {
    const std::unique_ptr<char, Free> real(realpath(path.c_str(), nullptr));
    return real != nullptr ? real.get() : "";
}

const char* distrust(const struct stat& status) {
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) return "its group or others may write it";
    if (status.st_uid != 0 && status.st_uid != geteuid())
        return "owned by neither root nor the effective user";
    return nullptr;
}

const char* distrust(const std::string& path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 ? distrust(status) : strerrordesc_np(errno);
}

bool list_components(const std::string& folder, std::vector<std::string>& names) {
    const std::unique_ptr<DIR, CloseFolder> open(opendir(folder.c_str()));
    if (open == nullptr) return false;
    errno = 0;
    while (const dirent* entry = readdir(open.get()))
        if (is_component_name(entry->d_name)) names.emplace_back(entry->d_name);
    std::sort(names.begin(), names.end());
    return errno == 0;
}

}  // namespace lcm
