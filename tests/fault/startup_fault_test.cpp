// Heap requests of start-up, of instance creation and of pool memory that fail, each once and from
// then on. Every case runs in a child of its own, so that every start is a first start.
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <optional>

#include "support/faults.h"
#include "support/recorders.h"
#include "support/service_test.h"

namespace osal_test {
namespace {

// Runs a body in a child; false if something failed there.
bool in_child(const std::function<void()>& body) {
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        body();
        fflush(nullptr);
        _exit(testing::Test::HasFailure());
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return status == 0;
}

HRESULT get_factory(void** factory) {
    return DllGetClassObject(&CLSID_OrvaneOsal, &IID_IClassFactory, factory);
}

KCSTATUS create(void* factory, void** instance) {
    auto* class_factory = static_cast<LCM_IClassFactory*>(factory);
    return class_factory->lpVtbl->CreateInstance(class_factory, nullptr, &IID_IOrvaneOsal_1,
                                                 instance);
}

void expect_counted() {
    EXPECT_EQ(length_of(InterfaceList), InterfaceCount);
}

// A start with failing requests: it succeeds, or it fails as a whole and says so.
void try_start(void** factory) {
    StatusRecorder statuses;
    LogRecorder log;
    void* const untouched = *factory;
    const HRESULT result = get_factory(factory);
    if (result == KC_S_OK) {
        EXPECT_EQ(g_bOsalInitialized, 1);
        return expect_counted();
    }
    EXPECT_EQ(result, HRESULT{0x80080001});
    EXPECT_EQ(*factory, untouched);
    EXPECT_EQ(g_bOsalInitialized, 0);
    EXPECT_FALSE(statuses.take().empty()) << "a status says where it failed";
    EXPECT_FALSE(log.take().empty()) << "a line says what failed";
    EXPECT_EQ(g_OsalNumTimerThreads, 0);
    EXPECT_EQ(g_OsalNumWorkItemThreads, 0);
}

// The same for an instance and a block of memory.
void try_use(void* factory) {
    StatusRecorder statuses;
    const UINT32 before = InterfaceCount;
    void* instance = &statuses;
    const KCSTATUS status = create(factory, &instance);
    expect_counted();
    if (status != KC_OK) {
        EXPECT_EQ(status, error(5));
        EXPECT_EQ(instance, nullptr);
        EXPECT_EQ(InterfaceCount, before);
        return statuses.expect_one(5, "osal", "OsalFactoryCreateInstance");
    }
    auto* osal = static_cast<PIOsal>(instance);
    if (void* block = KxAllocPagedMemory(osal, 10)) {
        EXPECT_EQ(KxFreeMemory(osal, block), KC_OK);
    } else {
        EXPECT_EQ(osal::instance_of(osal)->MemoryPagedTotalAllocated, 0u);
        EXPECT_EQ(length_of(osal::instance_of(osal)->MemoryPagedList), 0u);
    }
    EXPECT_EQ(OsalReleaseReference(osal), 0u);
    EXPECT_EQ(InterfaceCount, before);
}

struct Fault {
    int nth;
    bool from_then_on;
};

// Starts and uses the library under a fault, then without; stops it. What is then still allocated
// is the library's own instance, and one more of a start that failed after it was made.
void run(Fault fault, int& requests) {
    HeapLedger ledger;
    DllStart();
    void* factory = nullptr;
    bool left_instance = false;
    {
        HeapFault failing(fault.nth, fault.from_then_on);
        try_start(&factory);
        left_instance = g_bOsalInitialized == 0 && pIOsal != nullptr;
        if (g_bOsalInitialized) try_use(factory);
        requests = failing.requests();
    }
    ASSERT_EQ(get_factory(&factory), KC_S_OK);
    EXPECT_EQ(InterfaceCount, 1u);
    try_use(factory);
    DllStop();
    EXPECT_LE(ledger.blocks(), left_instance ? 2u : 1u) << "left allocated";
}

void fail_each_request(bool from_then_on) {
    constexpr int kMost = 200;
    bool reached_the_end = false;
    for (int nth = 1; nth <= kMost && !reached_the_end; ++nth) {
        int to_parent[2];
        ASSERT_EQ(pipe(to_parent), 0);
        EXPECT_TRUE(in_child([&] {
            int requests = 0;
            run({nth, from_then_on}, requests);
            const char last = requests < nth;
            EXPECT_EQ(write(to_parent[1], &last, 1), 1);
        })) << "request "
            << nth;
        char last = 1;
        close(to_parent[1]);
        EXPECT_EQ(read(to_parent[0], &last, 1), 1);
        close(to_parent[0]);
        reached_the_end = last != 0;
        ASSERT_FALSE(nth == 1 && reached_the_end) << "no request was seen";
    }
    EXPECT_TRUE(reached_the_end);
}

TEST(HeapFaults, OfStartAndUseEachOnce) {
    fail_each_request(false);
}

TEST(HeapFaults, OfStartAndUseFromEachOneOn) {
    fail_each_request(true);
}

}  // namespace
}  // namespace osal_test
