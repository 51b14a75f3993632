// Measuring: arguments, calibration, rounds, statistics and the table on the terminal.
#include "harness.h"

#include <sched.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace bench {
namespace {

constexpr Ns kRoundNs = 1e6;
constexpr Ns kQuickRoundNs = 0.4e6;
constexpr int kRounds = 41;
constexpr int kQuickRounds = 11;
constexpr int kLeastRounds = 5;
constexpr int kTries = 4;

struct Runner {
    Contender* contender;
    std::uint64_t count;
    std::vector<Ns> samples;  // ns an operation
};

// The shortest of a few tries, since any of them may be interrupted; the first that is short enough
// settles it.
Ns time_unless_short(Contender& contender, std::uint64_t count, Ns short_ns) {
    Ns least = contender.loop(count);
    for (int i = 0; i < kTries && least >= short_ns; ++i)
        least = std::min(least, contender.loop(count));
    return least;
}

// The number of operations that take about a round. Also warms the contender up.
std::uint64_t calibrate(Contender& contender, Ns round_ns) {
    for (std::uint64_t count = 1;; count *= 2) {
        const Ns elapsed = time_unless_short(contender, count, round_ns / 2);
        if (elapsed < round_ns / 2) continue;
        const double scale = std::max(round_ns / elapsed, 1.0);
        return static_cast<std::uint64_t>(static_cast<double>(count) * scale);
    }
}

Figure figure_of(Runner& runner, Ns raw_median) {
    std::vector<Ns>& samples = runner.samples;
    std::sort(samples.begin(), samples.end());
    const Ns median = samples[samples.size() / 2];
    return {runner.contender->name, median, samples.front(),
            median / (raw_median > 0 ? raw_median : median)};
}

// Each round starts with another contender, so that none always follows the same one.
void run_rounds(std::vector<Runner>& runners, int rounds) {
    for (int round = 0; round < rounds; ++round)
        for (std::size_t turn = 0; turn < runners.size(); ++turn) {
            Runner& runner = runners[(turn + static_cast<std::size_t>(round)) % runners.size()];
            const Ns elapsed = runner.contender->loop(runner.count);
            runner.samples.push_back(elapsed / static_cast<double>(runner.count));
        }
}

void print_case(const Case& measured) {
    std::printf("  %s\n", measured.label.c_str());
    for (const Figure& figure : measured.figures)
        std::printf("    %-34s %12.1f %s  (min %12.1f)  %9.*f x\n", figure.name.c_str(),
                    figure.median, measured.unit == Unit::kTime ? "ns" : "B ", figure.minimum,
                    figure.ratio < 0.1 ? 4 : 2, figure.ratio);
    std::fflush(stdout);
}

}  // namespace

Report::Report(int argc, char** argv, Info info) : info_(std::move(info)) {
    for (int i = 1; i < argc; ++i) {
        const bool more = i + 1 < argc;
        if (std::strcmp(argv[i], "--quick") == 0)
            quick_ = true;
        else if (std::strcmp(argv[i], "--out") == 0 && more)
            out_ = argv[++i];
        else if (std::strcmp(argv[i], "--command") == 0 && more)
            command_ = argv[++i];
        else if (std::strcmp(argv[i], "--about") == 0) {
            std::printf("%-12s %s\n", info_.name.c_str(), info_.title.c_str());
            std::exit(0);
        } else {
            std::fprintf(stderr, "%s: cannot make sense of %s\n", info_.name.c_str(), argv[i]);
            std::exit(2);
        }
    }
    pin(0);
    std::printf("%s: %s\n  one operation: %s\n", info_.name.c_str(), info_.title.c_str(),
                info_.operation.c_str());
}

void Report::race(std::string group, std::string label, double x, std::vector<Contender> contenders,
                  Effort effort) {
    begin_case(group);
    const Ns round_ns = quick_ ? kQuickRoundNs : kRoundNs;
    std::vector<Runner> runners;
    for (Contender& contender : contenders) {
        if (contender.name.empty()) continue;
        const std::uint64_t count =
            effort.fixed_count != 0 ? effort.fixed_count : calibrate(contender, round_ns);
        runners.push_back({&contender, count, {}});
    }
    run_rounds(runners,
               std::max((quick_ ? kQuickRounds : kRounds) / effort.divide_rounds, kLeastRounds));
    Case measured{std::move(group), std::move(label), x, {}, Unit::kTime};
    Ns raw = 0;
    for (Runner& runner : runners) {
        measured.figures.push_back(figure_of(runner, raw));
        if (raw == 0) raw = measured.figures.front().median;
    }
    print_case(measured);
    cases_.push_back(std::move(measured));
}

void Report::compare(std::string group, std::string label, double x, std::vector<Amount> amounts) {
    begin_case(group);
    Case taken{std::move(group), std::move(label), x, {}, Unit::kBytes};
    for (const Amount& amount : amounts)
        taken.figures.push_back(
            {amount.contender, amount.bytes, amount.bytes, amount.bytes / amounts.front().bytes});
    print_case(taken);
    cases_.push_back(std::move(taken));
}

void Report::begin_case(const std::string& group) {
    if (group != group_) std::printf(" %s\n", group.c_str());
    group_ = group;
}

void Report::missing(const std::string& peer) {
    std::printf("  (%s is not here: skipped)\n", peer.c_str());
}

int Report::finish() {
    if (out_.empty()) return 0;
    write_markdown(out_ + "/" + info_.name + ".md", info_, command_, cases_);
    write_plot(out_ + "/" + info_.name + ".svg", info_, cases_);
    return 0;
}

namespace {

// The cores that the process may use, taken before the first pinning.
const cpu_set_t& allowed_cores() {
    static const cpu_set_t allowed = [] {
        cpu_set_t set;
        sched_getaffinity(0, sizeof set, &set);
        return set;
    }();
    return allowed;
}

}  // namespace

void pin(unsigned core) {
    const cpu_set_t& allowed = allowed_cores();
    unsigned left = core % static_cast<unsigned>(CPU_COUNT(&allowed));
    for (unsigned cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        if (!CPU_ISSET(cpu, &allowed) || left-- != 0) continue;
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(cpu, &one);
        sched_setaffinity(0, sizeof one, &one);
        return;
    }
}

void unpin() {
    sched_setaffinity(0, sizeof(cpu_set_t), &allowed_cores());
}

std::string size_name(std::uint64_t bytes) {
    if (bytes >= 1024 * 1024 && bytes % (1024 * 1024) == 0)
        return std::to_string(bytes / (1024 * 1024)) + " MiB";
    if (bytes >= 1024 && bytes % 1024 == 0) return std::to_string(bytes / 1024) + " KiB";
    return std::to_string(bytes) + " B";
}

std::string count_name(std::uint64_t count) {
    const std::string digits = std::to_string(count);
    std::string grouped;
    for (std::size_t i = 0; i < digits.size(); ++i) {
        if (i != 0 && (digits.size() - i) % 3 == 0) grouped += ',';
        grouped += digits[i];
    }
    return grouped;
}

}  // namespace bench
