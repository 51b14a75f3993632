// Words and how often each occurred.
//
// Words are upper-cased 16-bit text. They lie in pool memory, linked into hash buckets. A table is
// used by one thread at a time.
#pragma once

#include <vector>

#include "text.h"

namespace wordindex {

// One word of a table, which allocates and frees it. The text follows the record, zero-terminated.
struct Word {
    LIST_ENTRY link;  // of its bucket; the first field
    UINT64 count;
    UINT32 length;  // units, without the terminator

    const WCHAR* text() const { return reinterpret_cast<const WCHAR*>(this + 1); }
    WideText view() const { return {text(), length}; }
    static Word* of(PLIST_ENTRY entry) { return reinterpret_cast<Word*>(entry); }
};

class WordTable {
  public:
    WordTable(const Client& client, UINT32 buckets);
    ~WordTable();
    WordTable(const WordTable&) = delete;
    WordTable& operator=(const WordTable&) = delete;

    // Counts one occurrence, or as many as given. A zero must follow the word.
    void add(WideText word, UINT64 occurrences = 1);

    UINT64 distinct() const { return distinct_; }

    // All words, in no order; valid as long as the table is not changed.
    std::vector<const Word*> words() const;

  private:
    PLIST_ENTRY bucket_of(const WCHAR* text);
    static Word* find(PLIST_ENTRY bucket, WideText word);
    Word* make(WideText word);

    const Client& client_;
    std::vector<LIST_ENTRY, PoolAllocator<LIST_ENTRY>> buckets_;
    UINT64 distinct_ = 0;
};

}  // namespace wordindex
