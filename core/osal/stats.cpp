// General statistics: a record for every live service instance.
//
// Locks: InterfaceMutex while the list is walked. The counters are read without the locks of their
// instance, each for itself, so those of memory may be a moment old.
#include "osal/statistics.h"

#include <cstring>

#include "osal/internal/atomics.h"
#include "osal/internal/instance.h"
#include "osal/internal/list.h"
#include "osal/internal/status.h"

using namespace osal;

namespace {

constexpr Module kModule{KC_FACILITY_OSAL, "stats"};

constexpr UINT32 kHeaderSize = offsetof(GEN_OSAL_STATS_INFO_BUF, GenOsalStatsInfo);
constexpr UINT32 kRecordSize = sizeof(GEN_OSAL_STATS_INFO);
// Contract: offered on top of the need, for instances made meanwhile.
constexpr UINT32 kSpareSize = 500;
static_assert(kHeaderSize == 8);
static_assert(kRecordSize == 80);
static_assert(sizeof(GEN_OSAL_STATS_INFO::ModuleName) == OsalObjInfo::kNameSize);

// The buffer is the caller's and may lie anywhere, so it is written bytewise.
void write_header(char* buffer) {
    const UINT32 header[] = {InterfaceCount, kRecordSize};
    std::memcpy(buffer, header, sizeof header);
}

void write_record(char* position, const OsalObjInfo& instance) {
    GEN_OSAL_STATS_INFO record;
    pIOsal->lpVtbl->KxCopyMemory(pIOsal, record.ModuleName, instance.ModuleName,
                                 OsalObjInfo::kNameSize);
#define OSAL_COPY_COUNTER(name) record.name = load(instance.name, std::memory_order_relaxed);
    OSAL_COUNTERS(OSAL_COPY_COUNTER)
#undef OSAL_COPY_COUNTER
    std::memcpy(position, &record, sizeof record);
}

// Bytes written, or 0 if the list turns out longer than the buffer, which then stays filled.
UINT32 write_records(char* buffer, UINT32 size) REQUIRES(InterfaceMutex) {
    UINT32 written = kHeaderSize;
    for (LIST_ENTRY* link = InterfaceList.Flink; link != &InterfaceList; link = link->Flink) {
        if (size - written < kRecordSize) return 0;
        write_record(buffer + written, *record_of<OsalObjInfo>(link, offsetof(OsalObjInfo, Link)));
        written += kRecordSize;
    }
    return written;
}

// Before the first initialisation there is neither a list nor the library's own instance.
bool no_instances() {
    return pIOsal == nullptr || pIOsal->lpVtbl->KxIsListEmpty(pIOsal, &InterfaceList);
}

// The code of the result; *size as the service leaves it.
UINT32 fill(char* buffer, UINT32& size) REQUIRES(InterfaceMutex) {
    const UINT32 offered = size;
    size = 0;
    if (no_instances()) return 0;
    if (offered >= kHeaderSize + kRecordSize * InterfaceCount) {
        write_header(buffer);
        size = write_records(buffer, offered);
    }
    if (size != 0) return 0;
    size = kHeaderSize + kSpareSize + kRecordSize * InterfaceCount;
    return KC_CODE_BUFFER_TOO_SMALL;
}

}  // namespace

KCSTATUS KxGetGeneralOsalStatistics(PIOsal pThis, PUINT32 pSize, PVOID pStatBuf) {
    if (pThis == nullptr || pSize == nullptr || (*pSize == 0) != (pStatBuf == nullptr))
        return kModule.fail(KC_CODE_INVALID_ARGUMENT);
    UINT32 code;
    {
        Lock lock(InterfaceMutex);
        code = fill(static_cast<char*>(pStatBuf), *pSize);
    }
    return code != 0 ? kModule.fail(code) : KC_OK;
}
