#include "registry_key.h"

#include <string.h>

namespace wordindex {
namespace {

const WCHAR* wide(const char16_t* name) {
    return reinterpret_cast<const WCHAR*>(name);
}

std::string narrow(const char16_t* name) {
    return {name, name + std::char_traits<char16_t>::length(name)};
}

bool is_missing(KCSTATUS status) {
    return KC_IS_ERROR(status) && KC_FACILITY(status) == KC_FACILITY_REGISTRY &&
           KC_CODE(status) == KC_CODE_INVALID_HANDLE;
}

}  // namespace

struct RegistryKey::Value {
    // Room for the longest path.
    union {
        KX_KEY_VALUE_INFORMATION record;
        char bytes[16384];
    };

    const char* data() const { return bytes + record.ValueOffset; }
};

RegistryKey::RegistryKey(const Client& owner, const char16_t* name, Use use) : Owned(owner) {
    const KCSTATUS status =
        use == Use::kWrite
            ? client.call<&IOsalVtbl::KxCreateKey>(wide(name), KX_KEY_ACCESS{KX_KEY_ALL_ACCESS},
                                                   &handle)
            : client.call<&IOsalVtbl::KxOpenKey>(wide(name), KX_KEY_ACCESS{KX_KEY_READ}, &handle);
    if (KC_IS_ERROR(status) && !(use == Use::kRead && is_missing(status)))
        throw failure("registry key " + narrow(name), status);
}

std::optional<UINT32> RegistryKey::number(const char16_t* name) const {
    Value value;
    if (!query(name, KX_REG_UINT32, value)) return {};
    UINT32 number;
    memcpy(&number, value.data(), sizeof number);
    return number;
}

std::optional<std::string> RegistryKey::text(const char16_t* name) const {
    Value value;
    if (!query(name, KX_REG_SZ, value)) return {};
    std::vector<WCHAR> units(value.record.ValueLength / sizeof(WCHAR));
    memcpy(units.data(), value.data(), units.size() * sizeof(WCHAR));
    if (!units.empty()) units.pop_back();  // the terminator
    return to_oem(client, {units.data(), units.size()});
}

void RegistryKey::set_number(const char16_t* name, UINT64 value) const {
    set(name, KX_REG_UINT64, &value, sizeof value);
}

void RegistryKey::set_text(const char16_t* name, const std::string& value) const {
    const std::vector<WCHAR> units = from_oem(client, value);
    set(name, KX_REG_SZ, units.data(), units.size() * sizeof(WCHAR));
}

bool RegistryKey::query(const char16_t* name, KX_REG_TYPE type, Value& value) const {
    if (handle == nullptr) return false;
    UINT32 size = 0;
    const KCSTATUS status = client.call<&IOsalVtbl::KxQueryValueKey>(
        handle, wide(name), PVOID{value.bytes}, UINT32{sizeof value.bytes}, &size);
    if (is_missing(status)) return false;
    if (KC_IS_ERROR(status)) throw failure("registry value " + narrow(name), status);
    if (value.record.ValueType != type)
        throw Failure("registry value " + narrow(name) + " is of the wrong type");
    return true;
}

bool RegistryKey::holds(const char16_t* name, KX_REG_TYPE type, const void* data,
                        std::size_t size) const {
    Value value;
    UINT32 used = 0;
    const KCSTATUS status = client.call<&IOsalVtbl::KxQueryValueKey>(
        handle, wide(name), PVOID{value.bytes}, UINT32{sizeof value.bytes}, &used);
    return !KC_IS_ERROR(status) && value.record.ValueType == type &&
           value.record.ValueLength == size && memcmp(value.data(), data, size) == 0;
}

// A value is written only if it changes: a write waits for the disk.
void RegistryKey::set(const char16_t* name, KX_REG_TYPE type, const void* data,
                      std::size_t size) const {
    if (holds(name, type, data, size)) return;
    const KCSTATUS status = client.call<&IOsalVtbl::KxSetValueKey>(handle, wide(name), type, data,
                                                                   static_cast<UINT32>(size));
    if (KC_IS_ERROR(status)) throw failure("registry value " + narrow(name), status);
}

}  // namespace wordindex
