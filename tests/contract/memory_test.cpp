// Guarded pool memory, by export and by slot.
#include "osal/memory.h"

#include "support/recorders.h"
#include "support/service_test.h"

namespace osal_test {
namespace {

class Memory : public BothWays {};
OSAL_BOTH_WAYS(Memory);

TEST_P(Memory, ASizeOfZeroGivesNull) {
    EXPECT_EQ(CALL(KxAllocPagedMemory)(osal, 0), nullptr);
    EXPECT_EQ(CALL(KxAllocNonPagedMemory)(osal, 0), nullptr);
    EXPECT_EQ(record->MemoryPagedTotalAllocated, 0u);
}

TEST_P(Memory, AReleaseLowersInUseAndKeepsTotal) {
    void* block = CALL(KxAllocPagedMemory)(osal, 100);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(length_of(record->MemoryPagedList), 1u);
    EXPECT_EQ(CALL(KxFreeMemory)(osal, block), KC_OK);
    EXPECT_EQ(length_of(record->MemoryPagedList), 0u);
    EXPECT_EQ(record->MemoryPagedInUse, 0u);
    EXPECT_EQ(record->MemoryPagedTotalAllocated, 100u);
}

TEST_P(Memory, ANullPointerIsAnInvalidArgument) {
    StatusRecorder statuses;
    EXPECT_EQ(CALL(KxFreeMemory)(osal, nullptr), error(4));
    statuses.expect_one(4, "memory", "KxFreeMemory");
}

}  // namespace
}  // namespace osal_test
