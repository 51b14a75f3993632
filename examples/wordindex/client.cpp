#include "client.h"

#include <stdio.h>

#include "host/kcstatus.h"
#include "host/lcm.h"

OSAL_DEFINE_IDENTIFIERS

namespace wordindex {
namespace {

PIOsal create_instance() {
    void* instance = nullptr;
    const KCSTATUS status =
        LcmCreateInstance(&CLSID_OrvaneOsal, nullptr, &IID_IOrvaneOsal_1, &instance);
    if (KC_IS_ERROR(status)) throw failure("cannot make an instance of osal.so", status);
    return static_cast<PIOsal>(instance);
}

struct InUse {
    const char* what;
    UINT32 GEN_OSAL_STATS_INFO::*count;
};
constexpr InUse kInUse[] = {
    {"bytes of paged memory", &GEN_OSAL_STATS_INFO::MemoryPagedInUse},
    {"bytes of non-paged memory", &GEN_OSAL_STATS_INFO::MemoryNonPagedInUse},
    {"events", &GEN_OSAL_STATS_INFO::EventInUse},
    {"read/write locks", &GEN_OSAL_STATS_INFO::LockInUse},
    {"mutexes", &GEN_OSAL_STATS_INFO::MutexInUse},
    {"spin locks", &GEN_OSAL_STATS_INFO::SpinLockInUse},
    {"timers", &GEN_OSAL_STATS_INFO::TimerInUse},
    {"work items", &GEN_OSAL_STATS_INFO::WorkItemInUse},
    {"registry keys", &GEN_OSAL_STATS_INFO::KeyInUse},
};

}  // namespace

Failure failure(const std::string& what, KCSTATUS status) {
    char number[16];
    snprintf(number, sizeof number, "0x%08X", status);
    return Failure(what + ": " + KcStatusName(status) + " (" + number + ")");
}

// Refused components are in the system log. They matter here only if osal.so is one of them, which
// making an instance tells.
Runtime::Runtime() {
    LcmStart(nullptr);
}

Runtime::~Runtime() {
    LcmStop();
}

Client::Client(const char* module_name) : instance_(create_instance()), name_(module_name) {
    call<&IOsalVtbl::KxRegisterModuleName>(module_name);
}

Client::~Client() {
    call<&IOsalVtbl::Release>();
}

UINT64 now_100ns(const Client& client) {
    UINT64 now = 0;
    client.call<&IOsalVtbl::KxGetSystemTime>(&now);
    return now;
}

std::vector<GEN_OSAL_STATS_INFO> Client::statistics() const {
    UINT32 size = 0;
    call<&IOsalVtbl::KxGetGeneralOsalStatistics>(&size, PVOID{nullptr});
    // In units of the record, so that the memory is aligned for it.
    std::vector<GEN_OSAL_STATS_INFO_BUF> buffer(size / sizeof(GEN_OSAL_STATS_INFO_BUF) + 1);
    size = static_cast<UINT32>(buffer.size() * sizeof buffer[0]);
    const KCSTATUS status =
        call<&IOsalVtbl::KxGetGeneralOsalStatistics>(&size, PVOID{buffer.data()});
    if (KC_IS_ERROR(status)) throw failure("cannot read the usage counters", status);
    const GEN_OSAL_STATS_INFO* first = buffer[0].GenOsalStatsInfo;
    return {first, first + buffer[0].InterfaceCount};
}

std::string Client::leftovers() const {
    std::string found;
    for (const GEN_OSAL_STATS_INFO& record : statistics())
        for (const InUse& counter : kInUse)
            if (record.ModuleName == name_ && record.*counter.count != 0)
                found += (found.empty() ? "" : ", ") + std::to_string(record.*counter.count) + " " +
                         counter.what;
    return found;
}

}  // namespace wordindex
