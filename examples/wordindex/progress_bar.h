// A progress bar on a terminal, redrawn by a timer of the library.
#pragma once

#include <atomic>

#include "job.h"

namespace wordindex {

// Draws on standard error for as long as it lives, and wipes itself out at the end.
class ProgressBar {
  public:
    ProgressBar(const Client& client, Job& job);
    ~ProgressBar();
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

  private:
    static void* tick(HANDLE, void* bar);
    void draw() const;

    const Client& client_;
    Job& job_;
    const UINT64 start_100ns_;
    std::atomic<bool> ending_ = false;
    Event last_tick_;
    Timer timer_;
};

}  // namespace wordindex
