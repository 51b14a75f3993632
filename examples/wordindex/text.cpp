#include "text.h"

namespace wordindex {

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

}  // namespace wordindex
