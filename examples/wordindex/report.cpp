#include "report.h"

#include <inttypes.h>
#include <pwd.h>
#include <stdio.h>

#include <algorithm>

namespace wordindex {
namespace {

bool ranks_before(const Word* a, const Word* b) {
    return a->count != b->count ? a->count > b->count : a->view() < b->view();
}

std::vector<const Word*> top_words(const WordTable& table, UINT32 top) {
    std::vector<const Word*> words = table.words();
    const std::size_t shown = top == 0 ? words.size() : std::min<std::size_t>(top, words.size());
    std::partial_sort(words.begin(), words.begin() + static_cast<std::ptrdiff_t>(shown),
                      words.end(), ranks_before);
    words.resize(shown);
    return words;
}

// One line of the list. What the terminal's page does not hold comes as escapes.
struct Line {
    UINT64 count;
    std::string word;
};

std::string user_name(uid_t user) {
    const passwd* known = getpwuid(user);
    return known != nullptr ? known->pw_name : std::to_string(user);
}

std::string counted(UINT64 count, const char* what) {
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

void print_figures(const Totals& totals, UINT64 distinct) {
    printf("%s, %s, %s, %" PRIu64 " distinct", counted(totals.files, "file").c_str(),
           counted(totals.bytes, "byte").c_str(), counted(totals.words, "word").c_str(), distinct);
}

void print_for_people(const Client& client, const Summary& summary,
                      const std::vector<Line>& lines) {
    for (const Line& line : lines)
        printf("%10" PRIu64 "  %s\n", line.count, line.word.c_str());
    if (!lines.empty()) puts("");
    for (const auto& [user, owner] : summary.owners) {
        printf("%s: ", user_name(user).c_str());
        print_figures(owner.totals, owner.distinct);
        if (owner.distinct != 0) printf(", most often %s", to_oem(client, owner.top_word).c_str());
        puts("");
    }
    print_figures(summary.totals, summary.words.distinct());
    const double ms = static_cast<double>(summary.elapsed_100ns) / 1e4;
    printf(", %.1f ms (%.1f MB/s)\n", ms,
           ms > 0 ? static_cast<double>(summary.totals.bytes) / 1e3 / ms : 0);
}

void print_for_machines(const Client&, const Summary& summary, const std::vector<Line>& lines) {
    printf("files\t%" PRIu64 "\nbytes\t%" PRIu64 "\nwords\t%" PRIu64 "\ndistinct\t%" PRIu64
           "\nelapsed_us\t%" PRIu64 "\n",
           summary.totals.files, summary.totals.bytes, summary.totals.words,
           summary.words.distinct(), summary.elapsed_100ns / 10);
    for (const auto& [user, owner] : summary.owners)
        printf("owner\t%u\t%" PRIu64 "\t%" PRIu64 "\t%" PRIu64 "\t%" PRIu64 "\n", user,
               owner.totals.files, owner.totals.bytes, owner.totals.words, owner.distinct);
    puts("");
    for (const Line& line : lines)
        printf("%" PRIu64 "\t%s\n", line.count, line.word.c_str());
}

}  // namespace

bool print_report(const Client& client, const Options& options, const Summary& summary) {
    const auto print = options.machine_readable ? print_for_machines : print_for_people;
    std::vector<Line> lines;
    for (const Word* word : top_words(summary.words, options.top))
        lines.push_back({word->count, to_oem(client, word->view())});
    print(client, summary, lines);
    return fflush(stdout) == 0;
}

}  // namespace wordindex
