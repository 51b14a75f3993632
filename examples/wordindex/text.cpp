#include "text.h"

#include <stdio.h>

namespace wordindex {
namespace {

bool is_control(unsigned char byte, unsigned char before) {
    return byte < 0x20 || byte == 0x7F || (before == 0xC2 && byte >= 0x80 && byte < 0xA0);
}

}  // namespace

std::string to_oem(const Client& client, WideText text) {
    if (text.empty()) return {};
    std::string bytes(text.size() * 6, 0);  // no unit takes more: an escape
    UINT32 size = static_cast<UINT32>(bytes.size());
    const KCSTATUS status = client.call<&IOsalVtbl::KxWideCharToMultiByte>(
        KX_CODE_PAGE_OEM, text.data(), static_cast<INT32>(text.size()), bytes.data(), &size);
    if (KC_IS_ERROR(status)) throw failure("cannot convert to the OEM code page", status);
    bytes.resize(size);
    return bytes;
}

std::vector<WCHAR> from_oem(const Client& client, const std::string& text) {
    std::vector<WCHAR> units(text.size() + 1);  // no character takes less than a byte
    UINT32 length = static_cast<UINT32>(units.size());
    if (text.empty()) return units;
    const KCSTATUS status = client.call<&IOsalVtbl::KxMultiByteToWideChar>(
        KX_CODE_PAGE_OEM, text.data(), static_cast<INT32>(text.size()), units.data(), &length);
    if (KC_IS_ERROR(status)) throw failure("cannot convert from the OEM code page", status);
    units.resize(length + 1);
    return units;
}

std::string printable(std::string_view text) {
    std::string shown;
    unsigned char before = 0;
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        char escape[5] = {character};
        if (is_control(byte, before)) snprintf(escape, sizeof escape, "\\x%02X", byte);
        shown += escape;
        before = byte;
    }
    return shown;
}

}  // namespace wordindex
