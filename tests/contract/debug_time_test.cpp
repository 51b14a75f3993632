// Debug output and system time, by export and by slot.
#include <syslog.h>
#include <time.h>

#include "support/recorders.h"
#include "support/service_test.h"

namespace osal_test {
namespace {

class Debug : public BothWays {};
OSAL_BOTH_WAYS(Debug);

TEST_P(Debug, PrintfLogsOneFormattedLineAtInfoAsItIs) {
    LogRecorder log;
    CALL(KxDebugPrintf)(osal, "%s has %u of %d\n", "it", 7u, -1);
    const auto lines = log.take();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].priority, LOG_USER | LOG_INFO);
    EXPECT_EQ(lines[0].text, "it has 7 of -1\n");
}

TEST_P(Debug, PrintfAddsNoPrefixAndNoNewline) {
    LogRecorder log;
    CALL(KxDebugPrintf)(nullptr, "bare");
    const auto lines = log.take();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text, "bare");
}

TEST_P(Debug, PrintfPassesTheFormatItselfOn) {
    static const char* seen;
    Interpose hook(
        "osal.so", "vsyslog", +[](int, const char* format, va_list) { seen = format; });
    const char* format = "%d%%";
    CALL(KxDebugPrintf)(osal, "%d%%", 5);
    EXPECT_STREQ(seen, format);
}

TEST_P(Debug, BreakPointDoesNothing) {
    LogRecorder log;
    StatusRecorder statuses;
    CALL(KxDebugBreakPoint)(osal);
    CALL(KxDebugBreakPoint)(nullptr);
    EXPECT_TRUE(log.take().empty());
    statuses.expect_none();
}

timespec clock_now;
clockid_t clock_asked;

int stand_in_clock(clockid_t clock, timespec* now) {
    if (!Interpose::made_here()) return clock_gettime(clock, now);
    clock_asked = clock;
    *now = clock_now;
    return 0;
}

class SystemTime : public BothWays {
  protected:
    UINT64 time_at(time_t seconds, long nanoseconds) {
        clock_now = {seconds, nanoseconds};
        Interpose hook("osal.so", "clock_gettime", &stand_in_clock);
        UINT64 time = 0;
        CALL(KxGetSystemTime)(osal, &time);
        return time;
    }
};
OSAL_BOTH_WAYS(SystemTime);

TEST_P(SystemTime, AtTheUnixEpochIsTheDistanceFrom1601) {
    EXPECT_EQ(time_at(0, 0), 116444736000000000u);
    EXPECT_EQ(clock_asked, CLOCK_REALTIME);
}

TEST_P(SystemTime, CountsHundredsOfNanosecondsRoundedDown) {
    EXPECT_EQ(time_at(0, 199), 116444736000000001u);
    EXPECT_EQ(time_at(1, 999'999'999), 116444736000000000u + 19'999'999u);
    EXPECT_EQ(time_at(4'294'967'296, 0), 116444736000000000u + 42'949'672'960'000'000u);
}

TEST_P(SystemTime, BeforeTheUnixEpochCountsDown) {
    EXPECT_EQ(time_at(-1, 0), 116444736000000000u - 10'000'000u);
}

TEST_P(SystemTime, FollowsTheRealtimeClockAndIgnoresTheInstance) {
    const auto now = [] {
        timespec time;
        clock_gettime(CLOCK_REALTIME, &time);
        return 116444736000000000u + static_cast<UINT64>(time.tv_sec) * 10'000'000u +
               static_cast<UINT64>(time.tv_nsec) / 100u;
    };
    const UINT64 before = now();
    UINT64 time = 0;
    CALL(KxGetSystemTime)(nullptr, &time);
    EXPECT_LE(before, time);
    EXPECT_LE(time, now());
}

}  // namespace
}  // namespace osal_test
