#include "progress_bar.h"

#include <inttypes.h>
#include <stdio.h>

#include <algorithm>

namespace wordindex {
namespace {

constexpr UINT64 kInterval_us = 100'000;
constexpr int kWidth = 30;
constexpr const char* kWipeLine = "\r\033[K";

}  // namespace

ProgressBar::ProgressBar(const Client& client, Job& job)
    : client_(client),
      job_(job),
      start_100ns_(now_100ns(client)),
      last_tick_(client),
      timer_(client, &ProgressBar::tick, this) {
    timer_.arm(kInterval_us);
}

// A timer whose routine runs cannot be cancelled: it then ticks once more and tells so.
ProgressBar::~ProgressBar() {
    ending_ = true;
    if (!timer_.cancel()) last_tick_.wait();
    fputs(kWipeLine, stderr);
}

void* ProgressBar::tick(HANDLE, void* context) {
    auto& bar = *static_cast<ProgressBar*>(context);
    if (bar.ending_) {
        bar.last_tick_.signal();
    } else {
        bar.draw();
        bar.timer_.arm(kInterval_us);
    }
    return nullptr;
}

void ProgressBar::draw() const {
    const Progress now = job_.progress();
    const double seconds = static_cast<double>(now_100ns(client_) - start_100ns_) / 1e7;
    const double part =
        now.all_bytes != 0
            ? std::min(1.0, static_cast<double>(now.bytes) / static_cast<double>(now.all_bytes))
            : 1.0;
    char bar[kWidth + 1] = {};
    std::fill_n(bar, kWidth, ' ');
    std::fill_n(bar, static_cast<int>(part * kWidth), '#');
    fprintf(stderr, "%s[%s] %3.0f%%  %" PRIu64 "/%" PRIu64 " files  %.1f MB  %.1f MB/s  ",
            kWipeLine, bar, part * 100, now.files, now.all_files,
            static_cast<double>(now.bytes) / 1e6, static_cast<double>(now.bytes) / 1e6 / seconds);
    if (part > 0) fprintf(stderr, "%.0f s left", seconds / part - seconds);
}

}  // namespace wordindex
