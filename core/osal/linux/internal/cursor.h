// Positions of a conversion in its input and output.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "osal/linux/internal/ascii_run.h"
#include "osal/linux/internal/locale_fast.h"

namespace osal::fast {

enum class Step { kGoOn, kFailed, kUndecided };

inline Outcome outcome_of(Step step) {
    return step == Step::kUndecided ? Outcome::kUndecided : Outcome::kFailed;
}

template <class In, class Out>
struct Cursor {
    const In* in;
    const In* in_end;
    Out* out;
    Out* out_end;

    std::size_t left() const { return static_cast<std::size_t>(in_end - in); }
    std::size_t room() const { return static_cast<std::size_t>(out_end - out); }
    void advance(std::size_t count) {
        in += count;
        out += count;
    }
};
using ToWide = Cursor<UCHAR, WCHAR>;
using FromWide = Cursor<WCHAR, UCHAR>;

inline ToWide start(const CHAR* in, UINT32 length, WCHAR* out, UINT32 capacity) {
    const auto* bytes = reinterpret_cast<const UCHAR*>(in);
    return {bytes, bytes + length, out, out + capacity};
}
inline FromWide start(const WCHAR* in, UINT32 length, CHAR* out, UINT32 capacity) {
    auto* bytes = reinterpret_cast<UCHAR*>(out);
    return {in, in + length, bytes, bytes + capacity};
}

inline void pass_run(ToWide& at, const Stops& stops) {
    at.advance(widen_run(at.in, std::min(at.left(), at.room()), at.out, stops));
}

// Output of bytes stays below its capacity.
inline void pass_run(FromWide& at, const Stops& stops) {
    const std::size_t room = at.room();
    if (room == 0) return;
    at.advance(narrow_run(at.in, std::min(at.left(), room - 1), at.out, stops));
}

// Writes the bytes of one unit, which is taken, too.
inline Step append(FromWide& at, const UCHAR* bytes, std::size_t size) {
    // Contract: reaching the capacity fails, also with the last unit.
    if (size >= at.room()) return Step::kFailed;
    std::memcpy(at.out, bytes, size);
    at.out += size;
    ++at.in;
    return Step::kGoOn;
}

}  // namespace osal::fast
