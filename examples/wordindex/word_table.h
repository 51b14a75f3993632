// Words and how often each occurred.
//
// A word is a maximal run of ASCII letters, in lower case. Words lie in pool memory, linked into
// hash buckets. A table is used by one thread at a time.
#pragma once

#include <string_view>
#include <vector>

#include "client.h"

namespace wordindex {

// One word of a table, which allocates and frees it. The text follows the record, zero-terminated.
struct Word {
    LIST_ENTRY link;  // of its bucket; the first field
    UINT64 count;
    UINT32 length;  // bytes, without the terminator

    char* text() { return reinterpret_cast<char*>(this + 1); }
    std::string_view view() const { return {reinterpret_cast<const char*>(this + 1), length}; }
    static Word* of(PLIST_ENTRY entry) { return reinterpret_cast<Word*>(entry); }
};

class WordTable {
  public:
    WordTable(const Client& client, UINT32 buckets);
    ~WordTable();
    WordTable(const WordTable&) = delete;
    WordTable& operator=(const WordTable&) = delete;

    // Counts one occurrence. `word` must be terminated by a zero behind its end.
    void add(std::string_view word);

    // Takes all words of another table, which is empty afterwards.
    void absorb(WordTable& other);

    UINT64 distinct() const { return distinct_; }
    UINT32 buckets() const { return static_cast<UINT32>(buckets_.size()); }

    // All words, in no order; valid as long as the table is not changed.
    std::vector<const Word*> words() const;

  private:
    PLIST_ENTRY bucket_of(const char* text);
    static Word* find(PLIST_ENTRY bucket, std::string_view word);
    Word* make(std::string_view word);
    void take(Word* word);

    const Client& client_;
    std::vector<LIST_ENTRY, PoolAllocator<LIST_ENTRY>> buckets_;
    UINT64 distinct_ = 0;
};

}  // namespace wordindex
