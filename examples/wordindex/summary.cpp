#include "summary.h"

namespace wordindex {
namespace {

void add_word(OwnerSummary& owner, const OwnedWord& word) {
    ++owner.distinct;
    if (word.count < owner.top_count ||
        (word.count == owner.top_count && word.text > owner.top_word))
        return;
    owner.top_count = word.count;
    owner.top_word = word.text;
}

}  // namespace

void summarize(const Job& job, Summary& summary) {
    for (const auto& [owner, totals] : job.totals()) {
        summary.owners[owner].totals = totals;
        summary.totals += totals;
    }
    job.words().for_each([&](const OwnedWord& word) {
        add_word(summary.owners[word.owner], word);
        summary.words.add(word.text, word.count);
    });
}

}  // namespace wordindex
