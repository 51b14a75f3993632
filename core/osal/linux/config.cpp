// Registry access: keys and values below the product's root, over the narrow registry library.
//
// No lock is taken here and no state kept but the key records, which do not change while open;
// KeyInUse of the instance is changed atomically. Work buffers come from the C heap and are gone
// when a service returns. The places at which a caller's record is checked follow the contract,
// which counts some room in bytes and some in units; every write is checked against Length besides.
#include "osal/linux/internal/config.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "host/tsreg.h"
#include "osal/internal/atomics.h"
#include "osal/internal/instance.h"
#include "osal/osal.h"

using namespace osal;
using namespace osal::config;

namespace {

constexpr char kRoot[] = "Software\\Orvane\\";
constexpr UINT32 kRootSize = sizeof kRoot - 1;
constexpr UINT32 kPathRoom = 239;       // for the caller's part of a key's path
constexpr UINT32 kValueNameRoom = 255;  // for a narrow value name without its terminator
constexpr UINT32 kKeyNameRoom = 511;    // the same for the name of a sub-key
constexpr UINT32 kRecordSize = 24;      // of both information records, one unit of name included
constexpr UINT32 kKeyNameReserve = 25;  // bytes of Length that are not room for a name
constexpr UINT32 kValueNameSize = 256;  // of the buffer for a name that is set
constexpr WCHAR kDefaultName[] = {'d', 'e', 'f', 'a', 'u', 'l', 't', 0};
static_assert(kRootSize + kPathRoom + 1 == sizeof(_OSAL_CONFIG_KEY::KeyName));
static_assert(sizeof(KX_KEY_INFORMATION) == kRecordSize);
static_assert(sizeof(KX_KEY_VALUE_INFORMATION) == kRecordSize);

// A work buffer from the C heap for the life of the object.
class Buffer {
  public:
    explicit Buffer(std::size_t size) : bytes_(static_cast<char*>(std::malloc(size))) {}
    ~Buffer() { std::free(bytes_); }
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;
    char* get() const { return bytes_; }
    bool operator!() const { return bytes_ == nullptr; }

  private:
    char* bytes_;
};

bool is_string(UINT32 type) {
    return type == KX_REG_SZ || type == KX_REG_MULTI_SZ;
}

const WCHAR* name_or_default(const WCHAR* name) {
    return name != nullptr && *name != 0 ? name : kDefaultName;
}

// Converts a name and terminates it; room does not count the terminator.
KCSTATUS narrow(PIOsal pThis, const WCHAR* name, char* output, UINT32 room) {
    const KCSTATUS status = KxWideCharToMultiByte(pThis, kCodePage, name, -1, output, &room);
    if (!is_error(status)) output[room] = '\0';
    return status;
}

KCSTATUS narrow_value_name(PIOsal pThis, const WCHAR* name, char* output) {
    return narrow(pThis, name_or_default(name), output, kValueNameRoom);
}

KCSTATUS call_open(const char* path, UINT32 access, HANDLE* handle) {
    return TsRegOpenKeyExA(TSREG_LOCAL_MACHINE, path, 0, access, handle);
}

// Contract: the access asked for is not passed on.
KCSTATUS call_create(const char* path, UINT32, HANDLE* handle) {
    UINT32 disposition = 0;
    return TsRegCreateKeyExA(TSREG_LOCAL_MACHINE, path, 0, nullptr, 0, 0, nullptr, handle,
                             &disposition);
}

// What KxOpenKey and KxCreateKey differ in.
struct Opening {
    KCSTATUS (*call)(const char* path, UINT32 access, HANDLE* handle);
    Failure bad_argument;
    Failure bad_access;
    Failure no_memory;
};
constexpr Opening kOpen{call_open, kOpenArgument, kOpenAccess, kOpenMemory};
constexpr Opening kCreate{call_create, kCreateArgument, kCreateAccess, kCreateMemory};

KCSTATUS open_key(const Opening& opening, PIOsal pThis, const WCHAR* pKeyNameW,
                  KX_KEY_ACCESS DesiredAccess, HANDLE* pHandle) {
    OsalObjInfo* instance = live(pThis);
    if (instance == nullptr || pKeyNameW == nullptr || pHandle == nullptr)
        return fail(opening.bad_argument);
    *pHandle = nullptr;
    if (DesiredAccess > KX_KEY_ALL_ACCESS) return fail(opening.bad_access);
    auto* record = static_cast<_KX_KEY_HANDLE_*>(std::malloc(sizeof(_KX_KEY_HANDLE_)));
    if (record == nullptr) return fail(opening.no_memory);
    *record = {};
    record->Signature = _KX_KEY_HANDLE_::kSignature;
    _OSAL_CONFIG_KEY& key = record->Key;
    std::memcpy(key.KeyName, kRoot, kRootSize);
    KCSTATUS status = narrow(pThis, pKeyNameW, key.KeyName + kRootSize, kPathRoom);
    if (!is_error(status)) status = opening.call(key.KeyName, DesiredAccess, &key.KeyHandle);
    if (is_error(status)) {
        retire_to_heap(record);
        return status;
    }
    increment(instance->KeyInUse);
    *pHandle = record;
    return status;
}

// The checks that both enumerations begin with; KC_OK if they pass. Contract: the result length
// must not be null, and is not written.
KCSTATUS check_enumeration(const void* record, UINT32 length, const UINT32* result_length,
                           const Failure& bad_argument, const Failure& bad_length) {
    if (length < kRecordSize || record == nullptr || result_length == nullptr)
        return fail(bad_argument);
    // Contract: room for the record alone counts as no room, though one unit of name would fit.
    return length == kRecordSize ? fail(bad_length) : KC_OK;
}

// A value on its way from the registry library into the caller's record.
struct Found {
    UINT32 type;
    const char* data;
    UINT32 size;  // bytes
};

// A part of the caller's record that ends where the record does.
struct Room {
    char* bytes;
    INT64 size;  // below 0 if the name in front took one byte too many
};

KCSTATUS put_bytes(KX_KEY_VALUE_INFORMATION* record, const Room& room, const char* data,
                   UINT32 size, const Failure& too_small) {
    if (room.size < INT64{size}) return fail(too_small);
    if (size != 0) std::memcpy(room.bytes, data, size);
    record->ValueLength = size;
    return KC_OK;
}

// Contract: room for the strings is counted in units, of which the conversion can use half.
KCSTATUS put_strings(PIOsal pThis, KX_KEY_VALUE_INFORMATION* record, const Room& room,
                     const Found& value) {
    if (room.size - 1 <= 1) return fail(kEnumValueString);
    auto* output = reinterpret_cast<WCHAR*>(room.bytes);
    auto count = static_cast<UINT32>((room.size - 1) / 2);
    const KCSTATUS status =
        KxMultiByteToWideCharMultiple(pThis, kCodePage, value.type == KX_REG_MULTI_SZ ? 1 : 0,
                                      value.data, static_cast<INT32>(value.size), output, &count);
    if (is_error(status)) return status;
    if (INT64{count} * 2 + 2 > room.size) return fail(kEnumValueString);
    output[count] = 0;  // Contract: behind the terminator
    record->ValueLength = count * 2 + 2;
    return status;
}

KCSTATUS put_value(PIOsal pThis, KX_KEY_VALUE_INFORMATION* record, const Room& room,
                   const Found& value) {
    switch (value.type) {
        case KX_REG_BINARY:
            return put_bytes(record, room, value.data, value.size, kEnumValueBinary);
        case KX_REG_UINT32:
            return put_bytes(record, room, value.data, sizeof(UINT32), kEnumValueUint32);
        case KX_REG_UINT64:
            return put_bytes(record, room, value.data, sizeof(UINT64), kEnumValueUint64);
        case KX_REG_SZ:
        case KX_REG_MULTI_SZ:
            return put_strings(pThis, record, room, value);
        default:
            return fail(kEnumValueType);
    }
}

// Fills the record of an enumerated value whose narrow name and data are at hand.
KCSTATUS put_name_and_value(PIOsal pThis, KX_KEY_VALUE_INFORMATION* record, UINT32 length,
                            const char* name, UINT32 name_length, const Found& value) {
    record->ValueType = value.type;
    if (length - kKeyNameReserve <= 1) return fail(kEnumValueName);
    UINT32 count = (length - kKeyNameReserve) / 2;
    // Contract: an empty name does not convert.
    const KCSTATUS status = KxMultiByteToWideChar(
        pThis, kCodePage, name, static_cast<INT32>(name_length), record->KeyValueName, &count);
    if (status != KC_OK) return status;
    record->KeyValueName[count] = 0;
    record->KeyValueNameLength = count * 2 + 2;
    record->ValueOffset = record->KeyValueNameLength + kRecordSize;
    const Room room{reinterpret_cast<char*>(record) + record->ValueOffset,
                    INT64{length} - record->ValueOffset};
    return put_value(pThis, record, room, value);
}

// Copies a name with its terminator into the record; bytes written, or 0 if it does not fit.
// Contract: a name whose terminator is the last unit before the limit does not fit.
UINT32 put_query_name(KX_KEY_VALUE_INFORMATION* record, UINT32 length, const WCHAR* name) {
    const UINT32 limit = length - kRecordSize;
    UINT32 written = 0;
    UINT32 index = 0;
    while (written < limit) {
        const WCHAR unit = name[index];
        record->KeyValueName[index++] = unit;
        written += sizeof unit;
        if (unit == 0) break;
    }
    return written < limit ? written : 0;
}

KCSTATUS put_queried_string(PIOsal pThis, KX_KEY_VALUE_INFORMATION* record, const Room& room,
                            const Found& value, UINT32* result_length) {
    if (value.size < 1) {
        record->ValueLength = 0;
        *result_length = 0;
        return KC_OK;
    }
    const UINT32 size = value.data[value.size - 1] == '\0' ? value.size - 1 : value.size;
    if (room.size <= 1) return fail(kQueryString);
    auto* output = reinterpret_cast<WCHAR*>(room.bytes);
    auto count = static_cast<UINT32>(room.size / 2);
    // Contract: a list is converted in one go, its inner terminators like any other character, and
    // loses its last one. A string that is nothing but a terminator does not convert.
    const KCSTATUS status = KxMultiByteToWideChar(pThis, kCodePage, value.data,
                                                  static_cast<INT32>(size), output, &count);
    if (is_error(status)) return status;
    if (INT64{count} * 2 + 2 > room.size) return fail(kQueryString);
    output[count] = 0;
    record->ValueLength = (count + 1) * 2;
    *result_length = record->ValueOffset + record->ValueLength;
    return status;
}

KCSTATUS put_queried_value(PIOsal pThis, KX_KEY_VALUE_INFORMATION* record, const Room& room,
                           const Found& value, UINT32* result_length) {
    if (is_string(value.type)) return put_queried_string(pThis, record, room, value, result_length);
    const KCSTATUS status = put_bytes(record, room, value.data, value.size, kQueryData);
    // Contract: the end of the data is taken in the work buffer, not in the record, so the number
    // depends on where the two happen to lie.
    if (!is_error(status))
        *result_length = static_cast<UINT32>(reinterpret_cast<uintptr_t>(value.data) + value.size -
                                             reinterpret_cast<uintptr_t>(record));
    return status;
}

// Looks a value up by the name that the record holds, through a work buffer that takes the narrow
// name and the data, and puts it behind the name.
KCSTATUS query_value(PIOsal pThis, HANDLE key, KX_KEY_VALUE_INFORMATION* record, const Room& room,
                     UINT32* result_length) {
    const UINT32 name_size = record->KeyValueNameLength;
    const auto work_size = static_cast<std::size_t>(room.size) + 2 * std::size_t{name_size};
    Buffer work(work_size);
    if (!work) return fail(kQueryMemory);
    // Contract: a check of the table that no call can fail. The name has a unit and a terminator at
    // least and there is a byte of room, so the work buffer has nine bytes or more.
    auto name_length = static_cast<UINT32>(work_size - 1);
    if (name_length == 0) return fail(kQueryNameBuffer);
    KCSTATUS status =
        KxWideCharToMultiByte(pThis, kCodePage, record->KeyValueName,
                              static_cast<INT32>(name_size / 2 - 1), work.get(), &name_length);
    if (is_error(status)) return status;
    work.get()[name_length] = '\0';
    char* data = work.get() + name_length + 1;
    const auto data_room =
        static_cast<UINT32>(std::min<std::size_t>(work_size - name_length - 1, INT32_MAX));
    UINT32 size = data_room;
    status = TsRegQueryValueExA(key, work.get(), nullptr, &record->ValueType, data, &size);
    if (is_error(status)) return status;
    const Found value{record->ValueType, data, std::min(size, data_room)};
    return put_queried_value(pThis, record, room, value, result_length);
}

// A value on its way to the registry library.
struct NewValue {
    UINT32 type;
    const void* data;  // never null
    UINT32 size;
    bool empty;  // no data were given
};

// The status of a value whose data do not have the size of their type, else KC_OK.
KCSTATUS check_size(const NewValue& value) {
    if (value.empty) return KC_OK;
    if (value.type == KX_REG_UINT32 && value.size != sizeof(UINT32)) return fail(kSetUint32);
    if (value.type == KX_REG_UINT64 && value.size != sizeof(UINT64)) return fail(kSetUint64);
    return KC_OK;
}

KCSTATUS set_value(PIOsal pThis, HANDLE key, const WCHAR* name, char* narrow_name,
                   const NewValue& value) {
    const KCSTATUS status = narrow_value_name(pThis, name, narrow_name);
    if (is_error(status)) return status;
    return TsRegSetValueExA(key, narrow_name, 0, value.type, value.data, value.size);
}

KCSTATUS set_plain(PIOsal pThis, HANDLE key, const WCHAR* name, const NewValue& value) {
    // Decided before the buffer is had, so without memory both failures are logged.
    const KCSTATUS status = check_size(value);
    Buffer buffer(kValueNameSize);
    if (!buffer) return fail(kSetMemory);
    return is_error(status) ? status : set_value(pThis, key, name, buffer.get(), value);
}

// Contract: the conversion reads up to the terminator, whatever the length given says; that only
// sizes its output.
KCSTATUS set_strings(PIOsal pThis, HANDLE key, const WCHAR* name, const NewValue& given) {
    NewValue value = given;
    const std::size_t room = std::size_t{value.size} * 4 + 257;
    Buffer buffer(kValueNameSize + room + 1);
    if (!buffer) return fail(kSetMemory);
    if (!value.empty) {
        char* output = buffer.get() + kValueNameSize;
        auto size = static_cast<UINT32>(std::min<std::size_t>(room, ~UINT32{0}));
        const KCSTATUS status =
            WideCharToMultiByteMultiple(pThis, kCodePage, value.type == KX_REG_MULTI_SZ ? 1 : 0,
                                        static_cast<const WCHAR*>(value.data), -1, output, &size);
        if (is_error(status)) return status;
        output[size] = '\0';
        value.data = output;
        value.size = size;
    }
    return set_value(pThis, key, name, buffer.get(), value);
}

}  // namespace

KCSTATUS KxOpenKey(PIOsal pThis, const WCHAR* pKeyNameW, KX_KEY_ACCESS DesiredAccess,
                   HANDLE* pHandle) {
    return open_key(kOpen, pThis, pKeyNameW, DesiredAccess, pHandle);
}

KCSTATUS KxCreateKey(PIOsal pThis, const WCHAR* pKeyNameW, KX_KEY_ACCESS DesiredAccess,
                     HANDLE* pHandle) {
    return open_key(kCreate, pThis, pKeyNameW, DesiredAccess, pHandle);
}

KCSTATUS KxCloseKey(PIOsal pThis, HANDLE Handle) {
    OsalObjInfo* instance = live(pThis);
    auto* record = as<_KX_KEY_HANDLE_>(Handle);
    if (instance == nullptr || record == nullptr) return fail(kCloseHandle);
    decrement(instance->KeyInUse);
    const KCSTATUS status = TsRegCloseKey(record->Key.KeyHandle);
    retire_to_heap(record);
    return status;
}

// Contract: deletes whatever key has the path now, not the one that was opened.
KCSTATUS KxDeleteKey(PIOsal, HANDLE Handle) {
    auto* record = as<_KX_KEY_HANDLE_>(Handle);
    if (record == nullptr) return fail(kDeleteKeyHandle);
    return TsRegDeleteKeyA(TSREG_LOCAL_MACHINE, record->Key.KeyName);
}

KCSTATUS KxDeleteValue(PIOsal pThis, HANDLE Handle, const WCHAR* pValueNameW) {
    auto* record = as<_KX_KEY_HANDLE_>(Handle);
    if (record == nullptr) return fail(kDeleteValueHandle);
    Buffer name(kValueNameSize);
    if (!name) return fail(kDeleteValueMemory);
    const KCSTATUS status = narrow_value_name(pThis, pValueNameW, name.get());
    return is_error(status) ? status : TsRegDeleteValueA(record->Key.KeyHandle, name.get());
}

KCSTATUS KxEnumerateKey(PIOsal pThis, HANDLE Handle, UINT32 Index, PVOID pKeyInformation,
                        UINT32 Length, PUINT32 pResultLength) {
    auto* record = as<_KX_KEY_HANDLE_>(Handle);
    if (record == nullptr) return fail(kEnumKeyHandle);
    KCSTATUS status =
        check_enumeration(pKeyInformation, Length, pResultLength, kEnumKeyArgument, kEnumKeyLength);
    if (is_error(status)) return status;
    Buffer name(kKeyNameRoom + 1);
    if (!name) return fail(kEnumKeyMemory);
    UINT32 name_length = kKeyNameRoom;
    UINT64 written = 0;
    status = TsRegEnumKeyExA(record->Key.KeyHandle, Index, name.get(), &name_length, nullptr,
                             nullptr, nullptr, &written);
    if (status != KC_OK) return status;
    name_length = std::min(name_length, kKeyNameRoom);
    name.get()[name_length] = '\0';
    auto* information = static_cast<KX_KEY_INFORMATION*>(pKeyInformation);
    information->LastWriteTime = written;
    // Contract: the registry is asked before this is found out.
    if (Length - kKeyNameReserve <= 1) return fail(kEnumKeyName);
    UINT32& count = information->KeyNameLength;  // in units for a moment
    count = (Length - kKeyNameReserve) / 2;
    status = KxMultiByteToWideChar(pThis, kCodePage, name.get(), static_cast<INT32>(name_length),
                                   information->KeyName, &count);
    if (is_error(status)) return status;
    information->KeyName[count] = 0;
    count = count * 2 + 2;
    return status;
}

KCSTATUS KxEnumerateValueKey(PIOsal pThis, HANDLE Handle, UINT32 Index, PVOID pKeyValueInformation,
                             UINT32 Length, PUINT32 pResultLength) {
    auto* record = as<_KX_KEY_HANDLE_>(Handle);
    if (record == nullptr) return fail(kEnumValueHandle);
    KCSTATUS status = check_enumeration(pKeyValueInformation, Length, pResultLength,
                                        kEnumValueArgument, kEnumValueLength);
    if (is_error(status)) return status;
    // Behind the data two zero bytes end a string or a list that lacks its end; what a 32-bit or
    // 64-bit value lacks is zero.
    Buffer work(2 * std::size_t{Length} + 2);
    if (!work) return fail(kEnumValueMemory);
    char* data = work.get() + Length;
    std::memset(data, 0, sizeof(UINT64));
    UINT32 name_length = Length;
    Found value{0, data, Length};
    status = TsRegEnumValueA(record->Key.KeyHandle, Index, work.get(), &name_length, nullptr,
                             &value.type, data, &value.size);
    if (status != KC_OK) return status;
    name_length = std::min(name_length, Length);
    value.size = std::min(value.size, Length);
    if (is_string(value.type)) std::memset(data + value.size, 0, 2);
    return put_name_and_value(pThis, static_cast<KX_KEY_VALUE_INFORMATION*>(pKeyValueInformation),
                              Length, work.get(), name_length, value);
}

KCSTATUS KxQueryValueKey(PIOsal pThis, HANDLE Handle, const WCHAR* pValueNameW, PVOID pKeyValueInfo,
                         UINT32 Length, PUINT32 pResultLength) {
    auto* record = as<_KX_KEY_HANDLE_>(Handle);
    if (record == nullptr) return fail(kQueryHandle);
    if (pKeyValueInfo == nullptr || pResultLength == nullptr) return fail(kQueryArgument);
    if (Length < kRecordSize) return fail(kQueryLength);
    auto* information = static_cast<KX_KEY_VALUE_INFORMATION*>(pKeyValueInfo);
    const UINT32 name_size = put_query_name(information, Length, name_or_default(pValueNameW));
    if (name_size == 0) return fail(kQueryName);
    information->KeyValueNameLength = name_size;
    information->Reserved = 0;
    information->ValueOffset = name_size + kRecordSize;
    const Room room{static_cast<char*>(pKeyValueInfo) + information->ValueOffset,
                    INT64{Length} - information->ValueOffset};
    return query_value(pThis, record->Key.KeyHandle, information, room, pResultLength);
}

KCSTATUS KxSetValueKey(PIOsal pThis, HANDLE Handle, const WCHAR* pValueNameW, KX_REG_TYPE DataType,
                       const void* pData, UINT32 DataLength) {
    constexpr UINT64 kNothing = 0;
    auto* record = as<_KX_KEY_HANDLE_>(Handle);
    if (record == nullptr) return fail(kSetHandle);
    if (DataType > KX_REG_UINT64) return fail(kSetType);
    const bool empty = DataLength == 0 || pData == nullptr;
    const NewValue value{DataType, empty ? &kNothing : pData, empty ? 0 : DataLength, empty};
    return (is_string(DataType) ? set_strings : set_plain)(pThis, record->Key.KeyHandle,
                                                           pValueNameW, value);
}
