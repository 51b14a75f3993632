// General statistics, by export and by slot.
#include "osal/statistics.h"

#include <atomic>
#include <cstring>
#include <thread>
#include <utility>
#include <vector>

#include "osal/internal/list.h"
#include "support/recorders.h"
#include "support/service_test.h"

namespace osal_test {
namespace {

constexpr UINT32 kHeader = 8;
constexpr UINT32 kRecord = 80;

class Statistics : public BothWays {
  protected:
    // The records of all instances, as the service reports them.
    std::vector<GEN_OSAL_STATS_INFO> records() {
        std::vector<char> buffer(kHeader + kRecord * 64);
        auto size = static_cast<UINT32>(buffer.size());
        EXPECT_EQ(CALL(KxGetGeneralOsalStatistics)(osal, &size, buffer.data()), KC_OK);
        std::vector<GEN_OSAL_STATS_INFO> found((size - kHeader) / kRecord);
        std::memcpy(found.data(), buffer.data() + kHeader, found.size() * kRecord);
        return found;
    }
};
OSAL_BOTH_WAYS(Statistics);

TEST_P(Statistics, ASizeQueryWithTwoInstancesOffersRoomForMore) {
    StatusRecorder statuses;
    UINT32 size = 0;
    EXPECT_EQ(CALL(KxGetGeneralOsalStatistics)(osal, &size, nullptr), error(7));
    EXPECT_EQ(size, 668u);
    statuses.expect_one(7, "stats", "KxGetGeneralOsalStatistics");
}

TEST_P(Statistics, AnExactBufferIsFilledToItsEnd) {
    std::vector<char> buffer(kHeader + 2 * kRecord + 1, '\x5A');
    UINT32 size = kHeader + 2 * kRecord;
    ASSERT_EQ(CALL(KxGetGeneralOsalStatistics)(osal, &size, buffer.data()), KC_OK);
    EXPECT_EQ(size, kHeader + 2 * kRecord);
    UINT32 header[2];
    std::memcpy(header, buffer.data(), sizeof header);
    EXPECT_EQ(header[0], 2u);
    EXPECT_EQ(header[1], kRecord);
    EXPECT_EQ(buffer.back(), '\x5A');
}

TEST_P(Statistics, AByteTooLittleIsRefusedAndTheBufferStaysUntouched) {
    StatusRecorder statuses;
    const std::vector<char> before(kHeader + 2 * kRecord, '\x5A');
    std::vector<char> buffer = before;
    UINT32 size = kHeader + 2 * kRecord - 1;
    EXPECT_EQ(CALL(KxGetGeneralOsalStatistics)(osal, &size, buffer.data()), error(7));
    EXPECT_EQ(size, 668u);
    EXPECT_EQ(buffer, before);
    EXPECT_EQ(length_of(InterfaceList), 2u);
    statuses.expect_one(7, "stats", "KxGetGeneralOsalStatistics");
}

TEST_P(Statistics, ABufferMayLieAnywhere) {
    std::vector<char> buffer(kHeader + 2 * kRecord + 1);
    UINT32 size = kHeader + 2 * kRecord;
    EXPECT_EQ(CALL(KxGetGeneralOsalStatistics)(osal, &size, buffer.data() + 1), KC_OK);
    EXPECT_EQ(buffer[1], 2);
}

TEST_P(Statistics, BadArgumentsAreRefusedAndNothingIsWritten) {
    StatusRecorder statuses;
    const auto call = CALL(KxGetGeneralOsalStatistics);
    char buffer[kHeader + 2 * kRecord] = {};
    UINT32 size = sizeof buffer;
    EXPECT_EQ(call(nullptr, &size, buffer), error(4));
    statuses.expect_one(4, "stats", "KxGetGeneralOsalStatistics");
    EXPECT_EQ(call(osal, nullptr, buffer), error(4));
    statuses.expect_one(4, "stats", "KxGetGeneralOsalStatistics");
    EXPECT_EQ(call(osal, &size, nullptr), error(4));
    statuses.expect_one(4, "stats", "KxGetGeneralOsalStatistics");
    EXPECT_EQ(size, sizeof buffer);
    size = 0;
    EXPECT_EQ(call(osal, &size, buffer), error(4));
    statuses.expect_one(4, "stats", "KxGetGeneralOsalStatistics");
    EXPECT_EQ(size, 0u);
    for (const char byte : buffer)
        EXPECT_EQ(byte, 0);
}

TEST_P(Statistics, RecordsFollowTheOrderOfCreationAndCarryNames) {
    PIOsal second = new_instance();
    slots->KxRegisterModuleName(osal, "first client");
    slots->KxRegisterModuleName(second, "0123456789012345678901234567890123456789");
    const auto found = records();
    ASSERT_EQ(found.size(), 3u);
    EXPECT_STREQ(found[0].ModuleName, "");
    EXPECT_STREQ(found[1].ModuleName, "first client");
    EXPECT_STREQ(found[2].ModuleName, "0123456789012345678901234567890");
    slots->Release(second);
    EXPECT_EQ(records().size(), 2u);
}

TEST_P(Statistics, EachCounterIsThatOfItsInstance) {
    UINT32 value = 0;
#define SET(name) record->name = ++value;
    OSAL_COUNTERS(SET)
    ASSERT_EQ(value, 12u);
    const auto found = records();
    value = 0;
#define CHECK(name)                    \
    EXPECT_EQ(found[1].name, ++value); \
    record->name = 0;
    OSAL_COUNTERS(CHECK)
}

TEST_P(Statistics, TheRecordHoldsTheCountersInTheirOrder) {
    static_assert(sizeof(GEN_OSAL_STATS_INFO) == kRecord);
    std::size_t offset = 32;
#define AT(name)                                            \
    EXPECT_EQ(offsetof(GEN_OSAL_STATS_INFO, name), offset); \
    offset += 4;
    OSAL_COUNTERS(AT)
    EXPECT_EQ(offsetof(GEN_OSAL_STATS_INFO, EventInUse), 32u);
    EXPECT_EQ(offsetof(GEN_OSAL_STATS_INFO, MemoryNonPagedTotalAllocated), 44u);
    EXPECT_EQ(offsetof(GEN_OSAL_STATS_INFO, WorkItemInUse), 76u);
}

TEST_P(Statistics, MemoryOfAnInstanceIsReported) {
    void* block = slots->KxAllocPagedMemory(osal, 100);
    EXPECT_EQ(records()[1].MemoryPagedInUse, 100u);
    slots->KxFreeMemory(osal, block);
    EXPECT_EQ(records()[1].MemoryPagedInUse, 0u);
    EXPECT_EQ(records()[1].MemoryPagedTotalAllocated, 100u);
}

// The list with no instance on it for the life of an object.
class EmptyList {
  public:
    EmptyList() : first_(InterfaceList.Flink), last_(InterfaceList.Blink) {
        OsalInitializeListHead(&InterfaceList);
    }
    ~EmptyList() {
        InterfaceList.Flink = first_;
        InterfaceList.Blink = last_;
    }

  private:
    LIST_ENTRY* first_;
    LIST_ENTRY* last_;
};

TEST_P(Statistics, WithNoInstanceAliveTheSizeIsZero) {
    EmptyList empty;
    UINT32 size = 0;
    EXPECT_EQ(CALL(KxGetGeneralOsalStatistics)(osal, &size, nullptr), KC_OK);
    EXPECT_EQ(size, 0u);
    char byte = 'x';
    size = 1;
    EXPECT_EQ(CALL(KxGetGeneralOsalStatistics)(osal, &size, &byte), KC_OK);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(byte, 'x');
}

TEST_P(Statistics, AListLongerThanItsCountIsRefusedWithTheRecordsThatFitted) {
    slots->KxRegisterModuleName(pIOsal, "own");
    InterfaceCount = 1;
    std::vector<char> buffer(kHeader + 2 * kRecord, '\x5A');
    UINT32 size = kHeader + 2 * kRecord - 1;
    EXPECT_EQ(CALL(KxGetGeneralOsalStatistics)(osal, &size, buffer.data()), error(7));
    EXPECT_EQ(size, 588u);
    EXPECT_STREQ(buffer.data() + kHeader, "own");
    EXPECT_EQ(buffer[kHeader + kRecord], '\x5A');
    InterfaceCount = 2;
}

// A table in front of the library's own one, to see what the statistics call through pIOsal.
int copies = 0;
int emptiness_tests = 0;
void count_copy(PIOsal pThis, PVOID pDest, const void* pSrc, UINT32 Length) {
    EXPECT_EQ(pThis, pIOsal);
    EXPECT_EQ(Length, 32u);
    ++copies;
    KxCopyMemory(pThis, pDest, pSrc, Length);
}
BOOLEAN count_test(PIOsal pThis, PLIST_ENTRY pListHead) {
    EXPECT_EQ(pThis, pIOsal);
    EXPECT_EQ(pListHead, &InterfaceList);
    ++emptiness_tests;
    return KxIsListEmpty(pThis, pListHead);
}

TEST_P(Statistics, ServicesAreReachedThroughTheOwnInstance) {
    copies = emptiness_tests = 0;
    IOsalVtbl table = *slots;
    table.KxCopyMemory = count_copy;
    table.KxIsListEmpty = count_test;
    const IOsalVtbl* own = std::exchange(pIOsal->lpVtbl, &table);
    records();
    pIOsal->lpVtbl = own;
    EXPECT_EQ(copies, 2);
    EXPECT_EQ(emptiness_tests, 1);
}

TEST_P(Statistics, InstancesMayComeAndGoWhileOthersRead) {
    std::atomic<bool> done = false;
    const auto call = CALL(KxGetGeneralOsalStatistics);
    std::thread reader([&] {
        std::vector<char> buffer;
        while (!done) {
            auto size = static_cast<UINT32>(buffer.size());
            const KCSTATUS status = call(osal, &size, buffer.empty() ? nullptr : buffer.data());
            if (status == error(7)) {
                buffer.resize(size);
                continue;
            }
            ASSERT_EQ(status, KC_OK);
            UINT32 header[2];
            std::memcpy(header, buffer.data(), sizeof header);
            EXPECT_EQ(size, kHeader + kRecord * header[0]);
            EXPECT_GE(header[0], 2u);
        }
    });
    std::vector<std::thread> makers;
    for (int maker = 0; maker < 3; ++maker)
        makers.emplace_back([&] {
            for (int round = 0; round < 200; ++round) {
                PIOsal held[8];
                for (PIOsal& instance : held)
                    instance = new_instance();
                for (PIOsal instance : held) {
                    slots->KxFreeMemory(instance, slots->KxAllocPagedMemory(instance, 16));
                    slots->Release(instance);
                }
            }
        });
    for (auto& maker : makers)
        maker.join();
    done = true;
    reader.join();
    EXPECT_EQ(records().size(), 2u);
}

TEST(StatisticsBeforeStart, ACallBeforeTheFirstInitialisationFindsNoInstance) {
    char self[64] = {};
    UINT32 size = 0;
    EXPECT_EQ(KxGetGeneralOsalStatistics(reinterpret_cast<PIOsal>(self), &size, nullptr), KC_OK);
    EXPECT_EQ(size, 0u);
}

}  // namespace
}  // namespace osal_test
