// The conversions by their plain steps. No state: each call opens and closes its own converter.
#include "osal/linux/internal/locale_literal.h"

#include <errno.h>
#include <string.h>
#include <syslog.h>

#include <bit>

#include "osal/linux/internal/converter.h"
#include "osal/linux/internal/escape.h"

namespace osal::literal {
namespace {

constexpr int kDone = 0;
constexpr int kFailed = -1;
constexpr UINT32 kLongestInPage = 3;
constexpr UINT32 kLongestSequence = 7;

// Takes multi-byte characters to units one at a time.
class ToWide {
  public:
    explicit ToWide(const char* page) : converter_(kWideCharset, page) {}
    bool is_open() const { return converter_.is_open(); }

    // Converts a sequence of bytes, followed by a zero byte, to one unit. False: errno says why.
    bool convert(const UCHAR* sequence, UINT32 length, WCHAR& unit) {
        UCHAR in[kLongestSequence + 1] = {};
        WCHAR out[3] = {};
        std::size_t room = sizeof out;
        memcpy(in, sequence, length);
        if (!converter_.convert(in, length + 1, out, room)) return false;
        // The converter puts a byte-order mark before its first character.
        unit = out[fresh_ ? 1 : 0];
        fresh_ = false;
        return true;
    }

  private:
    Converter converter_;
    bool fresh_ = true;
};

// Takes units to multi-byte characters one at a time.
class FromWide {
  public:
    explicit FromWide(const char* page) : converter_(page, kWideCharset) {
        if (is_open()) converter_.pass_byte_order_mark();
    }
    bool is_open() const { return converter_.is_open(); }

    // Whether the unit would be taken for a byte-order mark, being the first one.
    bool is_mark(WCHAR unit) const {
        return fresh_ && (unit == kByteOrderMark || unit == kSwappedByteOrderMark);
    }
    void skip_mark() { fresh_ = false; }

    // Converts a unit, followed by a zero unit. room: bytes of out, on return those of the
    // character without its terminator, 0 if there is none.
    bool convert(WCHAR unit, UCHAR* out, std::size_t& room) {
        const WCHAR in[2] = {unit, 0};
        fresh_ = false;
        if (!converter_.convert(in, sizeof in, out, room)) return false;
        if (room > 0) --room;
        return true;
    }

  private:
    Converter converter_;
    bool fresh_ = true;
};

// Converts the shortest sequence that is a character of the page. Returns its length, 0 for none.
UINT32 convert_shortest(ToWide& converter, const UCHAR* in, UINT32 left, WCHAR& unit) {
    for (UINT32 length = 1; length <= kLongestInPage && length <= left; ++length) {
        if (converter.convert(in, length, unit)) return length;
        if (errno != EILSEQ && errno != EINVAL) return 0;
    }
    return 0;
}

// One step of loc_to_uni: the bytes consumed for one unit, 0 for a failure.
UINT32 read_unit(ToWide& converter, BOOLEAN supports_euro, const UCHAR* in, UINT32 left,
                 WCHAR& unit) {
    const UCHAR byte = *in;
    if (byte == '[') return static_cast<UINT32>(read_bracket(in, left, unit));
    if (is_separator(byte)) {
        unit = byte;
        return 1;
    }
    if (byte == kEuroByte && !supports_euro) {
        unit = kEuro;
        return 1;
    }
    return convert_shortest(converter, in, left, unit);
}

// The bytes of one unit: bytes has room for an escape. Returns their number.
std::size_t write_unit(FromWide& converter, WCHAR unit, UCHAR* bytes) {
    if (is_separator(unit)) {
        *bytes = static_cast<UCHAR>(unit);
        return 1;
    }
    if (converter.is_mark(unit)) {
        converter.skip_mark();
        return write_refused(unit, bytes);
    }
    std::size_t size = 4;
    // A converter that yields nothing but the terminator does not hold the unit either.
    return converter.convert(unit, bytes, size) && size > 0 ? size : write_refused(unit, bytes);
}

int not_open(const char* message) {
    syslog(LOG_USER | LOG_ERR, "%s", message);
    return kFailed;
}

int done(UINT32* count, UINT32 produced) {
    *count = produced;
    return kDone;
}

}  // namespace

UINT32 utf8_sequence_length(UCHAR first) {
    const auto ones = static_cast<UINT32>(std::countl_one(first));
    if (ones == 0) return 1;
    return ones < kLongestSequence ? ones : kLongestSequence;
}

int loc_to_uni(const CHAR* page, BOOLEAN supports_euro, const CHAR* in, UINT32 length, WCHAR* out,
               UINT32* count) {
    const auto* bytes = reinterpret_cast<const UCHAR*>(in);
    const UINT32 capacity = *count;
    *count = 0;
    ToWide converter(page);
    if (!converter.is_open()) not_open("LocToUni: Unable to open conversion descriptor\n");
    // Contract: nothing converts to nothing even if the page does not exist.
    if (length == 0) return kDone;
    if (!converter.is_open()) return kFailed;
    UINT32 produced = 0;
    for (UINT32 consumed = 0; consumed < length;) {
        if (produced == capacity) return kFailed;
        const UINT32 step =
            read_unit(converter, supports_euro, bytes + consumed, length - consumed, out[produced]);
        if (step == 0) return kFailed;
        consumed += step;
        ++produced;
    }
    return done(count, produced);
}

int uni_to_loc(const CHAR* page, const WCHAR* in, UINT32 length, CHAR* out, UINT32* count) {
    const UINT32 capacity = *count;
    *count = 0;
    FromWide converter(page);
    if (!converter.is_open()) return not_open("UniToLoc: Unable to open conversion descriptor\n");
    UINT32 produced = 0;
    for (UINT32 i = 0; i < length; ++i) {
        UCHAR bytes[kEscapeLength];
        const std::size_t size = write_unit(converter, in[i], bytes);
        // Contract: reaching the capacity fails, also with the last unit.
        if (size >= capacity - produced) return kFailed;
        memcpy(out + produced, bytes, size);
        produced += static_cast<UINT32>(size);
    }
    return done(count, produced);
}

int utf8_to_uni(const CHAR* in, UINT32 length, WCHAR* out, UINT32* count) {
    const auto* bytes = reinterpret_cast<const UCHAR*>(in);
    const UINT32 capacity = *count;
    *count = 0;
    ToWide converter("UTF-8");
    if (!converter.is_open()) return not_open("Utf8ToUni: Unable to open conversion descriptor\n");
    UINT32 produced = 0;
    for (UINT32 consumed = 0; consumed < length; ++produced) {
        const UINT32 step = utf8_sequence_length(bytes[consumed]);
        if (produced == capacity || step > length - consumed) return kFailed;
        if (!converter.convert(bytes + consumed, step, out[produced])) return kFailed;
        consumed += step;
    }
    return done(count, produced);
}

int uni_to_utf8(const WCHAR* in, UINT32 length, CHAR* out, UINT32* count) {
    const UINT32 capacity = *count;
    *count = 0;
    FromWide converter("UTF-8");
    if (!converter.is_open()) return not_open("UniToUtf8: Unable to open conversion descriptor\n");
    UINT32 produced = 0;
    for (UINT32 i = 0; i < length; ++i) {
        UCHAR bytes[8];
        std::size_t size = 0;
        if (converter.is_mark(in[i])) {
            // Contract: a byte-order mark at the start is dropped; a swapped one is no character.
            converter.skip_mark();
            if (in[i] == kSwappedByteOrderMark) return kFailed;
        } else {
            size = sizeof bytes;
            if (!converter.convert(in[i], bytes, size)) return kFailed;
        }
        // Contract: reaching the capacity fails, also with the last unit.
        if (size >= capacity - produced) return kFailed;
        memcpy(out + produced, bytes, size);
        produced += static_cast<UINT32>(size);
    }
    return done(count, produced);
}

}  // namespace osal::literal
