#include "word_table.h"

namespace wordindex {

WordTable::WordTable(const Client& client, UINT32 buckets)
    : client_(client), buckets_(buckets, PoolAllocator<LIST_ENTRY>(client)) {
    for (LIST_ENTRY& bucket : buckets_)
        client_.call<&IOsalVtbl::KxInitializeListHead>(&bucket);
}

WordTable::~WordTable() {
    for (LIST_ENTRY& bucket : buckets_)
        while (PLIST_ENTRY entry = client_.call<&IOsalVtbl::KxRemoveHeadList>(&bucket))
            client_.call<&IOsalVtbl::KxFreeMemory>(Word::of(entry));
}

void WordTable::add(WideText text, UINT64 occurrences) {
    const PLIST_ENTRY bucket = bucket_of(text.data());
    Word* word = find(bucket, text);
    if (word == nullptr) {
        word = make(text);
        client_.call<&IOsalVtbl::KxInsertHeadList>(bucket, &word->link);
        ++distinct_;
    }
    word->count += occurrences;
}

std::vector<const Word*> WordTable::words() const {
    std::vector<const Word*> all;
    all.reserve(distinct_);
    for (const LIST_ENTRY& bucket : buckets_)
        for (PLIST_ENTRY entry = bucket.Flink; entry != &bucket; entry = entry->Flink)
            all.push_back(Word::of(entry));
    return all;
}

PLIST_ENTRY WordTable::bucket_of(const WCHAR* text) {
    return &buckets_[client_.call<&IOsalVtbl::KxStrHashW>(text, UINT32(buckets_.size()))];
}

Word* WordTable::find(PLIST_ENTRY bucket, WideText word) {
    for (PLIST_ENTRY entry = bucket->Flink; entry != bucket; entry = entry->Flink)
        if (Word::of(entry)->view() == word) return Word::of(entry);
    return nullptr;
}

Word* WordTable::make(WideText text) {
    const std::size_t text_size = (text.size() + 1) * sizeof(WCHAR);
    const std::size_t size = sizeof(Word) + text_size;
    void* block = nullptr;
    if (size <= UINT32_MAX) block = client_.call<&IOsalVtbl::KxAllocPagedMemory>(UINT32(size));
    if (block == nullptr) throw std::bad_alloc();
    Word* word = new (block) Word{{}, 0, UINT32(text.size())};
    client_.call<&IOsalVtbl::KxCopyMemory>(PVOID{word + 1}, static_cast<const void*>(text.data()),
                                           UINT32(text_size));
    return word;
}

}  // namespace wordindex
