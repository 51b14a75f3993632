// Tables that convert one code page without iconv, though they are made by it.
//
// Only a page whose characters convert one by one, each the same wherever it stands, has tables;
// what little of it does not fit them is left to the plain steps, entry by entry.
#pragma once

#include <atomic>

#include "osal/types.h"

namespace osal {

// Made by build_page_tables, freed by free_page_tables. Everything but back is constant in between.
// back starts empty but for its first block; whoever misses a block makes and publishes it, so
// start-up does not ask about 65536 units of which a process uses a few hundred.
struct PageTables {
    // An entry of forward: a unit, or one of these.
    static constexpr UINT32 kUnits = 0x10000;        // everything below is a unit
    static constexpr UINT32 kLead = 0x10000;         // plus the number of a block of trails
    static constexpr UINT32 kEscapeStart = 0x20000;  // the opening bracket
    static constexpr UINT32 kAskSteps = 0x20001;     // for the plain steps to decide
    // An entry of trails: a unit, or a surrogate, which no page yields, for the plain steps.
    static constexpr UINT16 kNoUnit = 0xD800;
    // An entry of back: a byte, two bytes with the first one high, or one of these.
    static constexpr UINT16 kRefused = 0xFFFF;  // the page does not hold the unit
    static constexpr UINT16 kAskBack = 0xFFFE;  // for the plain steps to decide

    struct Block {
        UINT16 entries[256];
    };

    const CHAR* name;
    // By first byte. The first one is for callers without a euro sign, who read kEuroByte as one.
    UINT32 forward[2][256];
    bool is_single_byte;  // no byte is a lead byte
    bool widens_ascii;    // ASCII bytes are their units, but for odd_byte and the bracket
    bool narrows_ascii;   // ASCII units are their bytes, but for odd_unit
    UCHAR odd_byte;       // 0xFF: none
    UCHAR odd_unit;       // 0xFF: none

    // By high byte, each by low byte: never null. Changes once from the block of unknown units,
    // which are all for the plain steps, to that of its units.
    mutable std::atomic<const Block*> back[256];

    // By number, each by second byte. One for each lead byte, behind the record.
    const Block* trails() const { return reinterpret_cast<const Block*>(this + 1); }
};

// Null: the page is not one for tables, or there is no memory for them. The name is not copied.
PageTables* build_page_tables(const CHAR* page);
void free_page_tables(PageTables* tables);

// Makes the block of a high byte. Safe on any thread. False: there is nothing to learn, or no
// memory for it.
bool learn_block(const PageTables& tables, UINT32 high);

}  // namespace osal
