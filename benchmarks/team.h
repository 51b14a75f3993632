// Threads that start together, do the same number of operations and are timed each on its own.
#pragma once

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

#include "harness.h"

namespace bench {

class Team {
  public:
    // Threads are spread over so many cores.
    explicit Team(unsigned size, unsigned cores = ~0u) : elapsed_(size) {
        for (unsigned who = 0; who < size; ++who)
            threads_.emplace_back([this, who, cores] {
                pin(who % cores);
                serve(who);
            });
    }
    ~Team() {
        work_ = nullptr;
        release();
        for (std::thread& thread : threads_)
            thread.join();
    }
    Team(const Team&) = delete;
    Team& operator=(const Team&) = delete;

    // Runs work(who) on every thread; returns the mean of their times.
    Ns run(const std::function<void(unsigned)>& work) {
        work_ = &work;
        done_.store(0);
        arrived_.store(0);
        release();
        for (unsigned done; (done = done_.load()) != elapsed_.size();)
            done_.wait(done);
        Ns sum = 0;
        for (Ns elapsed : elapsed_)
            sum += elapsed;
        return sum / static_cast<double>(threads_.size());
    }

  private:
    void release() {
        ++round_;
        round_.notify_all();
    }

    void serve(unsigned who) {
        for (unsigned seen = 0;; ++seen) {
            round_.wait(seen);
            if (work_ == nullptr) return;
            // The last steps to the start are spun, so that the threads really overlap.
            for (++arrived_; arrived_.load() != elapsed_.size();)
                sched_yield();
            const Ns begin = now();
            (*work_)(who);
            elapsed_[who] = now() - begin;
            ++done_;
            done_.notify_all();
        }
    }

    std::vector<std::thread> threads_;
    std::vector<Ns> elapsed_;
    const std::function<void(unsigned)>* work_ = nullptr;
    std::atomic<unsigned> round_{0}, arrived_{0}, done_{0};
};

}  // namespace bench
