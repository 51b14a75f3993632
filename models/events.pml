/* Events as the library signals and waits for them: signallers, single waits and one wait for several
 * events, with the registrations that it leaves on them and takes off again.
 *
 * A mutex is a variable that holds its owner. A condition is a count of sleepers and of wake-ups on
 * their way to them. All interleavings are searched; nothing is timed, but a wait that is not
 * patient may give up at any moment. Where a wait may rightly last for ever it is labelled as an end.
 *
 * Checked: no deadlock on a mutex; no registration outlives its wait (a signal that finds one finds
 * the waiting call alive); event mutexes are taken before the master's and one at a time; a signal is
 * never lost to all waiters.
 *
 * KIND: SYNCHRONIZATION or NOTIFICATION. ALL: wait for all events, else for any. MUTATE_...: one
 * deliberate mistake each, which the search must find.
 */
#define SYNCHRONIZATION 0
#define NOTIFICATION 1
#ifndef KIND
#define KIND SYNCHRONIZATION
#endif
#ifndef ALL
#define ALL false
#endif

#define EVENTS 2

typedef Event {
    byte mutex;        /* owner's process number and one; 0: free */
    bool state;
    byte sleepers;     /* single waits on the condition */
    byte wakes;        /* of them, those that are woken already */
    bool registered    /* the waiting call's registration */
}

Event event[EVENTS];
byte master_mutex;
bool master_state;
byte master_sleepers;
byte master_wakes;
bool master_alive;     /* the waiting call has not returned */

inline lock(held) { atomic { held == 0 -> held = _pid + 1 } }
inline unlock(held) { atomic { assert(held == _pid + 1); held = 0 } }
inline wake_one(asleep, woken) { if :: asleep > woken -> woken++ :: else fi }

/* One that gives up leaves a wake-up that was not meant for it alone to the others. */
inline stop_sleeping(asleep, woken) {
    asleep--;
    if :: woken > asleep -> woken = asleep :: else fi
}

inline consume(e) { if :: KIND == SYNCHRONIZATION -> event[e].state = false :: else fi }

proctype Signal(byte e) {
    lock(event[e].mutex);
    if
    :: !event[e].state ->
        event[e].state = true;
        d_step {
            if
            :: KIND == NOTIFICATION -> event[e].wakes = event[e].sleepers
            :: else -> wake_one(event[e].sleepers, event[e].wakes)
            fi
        };
        if
        :: event[e].registered ->
            assert(master_alive);
            lock(master_mutex);
            if
#ifndef MUTATE_LOST
            :: !master_state ->
                d_step { master_state = true; wake_one(master_sleepers, master_wakes) }
#endif
            :: else
            fi;
            unlock(master_mutex)
        :: else
        fi
    :: else
    fi;
    unlock(event[e].mutex)
}

proctype Wait(byte e; bool patient) {
    lock(event[e].mutex);
    if
    :: event[e].state -> consume(e)
    :: else ->
        atomic { event[e].sleepers++; unlock(event[e].mutex) };
end_wait:
        if
        :: atomic { event[e].wakes > 0 -> event[e].wakes--; event[e].sleepers-- };
            lock(event[e].mutex);
            consume(e)
        :: atomic { !patient -> stop_sleeping(event[e].sleepers, event[e].wakes) };
            lock(event[e].mutex)
        fi
    fi;
    unlock(event[e].mutex)
}

/* The waiting call takes an event's mutex with no other one in its hands. */
inline lock_event(e) {
#ifndef MUTATE_DEADLOCK
    assert(master_mutex != _pid + 1);
    assert(event[0].mutex != _pid + 1 && event[1].mutex != _pid + 1);
#endif
    lock(event[e].mutex)
}

inline leave_event(e) {
    event[e].registered = false;
    left[e] = false;
    waiting--
}

proctype WaitForSeveral(bool patient) {
    bool left[EVENTS];     /* registrations of this call */
    byte waiting = 0;
    bool decided = false;
    bool gave_up = false;
    byte i = 0;

    master_alive = true;
    do
    :: i < EVENTS && !decided ->
        lock_event(i);
        if
        :: event[i].state -> consume(i); decided = !ALL
        :: else -> event[i].registered = true; left[i] = true; waiting++
        fi;
        unlock(event[i].mutex);
        i++
    :: else -> break
    od;

    do
    :: waiting > 0 && !decided && !gave_up ->
        lock(master_mutex);
        if
        :: master_state
        :: else ->
            atomic { master_sleepers++; unlock(master_mutex) };
end_wait:
            if
            :: atomic { master_wakes > 0 -> master_wakes--; master_sleepers-- }
            :: atomic { !patient -> stop_sleeping(master_sleepers, master_wakes); gave_up = true }
            fi;
            lock(master_mutex)
        fi;
        master_state = false;
#if !defined(MUTATE_LOCK_ORDER) && !defined(MUTATE_DEADLOCK)
        unlock(master_mutex);
#endif
        i = 0;
        do
        :: i < EVENTS ->
            if
            :: left[i] ->
                lock_event(i);
                if
                :: event[i].state -> consume(i); leave_event(i)
                :: else
                fi;
                unlock(event[i].mutex)
            :: else
            fi;
            i++
        :: else -> break
        od;
#if defined(MUTATE_LOCK_ORDER) || defined(MUTATE_DEADLOCK)
        unlock(master_mutex);
#endif
        decided = !ALL
    :: else -> break
    od;

    i = 0;
#ifdef MUTATE_REGISTRATION
    i = 1;                 /* the first is forgotten */
#endif
    do
    :: i < EVENTS ->
        if
        :: left[i] ->
            lock_event(i);
            leave_event(i);
            unlock(event[i].mutex)
        :: else
        fi;
        i++
    :: else -> break
    od;
    master_alive = false;
    assert(!event[0].registered && !event[1].registered)
}

/* When nothing moves any more, nobody sleeps on what is signalled. */
proctype NothingIsLost() {
end_watch:
    timeout ->
        assert(!(event[0].state && event[0].sleepers > event[0].wakes));
        assert(!(event[1].state && event[1].sleepers > event[1].wakes));
        assert(!(master_sleepers > master_wakes &&
                 ((event[0].registered && event[0].state) ||
                  (event[1].registered && event[1].state))))
}

init {
    atomic {
        run Signal(0);
        run Signal(0);
        run Signal(1);
        if :: run Wait(0, true) :: run Wait(0, false) fi;
        if :: run Wait(0, true) :: run Wait(0, false) fi;
        if :: run WaitForSeveral(true) :: run WaitForSeveral(false) fi;
        run NothingIsLost()
    }
}
