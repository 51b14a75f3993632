#include "file.h"

#include <fcntl.h>
#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tsreg {
namespace {

constexpr mode_t kFileMode = 0600;
constexpr mode_t kFolderMode = 0700;
constexpr std::size_t kPasswordSize = 4096;

const char* environment(const char* name) {
    const char* value = secure_getenv(name);
    return value != nullptr && *value != '\0' ? value : nullptr;
}

bool fits(int length) {
    return length > 0 && static_cast<std::size_t>(length) < kPathSize;
}

bool in_home(char (&path)[kPathSize]) {
    constexpr const char* kFormat = "%s/.local/state/orvane/registry.db";
    if (const char* home = environment("HOME"))
        return fits(snprintf(path, kPathSize, kFormat, home));
    passwd entry;
    passwd* found = nullptr;
    char buffer[kPasswordSize];
    if (getpwuid_r(geteuid(), &entry, buffer, sizeof buffer, &found) != 0 || found == nullptr)
        return false;
    return fits(snprintf(path, kPathSize, kFormat, found->pw_dir));
}

}  // namespace

bool choose_file(char (&path)[kPathSize]) {
    if (const char* file = environment("TSREG_FILE"))
        return fits(snprintf(path, kPathSize, "%s", file));
    if (geteuid() == 0) return fits(snprintf(path, kPathSize, "%s", "/var/lib/orvane/registry.db"));
    if (const char* state = environment("XDG_STATE_HOME"))
        return fits(snprintf(path, kPathSize, "%s/orvane/registry.db", state));
    return in_home(path);
}

void make_file(const char* path) {
    char folder[kPathSize];
    strcpy(folder, path);
    for (char* slash = strchr(folder + 1, '/'); slash != nullptr; slash = strchr(slash + 1, '/')) {
        *slash = '\0';
        mkdir(folder, kFolderMode);
        *slash = '/';
    }
    // Only a file that is new is opened here: closing a descriptor of one that SQLite has open
    // would drop its locks.
    const int descriptor = open(path, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kFileMode);
    if (descriptor >= 0) close(descriptor);
}

}  // namespace tsreg
