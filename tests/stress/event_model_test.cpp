// Every wait for up to four events, against a plain model: each type and state of each event, any
// and all, polled, with a time-out and without limit, and every set of events that is signalled
// while the wait sleeps.
#include <algorithm>
#include <cerrno>

#include "support/event_test.h"

namespace osal_test {
namespace {

enum class Kind { kPoll, kExpires, kTimed, kUntimed };
constexpr Kind kKinds[] = {Kind::kPoll, Kind::kExpires, Kind::kTimed, Kind::kUntimed};
constexpr INT64 timeout_of(Kind kind) {
    return kind == Kind::kPoll ? 0 : kind == Kind::kUntimed ? -1 : 600'000'000;
}

struct ModelEvent {
    KX_EVENT_TYPE type;
    bool signalled;
};

// One wait. The first sleep of one that does not poll signals the events of the mask; each further
// one signals all of them, so that the wait comes to its end.
struct Case {
    std::vector<ModelEvent> events;
    std::vector<std::size_t> places;  // what the array of handles holds
    bool all;
    Kind kind;
    unsigned mask;

    unsigned signals_of(int sleep) const {
        if (kind == Kind::kPoll) return 0;
        return sleep == 0 ? mask : ~0u;
    }
    bool expires() const { return kind == Kind::kPoll || kind == Kind::kExpires; }
};

void PrintTo(const Case& that, std::ostream* out) {
    for (std::size_t place : that.places)
        *out << (that.events[place].type == KxNotificationEvent ? 'n' : 's') << place
             << (that.events[place].signalled ? "+ " : "- ");
    *out << (that.all ? "all" : "any") << " kind " << static_cast<int>(that.kind) << " mask "
         << that.mask;
}

// What a wait does, said as plainly as possible.
class Model {
  public:
    explicit Model(const Case& that) : case_(that), events(that.events) {}

    KCSTATUS run() {
        if (case_.places.size() == 1) return single();
        if (case_.kind == Kind::kPoll) return poll();
        for (std::size_t i = 0; i < case_.places.size(); ++i)
            if (!take(i))
                waiting_.push_back(i);
            else if (!case_.all)
                return static_cast<KCSTATUS>(i);
        while (!waiting_.empty()) {
            const auto winner = sleep();
            if (case_.expires()) return error(10);
            if (!case_.all) return winner.value_or(0);
        }
        return KC_OK;
    }

  private:
    bool take(std::size_t i) {
        ModelEvent& event = events[case_.places[i]];
        const bool was = event.signalled;
        if (event.type == KxSynchronizationEvent) event.signalled = false;
        return was;
    }
    void signal() {
        for (std::size_t i = 0; i < events.size(); ++i)
            if (case_.signals_of(sleeps) >> i & 1) events[i].signalled = true;
        ++sleeps;
    }
    KCSTATUS single() {
        if (take(0)) return KC_OK;
        signal();
        if (case_.expires()) return kWaitTimedOut;
        take(0);
        return KC_OK;
    }
    KCSTATUS poll() {
        for (std::size_t i = 0; i < case_.places.size(); ++i)
            if (take(i) && !case_.all) return KC_OK;
        return error(1);
    }
    // The first place that is the winner's.
    std::optional<KCSTATUS> sleep() {
        signal();
        std::vector<std::size_t> still;
        std::optional<KCSTATUS> winner;
        for (std::size_t i : waiting_)
            if (!take(i))
                still.push_back(i);
            else if (!winner)
                winner = first_place_of(case_.places[i]);
        waiting_ = still;
        return winner;
    }
    KCSTATUS first_place_of(std::size_t event) const {
        const auto place = std::find(case_.places.begin(), case_.places.end(), event);
        return static_cast<KCSTATUS>(place - case_.places.begin());
    }

    const Case& case_;
    std::vector<std::size_t> waiting_;

  public:
    std::vector<ModelEvent> events;
    int sleeps = 0;
};

class EventModel : public EventTest {
  protected:
    EventModel() {
        for (KX_EVENT_TYPE type : kBothTypes)
            for (HANDLE& handle : pool_[type])
                handle = make(type);
    }
    void prepare(const Case& that) {
        handles_.clear();
        for (std::size_t i = 0; i < that.events.size(); ++i) {
            handles_.push_back(pool_[that.events[i].type][i]);
            osal::store(event_behind(handles_[i])->state, UINT32{that.events[i].signalled});
        }
        array_.clear();
        for (std::size_t place : that.places)
            array_.push_back(handles_[place]);
    }
    KCSTATUS perform(const Case& that) {
        const auto anything = static_cast<BOOLEAN>(that.all ? 1 + that.mask : 0);
        return wait_several(array_, anything, timeout_of(that.kind));
    }
    int sleep(const Case& that, int number, pthread_mutex_t* mutex) {
        unlocked(mutex, [&] {
            for (std::size_t i = 0; i < handles_.size(); ++i)
                if (that.signals_of(number) >> i & 1) signal(handles_[i]);
        });
        return that.expires() ? ETIMEDOUT : 0;
    }
    void compare(const Case& that, KCSTATUS result, std::optional<int> sleeps) {
        Model model(that);
        EXPECT_EQ(result, model.run()) << testing::PrintToString(that);
        if (sleeps) {
            EXPECT_EQ(*sleeps, model.sleeps) << testing::PrintToString(that);
        }
        for (std::size_t i = 0; i < handles_.size(); ++i) {
            EXPECT_EQ(is_signalled(handles_[i]), model.events[i].signalled)
                << i << " of " << testing::PrintToString(that);
            EXPECT_EQ(registrations(handles_[i]), 0u) << testing::PrintToString(that);
        }
        EXPECT_EQ(record->MemoryPagedInUse, 0u) << testing::PrintToString(that);
        expect_statuses(that, result);
    }
    // Both waits return the same value for a time-out, but only one builds it.
    void expect_statuses(const Case& that, KCSTATUS result) {
        std::vector<UINT32> expected, built;
        const bool several = that.places.size() > 1;
        if (several) expected.push_back(1);
        if (several && result == error(10)) expected.push_back(10);
        for (auto& status : statuses_.take())
            built.push_back(status.code);
        EXPECT_EQ(built, expected) << testing::PrintToString(that);
    }
    // Each state of so many events, waited for in these places.
    template <class Function>
    void for_each_state(std::size_t count, const std::vector<std::size_t>& places,
                        Function function) {
        for (unsigned state = 0; state < 1u << 2 * count; ++state) {
            Case that{{}, places, false, Kind::kPoll, 0};
            for (std::size_t i = 0; i < count; ++i)
                that.events.push_back({state >> 2 * i & 1, (state >> 2 * i & 2) != 0});
            for (bool all : {false, true}) {
                that.all = all;
                function(that);
            }
        }
    }
    // All sleeps are made up: what happens during each is known.
    void check(std::size_t count, const std::vector<std::size_t>& places) {
        Case* current = nullptr;
        int sleeps = 0;
        ConditionWaits waits([&](pthread_mutex_t* mutex, const timespec* deadline) {
            EXPECT_EQ(deadline == nullptr, current->kind == Kind::kUntimed);
            return sleep(*current, sleeps++, mutex);
        });
        for_each_state(count, places, [&](Case& that) {
            for (Kind kind : kKinds)
                for (that.mask = 0; that.mask < 1u << count; ++that.mask) {
                    that.kind = kind;
                    current = &that;
                    sleeps = 0;
                    prepare(that);
                    const KCSTATUS result = perform(that);
                    compare(that, result, sleeps);
                    ++cases_;
                }
        });
    }

    static std::vector<std::size_t> in_order(std::size_t count) {
        std::vector<std::size_t> places;
        for (std::size_t i = 0; i < count; ++i)
            places.push_back(i);
        return places;
    }

    int cases_ = 0;
    StatusRecorder statuses_;
    std::vector<HANDLE> handles_, array_;

  private:
    HANDLE pool_[2][4];
};
OSAL_BOTH_WAYS(EventModel);

TEST_P(EventModel, EveryWaitForUpToFourEvents) {
    for (std::size_t count = 1; count <= 4; ++count)
        check(count, in_order(count));
    EXPECT_EQ(cases_, 2 * 4 * (4 * 2 + 16 * 4 + 64 * 8 + 256 * 16));
}

TEST_P(EventModel, EveryWaitForTwoEventsInThreeOrFourPlaces) {
    for (std::size_t length : {3u, 4u})
        for (unsigned choice = 0; choice < 1u << length; ++choice) {
            std::vector<std::size_t> places;
            for (std::size_t i = 0; i < length; ++i)
                places.push_back(choice >> i & 1);
            check(2, places);
        }
}

// The platform's own sleeps.
TEST_P(EventModel, EveryWaitForUpToFourEventsThatNobodySignals) {
    for (std::size_t count = 1; count <= 4; ++count)
        for_each_state(count, in_order(count), [&](Case& that) {
            that.kind = Kind::kExpires;
            prepare(that);
            const KCSTATUS result = wait_several(array_, that.all, 50);
            compare(that, result, {});
        });
}

}  // namespace
}  // namespace osal_test
