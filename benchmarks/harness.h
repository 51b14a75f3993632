// Races: contenders doing the same work, taken in turns round by round in one run, so that a change
// of clock or load meets all of them alike.
//
// A subject is a program. Its main() makes a Report and calls race() once for each case, with the
// raw primitive as the first contender; set-up and clean-up are plain code around the call. The
// report prints a table while it measures, and with --out also writes NAME.md and NAME.svg.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <type_traits>
#include <vector>

namespace bench {

using Ns = double;

// Makes the compiler believe that a value is used and that any memory may have changed.
template <class T>
inline void keep(const T& value) {
    asm volatile("" : : "r,m"(value) : "memory");
}

inline Ns now() {
    return static_cast<Ns>(std::chrono::steady_clock::now().time_since_epoch().count());
}

// One way of doing the work. The loop does the operation n times; a loop that returns Ns times
// itself, and leaves out what is not to be counted.
struct Contender {
    std::string name;
    std::function<Ns(std::uint64_t)> loop;

    template <class Loop>
    Contender(std::string contender, Loop work) : name(std::move(contender)) {
        if constexpr (std::is_void_v<std::invoke_result_t<Loop, std::uint64_t>>) {
            loop = [work](std::uint64_t n) mutable {
                const Ns begin = now();
                work(n);
                return now() - begin;
            };
        } else {
            loop = work;
        }
    }
};

struct Figure {
    std::string name;
    Ns median;
    Ns minimum;
    double ratio;  // of the medians, to the first contender
};

enum class Unit { kTime, kBytes };

struct Case {
    std::string group;  // what the cases of one plot have in common
    std::string label;
    double x;  // place on the plot's axis
    std::vector<Figure> figures;
    Unit unit = Unit::kTime;
};

// Something that is not a time: bytes that a contender uses.
struct Amount {
    std::string contender;
    double bytes;
};

struct Info {
    std::string name;       // of the subject and its files
    std::string title;      // one line
    std::string operation;  // what one operation is
    std::string notes;      // more for the reader of the table, if need be
    std::string x_axis;     // empty: no axis, the plot shows ratios
};

// Numbers that rarely need another choice.
struct Effort {
    std::uint64_t fixed_count = 0;  // operations a round instead of a calibrated number
    int divide_rounds = 1;          // for rounds that take long
};

class Report {
  public:
    // Takes the program's arguments: [--quick] [--out DIR] [--command TEXT] [--about].
    Report(int argc, char** argv, Info info);

    // Measures one case. Null contenders (empty name) are left out, so that a peer that this
    // machine lacks may be passed as Contender("", ...).
    void race(std::string group, std::string label, double x, std::vector<Contender> contenders,
              Effort effort = {});

    // Enters a case of amounts that the caller took.
    void compare(std::string group, std::string label, double x, std::vector<Amount> amounts);

    bool quick() const { return quick_; }

    // Says that a peer is missing.
    void missing(const std::string& peer);

    // Writes the files if they were asked for; the result is that of the program.
    int finish();

  private:
    void begin_case(const std::string& group);

    Info info_;
    bool quick_ = false;
    std::string out_;
    std::string command_;
    std::string group_;
    std::vector<Case> cases_;
};

// "64 B", "4 KiB", "1 MiB".
std::string size_name(std::uint64_t bytes);
// "1,000,000".
std::string count_name(std::uint64_t count);

// Pins the calling thread to a core of those that the process may use, counted round. A report
// pins its thread to the first; threads that are started later are pinned with it.
void pin(unsigned core);
// Undoes it: for subjects whose threads are to run beside each other.
void unpin();

// Files of a report.
void write_markdown(const std::string& path, const Info& info, const std::string& command,
                    const std::vector<Case>& cases);
void write_plot(const std::string& path, const Info& info, const std::vector<Case>& cases);

}  // namespace bench
