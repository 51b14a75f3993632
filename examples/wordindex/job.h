// Counting all files on the library's workers: one work item a file.
//
// Each item counts into a table of its own, which it then adds to the common one. A read/write lock
// guards what is common: items write it, the progress bar reads it. The last item ends the wait for
// them all.
#pragma once

#include <exception>
#include <list>
#include <map>
#include <vector>

#include "count.h"
#include "options.h"
#include "resources.h"
#include "vocabulary.h"
#include "walk.h"

namespace wordindex {

// How far a job is.
struct Progress {
    UINT64 files = 0;
    UINT64 bytes = 0;  // also of files that are being counted
    UINT64 all_files = 0;
    UINT64 all_bytes = 0;
};

class Job {
  public:
    Job(const Client& client, std::vector<FoundFile> files, const Options& options);

    // Counts all files, or as many as were counted until Ctrl-C. To be called once.
    void run();

    // From any thread, also during run.
    Progress progress();

    // After run.
    const Vocabulary& words() const { return words_; }
    const std::map<uid_t, Totals>& totals() const { return totals_; }  // by owner
    const std::vector<Unreadable>& unreadable() const { return unreadable_; }

  private:
    // One file: the context of its work item.
    struct Task {
        Job& job;
        const FoundFile& file;
        WorkItem item;

        Task(Job& owner, const FoundFile& found);
    };

    static void* routine(HANDLE, void* task);
    void count(const FoundFile& file);
    bool advance(std::size_t bytes);
    void finish_one();

    const Client& client_;
    const std::vector<FoundFile> files_;
    const UINT32 buckets_;
    const Encoding encoding_;
    Vocabulary words_;
    UINT32 tasks_left_;  // changed by interlocked operations
    Event all_done_;

    ReadWriteLock lock_;  // guards what follows
    std::map<uid_t, Totals> totals_;
    Progress progress_;
    std::vector<Unreadable> unreadable_;
    std::exception_ptr failure_;  // of any task: nothing goes on after it
};

}  // namespace wordindex
