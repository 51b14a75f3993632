// One iconv converter, open for a scope.
#pragma once

#include <iconv.h>

#include <cstddef>

#include "osal/types.h"

namespace osal {

// The iconv name of the wide side: UTF-16 without surrogates in native byte order, which reads and
// writes a byte-order mark at its start.
inline constexpr char kWideCharset[] = "UNICODE";

inline constexpr WCHAR kByteOrderMark = 0xFEFF;
inline constexpr WCHAR kSwappedByteOrderMark = 0xFFFE;

class Converter {
  public:
    // A null name is one that iconv does not know.
    Converter(const char* to, const char* from)
        : handle_(to != nullptr && from != nullptr ? iconv_open(to, from) : closed()) {}
    ~Converter() {
        if (is_open()) iconv_close(handle_);
    }
    Converter(const Converter&) = delete;
    Converter& operator=(const Converter&) = delete;

    bool is_open() const { return handle_ != closed(); }

    // One call of iconv. room: bytes of out, on return the bytes written. False: errno says why.
    bool convert(const void* in, std::size_t in_size, void* out, std::size_t& room) {
        auto* source = static_cast<char*>(const_cast<void*>(in));
        auto* target = static_cast<char*>(out);
        std::size_t left = room;
        const std::size_t result = iconv(handle_, &source, &in_size, &target, &left);
        room -= left;
        return result != static_cast<std::size_t>(-1);
    }

    // With its mark behind it, a converter from the wide side takes no unit for one: U+FFFE would
    // make it read everything after it in the other byte order.
    bool pass_byte_order_mark() {
        char nothing[4];
        std::size_t room = sizeof nothing;
        return convert(&kByteOrderMark, sizeof kByteOrderMark, nothing, room) && room == 0;
    }

    // Returns to the initial state. True: the converter was in it.
    bool reset() {
        char bytes[16];
        char* target = bytes;
        std::size_t left = sizeof bytes;
        iconv(handle_, nullptr, nullptr, &target, &left);
        return target == bytes;
    }

  private:
    static iconv_t closed() { return reinterpret_cast<iconv_t>(-1); }

    const iconv_t handle_;
};

}  // namespace osal
