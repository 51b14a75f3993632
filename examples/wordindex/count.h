// Counting the words of files.
#pragma once

#include <functional>
#include <string>

#include "word_table.h"

namespace wordindex {

// How the bytes of a file are read. Values of CodePage.
enum class Encoding : UINT32 { kOem = KX_CODE_PAGE_OEM, kUtf8 = KX_CODE_PAGE_UTF8 };

struct Totals {
    UINT64 files = 0;
    UINT64 bytes = 0;
    UINT64 words = 0;

    Totals& operator+=(const Totals& other) {
        files += other.files;
        bytes += other.bytes;
        words += other.words;
        return *this;
    }
};

// Counts the words of one file into an empty table.
//
// A word is a maximal run of letters: the ASCII ones, and what the process locale calls letters of
// the other 16-bit characters. A file is converted in pieces, which bytes up to the space separate;
// a piece that does not convert counts by its ASCII letters only. Words are upper-cased.
//
// Reports each piece read to `go_on`, which may end the count
// by returning false. Returns 0, the errno value of what could not be opened or read, or ECANCELED;
// unless 0, table and totals hold what came before and should be dropped.
int count_file(const Client& client, const std::string& path, Encoding encoding, WordTable& table,
               Totals& totals, const std::function<bool(std::size_t bytes)>& go_on);

}  // namespace wordindex
