// The registry library: its functions.
//
// Each takes the library's lock (Section) for the whole call. Statuses say what the header does.
#include "host/tsreg.h"

#include <time.h>

#include <cstring>
#include <string_view>

#include "handles.h"
#include "store.h"

using namespace tsreg;

namespace {

constexpr std::size_t kMaxName = kNameSize - 1;
constexpr UINT32 kMaxData = 64u << 20;
constexpr UINT64 kUnixEpoch = 116'444'736'000'000'000;  // in 100-ns units since 1601

constinit OpenKey hive = {kHiveId, KX_KEY_ALL_ACCESS, {}, {}};

INT64 now() {
    timespec time;
    clock_gettime(CLOCK_REALTIME, &time);
    return static_cast<INT64>(kUnixEpoch) + time.tv_sec * 10'000'000 + time.tv_nsec / 100;
}

OpenKey* key_of(HANDLE handle) {
    return handle == TSREG_LOCAL_MACHINE ? &hive : find_handle(handle);
}

// The key behind a handle that must allow something, with the file open to do it.
KCSTATUS use_key(HANDLE handle, UINT32 wanted, OpenKey** key) {
    *key = key_of(handle);
    if (*key == nullptr) return kBadHandle;
    if ((*key)->access != KX_KEY_ALL_ACCESS && (*key)->access != wanted) return kDenied;
    return open_store(wanted == KX_KEY_WRITE);
}

bool take_name(const CHAR* given, std::string_view& name) {
    name = given != nullptr ? std::string_view(given) : std::string_view("");
    return name.size() <= kMaxName;
}

// Cuts the next name off a path; false when none is left.
bool next_name(std::string_view& path, std::string_view& name) {
    const std::size_t start = path.find_first_not_of('\\');
    if (start == path.npos) return false;
    const std::size_t end = path.find('\\', start);
    name = path.substr(start, end == path.npos ? end : end - start);
    path.remove_prefix(start + name.size());
    return true;
}

bool valid_path(const CHAR* given, std::string_view& path) {
    path = given != nullptr ? std::string_view(given) : std::string_view("");
    std::string_view rest = path;
    std::string_view name;
    while (next_name(rest, name))
        if (name.size() > kMaxName) return false;
    return true;
}

KCSTATUS key_exists(INT64 id) {
    return Query(Sql::kKeyExists).bind(id).row(kNotFound);
}

KCSTATUS find_child(INT64& id, std::string_view name) {
    Query query(Sql::kFindKey);
    const KCSTATUS status = query.bind(id).bind(name).row(kNotFound);
    if (status == KC_OK) id = query.number(0);
    return status;
}

// Follows a path from a key that must exist.
KCSTATUS walk(INT64& id, std::string_view path) {
    KCSTATUS status = key_exists(id);
    std::string_view name;
    while (status == KC_OK && next_name(path, name))
        status = find_child(id, name);
    return status;
}

KCSTATUS touch(Sql which, INT64 id) {
    return Query(which).bind(now()).bind(id).run();
}

KCSTATUS add_child(INT64& id, std::string_view name) {
    if (const KCSTATUS status = touch(Sql::kTouchKey, id); status != KC_OK) return status;
    Query query(Sql::kAddKey);
    const KCSTATUS status = query.bind(id).bind(name).bind(now()).row(kNotFound);
    if (status == KC_OK) id = query.number(0);
    return status;
}

// As walk, but makes what is missing.
KCSTATUS walk_making(INT64& id, std::string_view path, bool& made) {
    KCSTATUS status = key_exists(id);
    std::string_view name;
    while (status == KC_OK && next_name(path, name)) {
        status = made ? kNotFound : find_child(id, name);
        if (status != kNotFound) continue;
        made = true;
        status = add_child(id, name);
    }
    return status;
}

KCSTATUS open_handle(INT64 id, UINT32 access, HANDLE* phKey) {
    *phKey = add_handle(id, access);
    return *phKey != nullptr ? KC_OK : kNoMemory;
}

KCSTATUS create_key(INT64& id, std::string_view path, bool& made) {
    Transaction transaction;
    KCSTATUS status = transaction.begin(Sql::kBeginWrite);
    if (status == KC_OK) status = walk_making(id, path, made);
    return status == KC_OK ? transaction.commit() : status;
}

KCSTATUS drop_key(INT64 id) {
    KCSTATUS status = Query(Sql::kSubKeyFrom).bind(id).bind("").bind(0).row(kNoMore);
    if (status != kNoMore) return status == KC_OK ? kHasSubKeys : status;
    status = touch(Sql::kTouchParent, id);
    if (status == KC_OK) status = Query(Sql::kDropValues).bind(id).run();
    if (status == KC_OK) status = Query(Sql::kDropKey).bind(id).run();
    return status;
}

KCSTATUS delete_key(INT64 id, std::string_view path) {
    Transaction transaction;
    KCSTATUS status = transaction.begin(Sql::kBeginWrite);
    if (status == KC_OK) status = walk(id, path);
    if (status == KC_OK) status = id != kHiveId ? drop_key(id) : kBadArgument;
    return status == KC_OK ? transaction.commit() : status;
}

// Runs a statement that changes one value of a key, which it must find.
KCSTATUS change_value(INT64 id, Query& change) {
    Transaction transaction;
    KCSTATUS status = transaction.begin(Sql::kBeginWrite);
    if (status == KC_OK) status = touch(Sql::kTouchKey, id);
    if (status == KC_OK && rows_changed() == 0) status = kNotFound;
    if (status == KC_OK) status = change.run();
    if (status == KC_OK && rows_changed() == 0) status = kNotFound;
    change.reset();
    return status == KC_OK ? transaction.commit() : status;
}

KCSTATUS step_to(Query& query, INT64 id, const Position& from, UINT32 index) {
    return query.bind(id)
        .bind(std::string_view(from.name, from.length))
        .bind(INT64{index} - from.index)
        .row(kNoMore);
}

// Steps a query to entry number index: from the last one that was handed out if nothing has
// changed since, which only shows once the query has looked, else from the first.
KCSTATUS seek(Query& query, INT64 id, Position& position, UINT32 index) {
    if (index < position.index) position = {};
    KCSTATUS status = step_to(query, id, position, index);
    if (position.length != 0 && store_version() != position.version) {
        position = {};
        query.reset();
        status = step_to(query, id, position, index);
    }
    if (status != kNoMore) return status;
    query.reset();
    return key_exists(id) == kNotFound ? kNotFound : kNoMore;
}

void remember(Position& position, UINT32 index, std::string_view name) {
    position.index = index;
    position.version = store_version();
    position.length = static_cast<UINT32>(name.size());
    std::memcpy(position.name, name.data(), name.size());
}

bool name_fits(std::string_view name, const UINT32* pNameLength) {
    return name.size() < *pNameLength;
}

void put_name(std::string_view name, CHAR* pName, UINT32* pNameLength) {
    std::memcpy(pName, name.data(), name.size());
    pName[name.size()] = '\0';
    *pNameLength = static_cast<UINT32>(name.size());
}

bool data_fits(std::string_view data, const void* pData, const UINT32* pDataLength) {
    return pData == nullptr || pDataLength == nullptr || data.size() <= *pDataLength;
}

void put_data(std::string_view data, void* pData, UINT32* pDataLength) {
    if (pDataLength == nullptr) return;
    *pDataLength = static_cast<UINT32>(data.size());
    if (pData != nullptr && !data.empty()) std::memcpy(pData, data.data(), data.size());
}

// The type, and the data or the room they need.
KCSTATUS deliver(const Query& query, int column, UINT32* pType, void* pData, UINT32* pDataLength) {
    const std::string_view data = query.text(column + 1);
    if (pType != nullptr) *pType = static_cast<UINT32>(query.number(column));
    const bool fits = data_fits(data, pData, pDataLength);
    put_data(data, fits ? pData : nullptr, pDataLength);
    return fits ? KC_OK : kTooSmall;
}

[[gnu::destructor]] void unload() {
    Section section;
    close_store();
    free_handles();
}

}  // namespace

KCSTATUS TsRegOpenKeyExA(HANDLE hKey, const CHAR* pSubKey, UINT32, UINT32 DesiredAccess,
                         HANDLE* phKey) {
    if (phKey == nullptr) return kBadArgument;
    *phKey = nullptr;
    std::string_view path;
    if (DesiredAccess > KX_KEY_ALL_ACCESS || !valid_path(pSubKey, path)) return kBadArgument;
    Section section;
    const OpenKey* base = key_of(hKey);
    if (base == nullptr) return kBadHandle;
    if (const KCSTATUS status = open_store(false); status != KC_OK) return status;
    INT64 id = base->id;
    Transaction transaction;
    KCSTATUS status = transaction.begin(Sql::kBeginRead);
    if (status == KC_OK) status = walk(id, path);
    return status == KC_OK ? open_handle(id, DesiredAccess, phKey) : status;
}

KCSTATUS TsRegCreateKeyExA(HANDLE hKey, const CHAR* pSubKey, UINT32, const CHAR*, UINT32, UINT32,
                           const void*, HANDLE* phKey, UINT32* pDisposition) {
    if (phKey == nullptr) return kBadArgument;
    *phKey = nullptr;
    std::string_view path;
    if (!valid_path(pSubKey, path)) return kBadArgument;
    Section section;
    const OpenKey* base = key_of(hKey);
    if (base == nullptr) return kBadHandle;
    if (const KCSTATUS status = open_store(true); status != KC_OK) return status;
    INT64 id = base->id;
    bool made = false;
    KCSTATUS status = create_key(id, path, made);
    if (status == KC_OK) status = open_handle(id, KX_KEY_ALL_ACCESS, phKey);
    if (status == KC_OK && pDisposition != nullptr)
        *pDisposition = made ? TSREG_CREATED_NEW_KEY : TSREG_OPENED_EXISTING_KEY;
    return status;
}

KCSTATUS TsRegCloseKey(HANDLE hKey) {
    if (hKey == TSREG_LOCAL_MACHINE) return KC_OK;
    Section section;
    return remove_handle(hKey) ? KC_OK : kBadHandle;
}

KCSTATUS TsRegDeleteKeyA(HANDLE hKey, const CHAR* pSubKey) {
    std::string_view path;
    if (!valid_path(pSubKey, path)) return kBadArgument;
    Section section;
    const OpenKey* base = key_of(hKey);
    if (base == nullptr) return kBadHandle;
    const KCSTATUS status = open_store(false);
    return status == KC_OK ? delete_key(base->id, path) : status;
}

KCSTATUS TsRegDeleteValueA(HANDLE hKey, const CHAR* pValueName) {
    std::string_view name;
    if (!take_name(pValueName, name)) return kBadArgument;
    Section section;
    OpenKey* key;
    const KCSTATUS status = use_key(hKey, KX_KEY_WRITE, &key);
    if (status != KC_OK) return status;
    Query drop(Sql::kDropValue);
    return change_value(key->id, drop.bind(key->id).bind(name));
}

KCSTATUS TsRegSetValueExA(HANDLE hKey, const CHAR* pValueName, UINT32, UINT32 Type,
                          const void* pData, UINT32 DataLength) {
    std::string_view name;
    if (!take_name(pValueName, name) || DataLength > kMaxData) return kBadArgument;
    if (pData == nullptr && DataLength != 0) return kBadArgument;
    Section section;
    OpenKey* key;
    const KCSTATUS status = use_key(hKey, KX_KEY_WRITE, &key);
    if (status != KC_OK) return status;
    Query set(Sql::kSetValue);
    return change_value(key->id,
                        set.bind(key->id).bind(name).bind(Type).bind_data(pData, DataLength));
}

KCSTATUS TsRegQueryValueExA(HANDLE hKey, const CHAR* pValueName, UINT32*, UINT32* pType,
                            PVOID pData, UINT32* pDataLength) {
    std::string_view name;
    if (!take_name(pValueName, name)) return kBadArgument;
    Section section;
    OpenKey* key;
    KCSTATUS status = use_key(hKey, KX_KEY_READ, &key);
    if (status != KC_OK) return status;
    Query query(Sql::kFindValue);
    status = query.bind(key->id).bind(name).row(kNotFound);
    return status == KC_OK ? deliver(query, 0, pType, pData, pDataLength) : status;
}

KCSTATUS TsRegEnumKeyExA(HANDLE hKey, UINT32 Index, CHAR* pName, UINT32* pNameLength, UINT32*,
                         CHAR*, UINT32*, UINT64* pLastWriteTime) {
    if (pName == nullptr || pNameLength == nullptr) return kBadArgument;
    Section section;
    OpenKey* key;
    KCSTATUS status = use_key(hKey, KX_KEY_READ, &key);
    if (status != KC_OK) return status;
    Query query(Sql::kSubKeyFrom);
    status = seek(query, key->id, key->sub_keys, Index);
    if (status != KC_OK) return status;
    const std::string_view name = query.text(0);
    remember(key->sub_keys, Index, name);
    if (!name_fits(name, pNameLength)) {
        *pNameLength = static_cast<UINT32>(name.size()) + 1;
        return kTooSmall;
    }
    put_name(name, pName, pNameLength);
    if (pLastWriteTime != nullptr) *pLastWriteTime = static_cast<UINT64>(query.number(1));
    return KC_OK;
}

KCSTATUS TsRegEnumValueA(HANDLE hKey, UINT32 Index, CHAR* pName, UINT32* pNameLength, UINT32*,
                         UINT32* pType, PVOID pData, UINT32* pDataLength) {
    if (pName == nullptr || pNameLength == nullptr) return kBadArgument;
    Section section;
    OpenKey* key;
    KCSTATUS status = use_key(hKey, KX_KEY_READ, &key);
    if (status != KC_OK) return status;
    Query query(Sql::kValueFrom);
    status = seek(query, key->id, key->values, Index);
    if (status != KC_OK) return status;
    const std::string_view name = query.text(0);
    remember(key->values, Index, name);
    const bool fits = name_fits(name, pNameLength);
    status = deliver(query, 1, pType, fits ? pData : nullptr, pDataLength);
    if (fits && status == KC_OK) {
        put_name(name, pName, pNameLength);
        return KC_OK;
    }
    *pNameLength = static_cast<UINT32>(name.size()) + 1;
    return kTooSmall;
}

KCSTATUS TsRegBegin(void) {
    Section section;
    if (in_thread_transaction()) return kBadArgument;
    const KCSTATUS status = open_store(true);
    return status == KC_OK ? begin_thread_transaction() : status;
}

KCSTATUS TsRegCommit(void) {
    Section section;
    return in_thread_transaction() ? commit_thread_transaction() : kNotFound;
}

KCSTATUS TsRegRollback(void) {
    Section section;
    if (!in_thread_transaction()) return kNotFound;
    rollback_thread_transaction();
    return KC_OK;
}
