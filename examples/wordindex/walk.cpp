#include "walk.h"

#include <errno.h>
#include <fts.h>
#include <string.h>
#include <sys/stat.h>

#include <memory>
#include <set>
#include <utility>

#include "interrupt.h"

namespace wordindex {
namespace {

struct CloseWalk {
    void operator()(FTS* walk) const { fts_close(walk); }
};

int by_name(const FTSENT** a, const FTSENT** b) {
    return strcmp((*a)->fts_name, (*b)->fts_name);
}

// Tells files with several names apart from those seen under another.
class Names {
  public:
    bool is_first(const struct stat& file) {
        return file.st_nlink == 1 || seen_.emplace(file.st_dev, file.st_ino).second;
    }

  private:
    std::set<std::pair<dev_t, ino_t>> seen_;
};

}  // namespace

std::vector<FoundFile> find_files(const std::string& folder, std::vector<Unreadable>& unreadable) {
    std::vector<FoundFile> files;
    Names names;
    std::string root = folder;
    char* roots[] = {root.data(), nullptr};
    const std::unique_ptr<FTS, CloseWalk> walk(
        fts_open(roots, FTS_PHYSICAL | FTS_COMFOLLOW | FTS_NOCHDIR, by_name));
    if (walk == nullptr) {
        unreadable.push_back({folder, errno});
        return files;
    }
    while (const FTSENT* entry = interrupted() ? nullptr : fts_read(walk.get()))
        switch (entry->fts_info) {
            case FTS_F:
                if (names.is_first(*entry->fts_statp))
                    files.push_back({entry->fts_path, uint64_t(entry->fts_statp->st_size),
                                     entry->fts_statp->st_uid});
                break;
            case FTS_DNR:
            case FTS_ERR:
            case FTS_NS:
                unreadable.push_back({entry->fts_path, entry->fts_errno});
                break;
            default:
                break;
        }
    return files;
}

}  // namespace wordindex
