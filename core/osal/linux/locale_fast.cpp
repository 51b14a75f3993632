// Conversion of a code page by its tables.
//
// Runs of ASCII go sixteen at a time; between them, up to sixteen characters go by the tables
// before the next run is tried.
#include "osal/linux/internal/locale_fast.h"

#include "osal/linux/internal/converter.h"
#include "osal/linux/internal/cursor.h"
#include "osal/linux/internal/escape.h"

namespace osal::fast {
namespace {

// Characters that go by the tables before a run is tried again.
constexpr std::size_t kBatch = 16;

using Forward = UINT32[256];

// Takes a batch of bytes up to the first that is no unit, and returns how many.
std::size_t pass_batch(const Forward& forward, const UCHAR* in, WCHAR* out) {
#pragma GCC unroll 16
    for (std::size_t i = 0; i < kBatch; ++i) {
        const UINT32 entry = forward[in[i]];
        if (entry >= PageTables::kUnits) return i;
        out[i] = static_cast<WCHAR>(entry);
    }
    return kBatch;
}

void pass_unit_batches(const Forward& forward, ToWide& at) {
    std::size_t passed = kBatch;
    while (passed == kBatch && std::min(at.left(), at.room()) >= kBatch) {
        passed = pass_batch(forward, at.in, at.out);
        at.advance(passed);
    }
}

// Takes up to count characters of one or two bytes, which are there with room for their units.
// Stops before one that the tables do not have.
void pass_units(const PageTables& tables, const Forward& forward, ToWide& at, std::size_t count) {
    const UCHAR* in = at.in;
    WCHAR* out = at.out;
    for (; count > 0; --count) {
        const UINT32 entry = forward[*in];
        if (entry < PageTables::kUnits) {
            *out++ = static_cast<WCHAR>(entry);
            ++in;
            continue;
        }
        if (entry >= PageTables::kEscapeStart) break;
        const UINT16 unit = tables.trails()[entry - PageTables::kLead].entries[in[1]];
        if (unit == PageTables::kNoUnit) break;
        *out++ = unit;
        in += 2;
    }
    at.in = in;
    at.out = out;
}

// Takes the character of an entry. The input and the room are not used up.
Step pass_entry(const PageTables& tables, UINT32 entry, ToWide& at) {
    UINT32 length = 1;
    if (entry >= PageTables::kEscapeStart) return Step::kUndecided;
    if (entry >= PageTables::kLead) {
        if (at.left() < 2) return Step::kFailed;
        entry = tables.trails()[entry - PageTables::kLead].entries[at.in[1]];
        if (entry == PageTables::kNoUnit) return Step::kUndecided;
        length = 2;
    }
    *at.out++ = static_cast<WCHAR>(entry);
    at.in += length;
    return Step::kGoOn;
}

Step pass_unit(const PageTables& tables, const Forward& forward, ToWide& at) {
    if (at.room() == 0) return Step::kFailed;
    const UINT32 entry = forward[*at.in];
    if (entry == PageTables::kEscapeStart) {
        at.in += read_bracket(at.in, at.left(), *at.out++);
        return Step::kGoOn;
    }
    return pass_entry(tables, entry, at);
}

// Writes the bytes of an entry to out, which has room for two, and returns how many.
std::size_t put(UINT16 entry, UCHAR* out) {
    if (entry < 0x100) {
        out[0] = static_cast<UCHAR>(entry);
        return 1;
    }
    out[0] = static_cast<UCHAR>(entry >> 8);
    out[1] = static_cast<UCHAR>(entry);
    return 2;
}

UINT16 entry_of(const PageTables& tables, WCHAR unit) {
    return tables.back[unit >> 8].load(std::memory_order_acquire)->entries[unit & 0xFF];
}

// Takes a batch of units at once, as long as each is a byte.
void pass_byte_batches(const PageTables& tables, FromWide& at) {
    while (at.left() >= kBatch && at.room() > kBatch) {
        UCHAR bytes[kBatch];
        UINT32 entries = 0;
        for (std::size_t i = 0; i < kBatch; ++i) {
            const UINT32 entry = entry_of(tables, at.in[i]);
            entries |= entry;
            bytes[i] = static_cast<UCHAR>(entry);
        }
        if (entries >= 0x100) return;
        std::memcpy(at.out, bytes, sizeof bytes);
        at.advance(kBatch);
    }
}

// Takes up to count units, which are there with room for two bytes each. Stops before one that the
// tables do not have.
void pass_bytes(const PageTables& tables, FromWide& at, std::size_t count) {
    const WCHAR* in = at.in;
    UCHAR* out = at.out;
    for (; count > 0; --count) {
        const UINT16 entry = entry_of(tables, *in);
        if (entry >= PageTables::kAskBack) break;
        out += put(entry, out);
        ++in;
    }
    at.in = in;
    at.out = out;
}

// Takes a unit, or learns about it so that the next call can.
Step pass_character(const PageTables& tables, FromWide& at) {
    const UINT16 entry = entry_of(tables, *at.in);
    if (entry == PageTables::kAskBack)
        return learn_block(tables, *at.in >> 8) ? Step::kGoOn : Step::kUndecided;
    UCHAR bytes[kEscapeLength];
    const std::size_t size =
        entry == PageTables::kRefused ? write_refused(*at.in, bytes) : put(entry, bytes);
    return append(at, bytes, size);
}

}  // namespace

Outcome page_to_wide(const PageTables& tables, bool supports_euro, const CHAR* in, UINT32 length,
                     WCHAR* out, UINT32& count) {
    ToWide at = start(in, length, out, count);
    const Forward& forward = tables.forward[supports_euro];
    const Stops stops('[', tables.odd_byte);
    while (at.in != at.in_end) {
        if (tables.widens_ascii) pass_run(at, stops);
        if (tables.is_single_byte) pass_unit_batches(forward, at);
        pass_units(tables, forward, at, std::min({at.left() / 2, at.room(), kBatch}));
        if (at.in == at.in_end) break;
        const Step step = pass_unit(tables, forward, at);
        if (step != Step::kGoOn) return outcome_of(step);
    }
    count = static_cast<UINT32>(at.out - out);
    return Outcome::kDone;
}

Outcome wide_to_page(const PageTables& tables, const WCHAR* in, UINT32 length, CHAR* out,
                     UINT32& count) {
    FromWide at = start(in, length, out, count);
    const Stops stops(tables.odd_unit);
    while (at.in != at.in_end) {
        if (tables.narrows_ascii) pass_run(at, stops);
        if (tables.is_single_byte) pass_byte_batches(tables, at);
        if (at.room() > 0)
            pass_bytes(tables, at, std::min({at.left(), (at.room() - 1) / 2, kBatch}));
        if (at.in == at.in_end) break;
        const Step step = pass_character(tables, at);
        if (step != Step::kGoOn) return outcome_of(step);
    }
    count = static_cast<UINT32>(at.out - reinterpret_cast<UCHAR*>(out));
    return Outcome::kDone;
}

}  // namespace osal::fast
