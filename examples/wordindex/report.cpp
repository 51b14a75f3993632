#include "report.h"

#include <inttypes.h>
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

std::string in_terminals_page(const Client& client, WideText word) {
    std::string text(word.size() * 6, 0);  // no unit takes more: an escape
    UINT32 size = static_cast<UINT32>(text.size());
    const KCSTATUS status = client.call<&IOsalVtbl::KxWideCharToMultiByte>(
        KX_CODE_PAGE_OEM, word.data(), static_cast<INT32>(word.size()), text.data(), &size);
    if (KC_IS_ERROR(status)) throw failure("cannot print a word", status);
    text.resize(size);
    return text;
}

void print_for_people(const Totals& totals, UINT64 distinct, UINT64 elapsed_100ns,
                      const std::vector<Line>& lines) {
    for (const Line& line : lines)
        printf("%10" PRIu64 "  %s\n", line.count, line.word.c_str());
    const double ms = static_cast<double>(elapsed_100ns) / 1e4;
    printf("%s%" PRIu64 " files, %" PRIu64 " bytes, %" PRIu64 " words, %" PRIu64
           " distinct, %.1f ms (%.1f MB/s)\n",
           lines.empty() ? "" : "\n", totals.files, totals.bytes, totals.words, distinct, ms,
           ms > 0 ? static_cast<double>(totals.bytes) / 1e3 / ms : 0);
}

void print_for_machines(const Totals& totals, UINT64 distinct, UINT64 elapsed_100ns,
                        const std::vector<Line>& lines) {
    printf("files\t%" PRIu64 "\nbytes\t%" PRIu64 "\nwords\t%" PRIu64 "\ndistinct\t%" PRIu64
           "\nelapsed_us\t%" PRIu64 "\n\n",
           totals.files, totals.bytes, totals.words, distinct, elapsed_100ns / 10);
    for (const Line& line : lines)
        printf("%" PRIu64 "\t%s\n", line.count, line.word.c_str());
}

}  // namespace

bool print_report(const Client& client, const Options& options, const Totals& totals,
                  const WordTable& table, UINT64 elapsed_100ns) {
    const auto print = options.machine_readable ? print_for_machines : print_for_people;
    std::vector<Line> lines;
    for (const Word* word : top_words(table, options.top))
        lines.push_back({word->count, in_terminals_page(client, word->view())});
    print(totals, table.distinct(), elapsed_100ns, lines);
    return fflush(stdout) == 0;
}

}  // namespace wordindex
