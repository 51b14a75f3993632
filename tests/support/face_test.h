// Fixture for the C++ face: components that run, and a service instance whose counters must all be
// back at zero in the end.
#pragma once

#include <gtest/gtest.h>
#include <string.h>

#include <vector>

#include "osal/interface.hpp"
#include "osal/statistics.h"

namespace osal_test {

class FaceTest : public testing::Test {
  protected:
    static constexpr const char* kName = "face test";

    // The record of the fixture's instance.
    GEN_OSAL_STATS_INFO counters() const {
        UINT32 size = 0;
        service.call<&IOsalVtbl::KxGetGeneralOsalStatistics>(&size, PVOID{});
        std::vector<char> buffer(size);
        EXPECT_EQ(service.call<&IOsalVtbl::KxGetGeneralOsalStatistics>(&size, PVOID{buffer.data()}),
                  KC_OK);
        GEN_OSAL_STATS_INFO record = {};
        UINT32 count = 0;
        memcpy(&count, buffer.data(), sizeof count);
        for (UINT32 i = 0; i < count && strcmp(record.ModuleName, kName) != 0; ++i)
            memcpy(&record,
                   buffer.data() + offsetof(GEN_OSAL_STATS_INFO_BUF, GenOsalStatsInfo) +
                       i * sizeof record,
                   sizeof record);
        EXPECT_STREQ(record.ModuleName, kName);
        return record;
    }

    void TearDown() override {
        const GEN_OSAL_STATS_INFO left = counters();
        EXPECT_EQ(left.EventInUse + left.KeyInUse + left.LockInUse + left.MutexInUse +
                      left.SpinLockInUse + left.TimerInUse + left.WorkItemInUse,
                  0u);
        EXPECT_EQ(left.MemoryNonPagedInUse + left.MemoryPagedInUse, 0u);
    }

    // The code of the error that a call throws; 0 if it throws none.
    template <class Call>
    static UINT32 code_of(Call call) {
        try {
            call();
        } catch (const kx::Error& error) {
            return error.code();
        }
        return 0;
    }

    kx::Runtime runtime;
    kx::Service service{kName};
};

}  // namespace osal_test
