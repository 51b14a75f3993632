// Makes the tables of a code page by asking iconv, and finds out which pages have none.
//
// A page gets tables when every byte and every unit converts the same wherever it stands. Signs of
// the contrary: a character that is held back until the next one or the end, one that leaves a
// state which has to be reset, and answers that depend on the order of the questions. Whatever is
// merely unusual (a third byte, a unit of more than two bytes) is left to the plain steps.
//
// Units are asked about in bulk: each with a zero unit behind it, as the plain steps do, so that
// zero bytes part the answers.
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <cstdlib>
#include <new>

#include "osal/linux/internal/converter.h"
#include "osal/linux/internal/escape.h"
#include "osal/linux/internal/page_tables.h"

namespace osal {
namespace {

using Block = PageTables::Block;

constexpr UINT32 kEntries = 256;
// Second bytes below are not asked about: no page in use has them.
constexpr UINT32 kFirstTrail = 0x31;
constexpr std::size_t kLongestName = 64;

constexpr Block block_of(UINT16 entry) {
    Block block = {};
    for (UINT16& each : block.entries)
        each = entry;
    return block;
}
constexpr Block kUnknown = block_of(PageTables::kAskBack);
constexpr Block kUnused = block_of(PageTables::kRefused);

// A name with a suffix would change what its converter does with what it cannot convert.
bool is_plain_name(const CHAR* page) {
    return strlen(page) < kLongestName && strpbrk(page, "/,") == nullptr;
}

bool is_no_character() {
    return errno == EILSEQ || errno == EINVAL;
}

// --- Bytes to units -------------------------------------------------------------------------

// What a first byte yields: its unit, or kLead or kAskSteps. False: the page keeps a state.
bool ask_byte(Converter& converter, UCHAR byte, UINT32& entry) {
    const UCHAR in[2] = {byte, 0};
    WCHAR alone[3];
    WCHAR ended[3];
    std::size_t alone_size = sizeof alone;
    std::size_t ended_size = sizeof ended;
    const bool is_character = converter.convert(in, 1, alone, alone_size);
    entry = !is_character && errno == EINVAL ? PageTables::kLead : PageTables::kAskSteps;
    if (!is_character && !is_no_character()) return false;
    if (converter.convert(in, 2, ended, ended_size) != is_character) return false;
    if (!is_character) return is_no_character() && alone_size == 0 && ended_size == 0;
    entry = alone[0];
    return alone_size == 2 && ended_size == 4 && ended[0] == alone[0] && ended[1] == 0;
}

// Asks about every byte, and once more in the opposite order.
bool ask_bytes(Converter& converter, UINT32 (&forward)[kEntries]) {
    for (UINT32 byte = 0; byte < kEntries; ++byte)
        if (!ask_byte(converter, static_cast<UCHAR>(byte), forward[byte])) return false;
    for (UINT32 byte = kEntries; byte-- > 0;) {
        UINT32 again;
        if (!ask_byte(converter, static_cast<UCHAR>(byte), again)) return false;
        if (again != forward[byte]) return false;
    }
    return true;
}

// Asks for the units of the second bytes behind a lead byte. False: the page keeps a state.
bool ask_trails(Converter& converter, UCHAR lead, Block& trails) {
    UCHAR in[kEntries][3];
    for (UINT32 trail = 0; trail < kEntries; ++trail) {
        in[trail][0] = lead;
        in[trail][1] = static_cast<UCHAR>(trail);
        in[trail][2] = 0;
    }
    trails = block_of(PageTables::kNoUnit);
    for (UINT32 trail = kFirstTrail; trail < kEntries; ++trail) {
        WCHAR out[kEntries][2];
        std::size_t size = sizeof out;
        const bool is_all =
            converter.convert(in[trail], sizeof in - sizeof in[0] * trail, out, size);
        const std::size_t units = size / sizeof out[0];
        if (!is_all && !is_no_character()) return false;
        if (size % sizeof out[0] != 0 || (is_all && units != kEntries - trail)) return false;
        for (std::size_t i = 0; i < units; ++i, ++trail) {
            if (out[i][1] != 0) return false;
            trails.entries[trail] = out[i][0];
        }
    }
    return true;
}

UINT32 count_leads(const UINT32 (&forward)[kEntries]) {
    UINT32 leads = 0;
    for (UINT32 entry : forward)
        if (entry == PageTables::kLead) ++leads;
    return leads;
}

bool ask_all_trails(Converter& converter, UINT32 (&forward)[kEntries], Block* trails) {
    UINT32 leads = 0;
    for (UINT32 byte = 0; byte < kEntries; ++byte) {
        if (forward[byte] != PageTables::kLead) continue;
        if (!ask_trails(converter, static_cast<UCHAR>(byte), trails[leads])) return false;
        forward[byte] += leads++;
    }
    return true;
}

// --- Units to bytes -------------------------------------------------------------------------

// The entry for what a unit converts to.
UINT16 back_entry(const UCHAR* bytes, std::size_t size) {
    if (size == 1) return bytes[0];
    // The plain steps give iconv room for four bytes, of which one is the terminator's.
    if (size == 0 || size > 3) return PageTables::kRefused;
    const UINT32 entry = UINT32{bytes[0]} << 8 | bytes[1];
    const bool is_clear = size == 2 && bytes[0] != 0 && entry < PageTables::kAskBack;
    return is_clear ? static_cast<UINT16>(entry) : PageTables::kAskBack;
}

// The entries of answers that zero bytes part. False: they are not as many as the entries.
bool part_answers(const UCHAR* answers, std::size_t size, Block& block) {
    const UCHAR* const end = answers + size;
    for (UINT16& entry : block.entries) {
        const auto left = static_cast<std::size_t>(end - answers);
        const auto* zero = static_cast<const UCHAR*>(memchr(answers, 0, left));
        if (zero == nullptr) return false;
        entry = back_entry(answers, static_cast<std::size_t>(zero - answers));
        answers = zero + 1;
    }
    return answers == end;
}

// Asks about the units of one high byte. False: the page keeps a state.
bool ask_block(const CHAR* page, UINT32 high, Block& block) {
    // Passes over what it cannot convert.
    CHAR quiet_page[kLongestName + 16];
    snprintf(quiet_page, sizeof quiet_page, "%s//IGNORE", page);
    Converter quiet(quiet_page, kWideCharset);
    if (!quiet.is_open() || !quiet.pass_byte_order_mark()) return false;
    WCHAR in[kEntries][2];
    for (UINT32 low = 0; low < kEntries; ++low) {
        in[low][0] = static_cast<WCHAR>(high << 8 | low);
        in[low][1] = 0;
    }
    if (high == 0) in[0][0] = 1;  // a zero unit would part answers; it is asked about alone
    UCHAR out[kEntries * 16];
    std::size_t size = sizeof out;
    if (!quiet.convert(in, sizeof in, out, size) && errno != EILSEQ) return false;
    if (!part_answers(out, size, block)) return false;
    if (high == 0) block.entries[0] = 0;
    return true;
}

bool is_unused(const Block& block) {
    return memcmp(&block, &kUnused, sizeof block) == 0;
}

// Whether a unit asked about alone has the same answer and leaves no state.
bool same_alone(Converter& converter, WCHAR unit, UINT16 entry) {
    const WCHAR in[2] = {unit, 0};
    UCHAR out[4];
    std::size_t size = sizeof out;
    const bool is_held = converter.convert(in, sizeof in, out, size);
    if (!is_held && errno != EILSEQ && errno != E2BIG) return false;
    const UINT16 answer = is_held && size > 0 ? back_entry(out, size - 1) : PageTables::kRefused;
    if (answer != entry) return false;
    if (!is_held) return converter.reset();
    size = sizeof out;
    return converter.convert(in, sizeof unit, out, size) && size > 0 && converter.reset();
}

// Asks again about some units of a block, in an order unlike that of the bulk: about all of the
// first block, which has those that might shift a state.
bool same_in_part(const CHAR* page, UINT32 high, const Block& block) {
    Converter converter(page, kWideCharset);
    if (!converter.is_open() || !converter.pass_byte_order_mark()) return false;
    const UINT32 step = high == 0 ? 1 : is_unused(block) ? kEntries : 32;
    for (UINT32 i = 0; i < kEntries; i += step) {
        const UINT32 low = (kEntries - 1 - i) * 37 % kEntries;
        const auto unit = static_cast<WCHAR>(high << 8 | low);
        if (!same_alone(converter, unit, block.entries[low])) return false;
    }
    return true;
}

// --- The rules of code-page text ------------------------------------------------------------

void add_rules(UINT32 (&forward)[kEntries]) {
    for (UCHAR separator : kSeparators)
        forward[separator] = separator;
    forward[UCHAR{'['}] = PageTables::kEscapeStart;
}

void add_rules(UINT32 high, Block& block) {
    if (high == 0)
        for (UCHAR separator : kSeparators)
            block.entries[separator] = separator;
    // Only the first unit is taken for a mark, and no table knows which is first.
    const WCHAR mark = high == kByteOrderMark >> 8 ? kByteOrderMark : kSwappedByteOrderMark;
    UINT16& entry = block.entries[mark & 0xFF];
    if (high == mark >> 8 && entry != PageTables::kRefused) entry = PageTables::kAskBack;
}

// Whether ASCII maps to itself, but for the bracket and at most one character, stored as odd.
template <class Entry>
bool is_ascii(const Entry (&entries)[kEntries], UCHAR& odd) {
    odd = 0xFF;
    for (UCHAR character = 0; character < 0x80; ++character) {
        const UINT32 entry = entries[character];
        if (entry == character || entry == PageTables::kEscapeStart) continue;
        if (odd != 0xFF) return false;
        odd = character;
    }
    return true;
}

// --- Tables ---------------------------------------------------------------------------------

PageTables* new_tables(const CHAR* page, const UINT32 (&forward)[kEntries]) {
    const std::size_t size = sizeof(PageTables) + count_leads(forward) * sizeof(Block);
    void* memory = std::malloc(size);
    if (memory == nullptr) return nullptr;
    auto* tables = new (memory) PageTables{};
    tables->name = page;
    tables->is_single_byte = count_leads(forward) == 0;
    memcpy(tables->forward[1], forward, sizeof forward);
    for (auto& block : tables->back)
        block.store(&kUnknown, std::memory_order_relaxed);
    return tables;
}

bool fill_forward(Converter& converter, PageTables& tables) {
    auto* trails = reinterpret_cast<Block*>(&tables + 1);
    auto& [without_euro, forward] = tables.forward;
    if (!ask_all_trails(converter, forward, trails)) return false;
    add_rules(forward);
    memcpy(without_euro, forward, sizeof forward);
    without_euro[kEuroByte] = kEuro;
    tables.widens_ascii = is_ascii(forward, tables.odd_byte);
    return true;
}

// The first block is always there: its units are those that show whether the page keeps a state.
bool fill_back(PageTables& tables) {
    Block first;
    if (!ask_block(tables.name, 0, first) || !same_in_part(tables.name, 0, first)) return false;
    if (!learn_block(tables, 0)) return false;
    tables.narrows_ascii = is_ascii(tables.back[0].load()->entries, tables.odd_unit);
    return true;
}

}  // namespace

PageTables* build_page_tables(const CHAR* page) {
    if (!is_plain_name(page)) return nullptr;
    Converter converter(kWideCharset, page);
    WCHAR mark[3];
    std::size_t size = sizeof mark;
    if (!converter.is_open() || !converter.convert("", 1, mark, size) || size != 4) return nullptr;
    UINT32 forward[kEntries];
    if (!ask_bytes(converter, forward)) return nullptr;
    PageTables* tables = new_tables(page, forward);
    if (tables == nullptr) return nullptr;
    if (fill_forward(converter, *tables) && fill_back(*tables)) return tables;
    free_page_tables(tables);
    return nullptr;
}

void free_page_tables(PageTables* tables) {
    if (tables == nullptr) return;
    for (auto& each : tables->back) {
        const Block* block = each.load(std::memory_order_acquire);
        if (block != &kUnknown && block != &kUnused) std::free(const_cast<Block*>(block));
    }
    std::free(tables);
}

bool learn_block(const PageTables& tables, UINT32 high) {
    const Block* expected = &kUnknown;
    if (tables.back[high].load(std::memory_order_acquire) != expected) return false;
    Block block;
    // A page that turns out to be otherwise here keeps to the plain steps in this block.
    if (!ask_block(tables.name, high, block) || !same_in_part(tables.name, high, block))
        return false;
    add_rules(high, block);
    if (is_unused(block)) {
        tables.back[high].store(&kUnused, std::memory_order_release);
        return true;
    }
    auto* published = static_cast<Block*>(std::malloc(sizeof(Block)));
    if (published == nullptr) return false;
    *published = block;
    // Another thread may have been faster; its block is the same.
    if (!tables.back[high].compare_exchange_strong(expected, published, std::memory_order_acq_rel))
        std::free(published);
    return true;
}

}  // namespace osal
