#include "job.h"

#include <errno.h>

#include <algorithm>
#include <new>
#include <utility>

#include "interrupt.h"

namespace wordindex {
namespace {

constexpr UINT32 kBucketsOfFile = 1021;  // or fewer, when that is asked for

std::set<uid_t> owners_of(const std::vector<FoundFile>& files) {
    std::set<uid_t> owners;
    for (const FoundFile& file : files)
        owners.insert(file.owner);
    return owners;
}

}  // namespace

Job::Task::Task(Job& owner, const FoundFile& found)
    : job(owner), file(found), item(owner.client_, &Job::routine, this) {}

Job::Job(const Client& client, std::vector<FoundFile> files, const Options& options)
    : client_(client),
      files_(std::move(files)),
      buckets_(options.buckets),
      encoding_(options.encoding),
      words_(client, options.buckets, owners_of(files_)),
      tasks_left_(static_cast<UINT32>(files_.size())),
      all_done_(client),
      lock_(client) {
    progress_.all_files = files_.size();
    for (const FoundFile& file : files_)
        progress_.all_bytes += file.bytes;
}

void Job::run() {
    std::list<Task> tasks;
    for (const FoundFile& file : files_)
        tasks.emplace_back(*this, file);
    // Nothing below fails: an item that is queued has to run before it may go.
    for (const Task& task : tasks)
        task.item.schedule();
    if (!tasks.empty()) all_done_.wait();
    if (failure_) std::rethrow_exception(failure_);
    std::sort(unreadable_.begin(), unreadable_.end(),
              [](const Unreadable& a, const Unreadable& b) { return a.path < b.path; });
}

Progress Job::progress() {
    ReadAccess access(lock_);
    return progress_;
}

// The last thing that a task does is to tell that it is done: the job may be gone after that.
void* Job::routine(HANDLE, void* context) {
    const Task& task = *static_cast<const Task*>(context);
    Job& job = task.job;
    try {
        job.count(task.file);
    } catch (const std::exception&) {
        WriteAccess access(job.lock_);
        job.failure_ = std::current_exception();
    }
    job.finish_one();
    return nullptr;
}

void Job::count(const FoundFile& file) {
    if (!advance(0)) return;
    WordTable words(client_, std::min(buckets_, kBucketsOfFile));
    Totals of_file;
    const int error = count_file(client_, file.path, encoding_, words, of_file,
                                 [this](std::size_t bytes) { return advance(bytes); });
    if (error == 0) words_.add(file.owner, words);
    WriteAccess access(lock_);
    ++progress_.files;
    if (error == ECANCELED) return;
    if (error != 0) {
        unreadable_.push_back({file.path, error});
        return;
    }
    totals_[file.owner] += of_file;
}

// False if there is no point in going on.
bool Job::advance(std::size_t bytes) {
    WriteAccess access(lock_);
    progress_.bytes += bytes;
    return !failure_ && !interrupted();
}

void Job::finish_one() {
    if (client_.call<&IOsalVtbl::KxInterlockedDecrement>(&tasks_left_) == 0) all_done_.signal();
}

}  // namespace wordindex
