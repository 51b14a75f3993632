#include "support/registry_stand_in.h"

#include <algorithm>
#include <cstring>
#include <sstream>
#include <utility>

namespace osal_test {
namespace {

RegistryStandIn* current = nullptr;

std::string text(const void* address) {
    return address != nullptr ? "&" : "0";
}
std::string text(const char* string) {
    if (string == nullptr) return "0";
    std::string quoted("\"");
    return quoted.append(string).append("\"");
}
std::string text(UINT32 number) {
    return std::to_string(number);
}
std::string number(HANDLE handle) {
    std::ostringstream out;
    out << std::hex << reinterpret_cast<uintptr_t>(handle);
    return out.str();
}
std::string room(const UINT32* length) {
    std::string text("&");
    return length != nullptr ? text.append(std::to_string(*length)) : "0";
}

void answer(const std::string& bytes, void* output, UINT32* length) {
    const auto size = std::min(static_cast<UINT32>(bytes.size()), *length);
    std::memcpy(output, bytes.data(), size);
    *length = static_cast<UINT32>(bytes.size());
}

}  // namespace

struct StandInCalls {
    template <class... Arguments>
    static KCSTATUS record(const char* function, const Arguments&... arguments) {
        std::string call(function);
        const char* separator = "(";
        ((call.append(separator).append(arguments), separator = ", "), ...);
        current->calls_.push_back(call.append(")"));
        return current->status;
    }

    static KCSTATUS open(HANDLE key, const CHAR* path, UINT32 options, UINT32 access,
                         HANDLE* result) {
        *result = current->key;
        return record("Open", number(key), text(path), text(options), text(access), text(result));
    }
    static KCSTATUS create(HANDLE key, const CHAR* path, UINT32 reserved, const CHAR* kind,
                           UINT32 options, UINT32 access, const void* security, HANDLE* result,
                           UINT32* disposition) {
        *result = current->key;
        *disposition = 1;
        return record("Create", number(key), text(path), text(reserved), text(kind), text(options),
                      text(access), text(security), text(result), text(disposition));
    }
    static KCSTATUS close(HANDLE key) { return record("Close", number(key)); }
    static KCSTATUS delete_key(HANDLE key, const CHAR* path) {
        return record("DeleteKey", number(key), text(path));
    }
    static KCSTATUS delete_value(HANDLE key, const CHAR* name) {
        return record("DeleteValue", number(key), text(name));
    }
    static KCSTATUS enum_key(HANDLE key, UINT32 index, CHAR* name, UINT32* length, UINT32* reserved,
                             CHAR* kind, UINT32* kind_length, UINT64* written) {
        const KCSTATUS status =
            record("EnumKey", number(key), text(index), room(length), text(reserved), text(kind),
                   text(kind_length), text(written));
        if (KC_IS_ERROR(status)) return status;
        answer(current->name, name, length);
        *written = current->written;
        return status;
    }
    static KCSTATUS enum_value(HANDLE key, UINT32 index, CHAR* name, UINT32* length,
                               UINT32* reserved, UINT32* type, PVOID data, UINT32* size) {
        const KCSTATUS status = record("EnumValue", number(key), text(index), room(length),
                                       text(reserved), text(type), room(size));
        if (KC_IS_ERROR(status)) return status;
        answer(current->name, name, length);
        answer(current->data, data, size);
        *type = current->type;
        return status;
    }
    static KCSTATUS query(HANDLE key, const CHAR* name, UINT32* reserved, UINT32* type, PVOID data,
                          UINT32* size) {
        const KCSTATUS status =
            record("Query", number(key), text(name), text(reserved), text(type), room(size));
        if (KC_IS_ERROR(status)) return status;
        answer(current->data, data, size);
        *type = current->type;
        return status;
    }
    static KCSTATUS set(HANDLE key, const CHAR* name, UINT32 reserved, UINT32 type,
                        const void* data, UINT32 size) {
        current->data.assign(static_cast<const char*>(data), size);
        return record("Set", number(key), text(name), text(reserved), text(type), text(size));
    }
};

RegistryStandIn::RegistryStandIn() {
    current = this;
    hooks_.emplace_back("osal.so", "TsRegOpenKeyExA", &StandInCalls::open);
    hooks_.emplace_back("osal.so", "TsRegCreateKeyExA", &StandInCalls::create);
    hooks_.emplace_back("osal.so", "TsRegCloseKey", &StandInCalls::close);
    hooks_.emplace_back("osal.so", "TsRegDeleteKeyA", &StandInCalls::delete_key);
    hooks_.emplace_back("osal.so", "TsRegDeleteValueA", &StandInCalls::delete_value);
    hooks_.emplace_back("osal.so", "TsRegEnumKeyExA", &StandInCalls::enum_key);
    hooks_.emplace_back("osal.so", "TsRegEnumValueA", &StandInCalls::enum_value);
    hooks_.emplace_back("osal.so", "TsRegQueryValueExA", &StandInCalls::query);
    hooks_.emplace_back("osal.so", "TsRegSetValueExA", &StandInCalls::set);
}

RegistryStandIn::~RegistryStandIn() {
    hooks_.clear();
    current = nullptr;
}

std::vector<std::string> RegistryStandIn::take() {
    return std::exchange(calls_, {});
}

}  // namespace osal_test
