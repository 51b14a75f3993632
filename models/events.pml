/* Events as the library signals and waits for them: signallers, single waits and one wait for several
 * events, with the registrations that it leaves on them and takes off again, and the destruction of an
 * event by whoever got its signal.
 *
 * A mutex or gate is a variable that holds its owner. A condition is a count of sleepers and of
 * wake-ups on their way to them. All interleavings are searched; nothing is timed, but a wait that is
 * not patient may give up at any moment. Where a wait may rightly last for ever it is labelled as an
 * end. What is done behind a gate is one step: the gate guards all of it but the state, which others
 * can only lower meanwhile. Only where events are destroyed does a signal open the gate in a step of
 * its own.
 *
 * Checked: no deadlock; no registration outlives its wait (a signal that finds one finds the waiting
 * call alive); event mutexes are taken before the master's and one at a time; a signal is never lost
 * to all waiters; nobody touches an event after it was destroyed, nor is its mutex held by then.
 *
 * KIND: SYNCHRONIZATION or NOTIFICATION. ALL: wait for all events, else for any. SINGLE: single waits
 * only. DESTROY: one signal, and one wait after whose success the event is destroyed. MUTATE_...: one
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
    byte gate;         /* the same */
    bool state;
    byte listeners;    /* single waits that sleep or are about to, and registrations */
    byte wakers;       /* signals that found listeners and are not out yet */
    byte sleepers;     /* single waits on the condition */
    byte wakes;        /* of them, those that are woken already */
    bool registered;   /* the waiting call's registration */
    bool gone          /* destroyed */
}

Event event[EVENTS];
byte master_mutex;
bool master_state;
byte master_sleepers;
byte master_wakes;
bool master_alive;     /* the waiting call has not returned */

inline lock(held) { atomic { held == 0 -> held = _pid + 1 } }
inline unlock(held) { atomic { assert(held == _pid + 1); held = 0 } }
inline lock_mutex(e) { atomic { event[e].mutex == 0 -> assert(!event[e].gone); event[e].mutex = _pid + 1 } }
inline unlock_mutex(e) { atomic { assert(!event[e].gone); unlock(event[e].mutex) } }
#ifdef DESTROY
inline close_gate(e) { event[e].gate = _pid + 1 }
inline open_gate(e) { atomic { assert(!event[e].gone); unlock(event[e].gate) } }
#else
inline close_gate(e) { skip }
inline open_gate(e) { skip }
#endif
inline wake_one(asleep, woken) { if :: asleep > woken -> woken++ :: else fi }

/* One that gives up leaves a wake-up that was not meant for it alone to the others. */
inline stop_sleeping(asleep, woken) {
    asleep--;
    if :: woken > asleep -> woken = asleep :: else fi
}

/* Lock-free. */
inline take(e, taken) {
    d_step {
        assert(!event[e].gone);
        taken = event[e].state;
        if :: KIND == SYNCHRONIZATION -> event[e].state = false :: else fi
    }
}

inline take_or_listen(e, taken) {
#ifdef MUTATE_GATE
    take(e, taken);        /* without a gate round both */
    atomic { if :: !taken -> event[e].listeners++ :: else fi }
#else
    atomic {
        event[e].gate == 0;
        take(e, taken);
        if :: !taken -> event[e].listeners++ :: else fi
    }
#endif
}

inline stop_listening(e) {
    atomic { event[e].gate == 0 -> assert(!event[e].gone && event[e].listeners > 0); event[e].listeners-- }
}

inline signal_master() {
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
}

proctype Signal(byte e) {
    bool found = false;    /* listeners */

    atomic {
        event[e].gate == 0;
        assert(!event[e].gone);
        if
        :: !event[e].state ->
            event[e].state = true;
            found = event[e].listeners != 0;
            if :: found -> event[e].wakers++ :: else fi
        :: else
        fi;
        close_gate(e)
    };
    open_gate(e);
    if
    :: found ->
#ifndef MUTATE_UNSEEN
        lock_mutex(e);
        if :: event[e].registered -> signal_master() :: else fi;
        unlock_mutex(e);
#endif
        d_step {
            assert(!event[e].gone);
            if
            :: KIND == NOTIFICATION -> event[e].wakes = event[e].sleepers
            :: else -> wake_one(event[e].sleepers, event[e].wakes)
            fi
        };
        atomic { event[e].gate == 0 -> assert(!event[e].gone); event[e].wakers--; close_gate(e) };
        open_gate(e)
    :: else
    fi
}

/* A successful one sets won. */
inline wait_for_one(e, patient, won) {
    take(e, won);
    if
    :: !won ->
        lock_mutex(e);
        take_or_listen(e, won);
        if
        :: !won ->
            atomic { event[e].sleepers++; unlock_mutex(e) };
end_wait:
            if
            :: atomic { event[e].wakes > 0 -> event[e].wakes--; event[e].sleepers-- };
                lock_mutex(e);
                take(e, won);
                won = true             /* whatever it took */
            :: atomic { !patient -> stop_sleeping(event[e].sleepers, event[e].wakes) };
                lock_mutex(e)
            fi;
            stop_listening(e)
        :: else
        fi;
        unlock_mutex(e)
    :: else
    fi
}

proctype Wait(byte e; bool patient) {
    bool won;
    wait_for_one(e, patient, won)
}

/* Waits until no signal is on its way out. */
inline destroy(e) {
    atomic {
#ifdef MUTATE_EARLY
        event[e].gate == 0;
#else
        event[e].gate == 0 && event[e].wakers == 0;
#endif
        assert(event[e].mutex == 0 && event[e].sleepers == 0);
        event[e].gone = true
    }
}

/* The waiting call takes an event's mutex with no other one in its hands. */
inline lock_event(e) {
#ifndef MUTATE_DEADLOCK
    assert(master_mutex != _pid + 1);
    assert(event[0].mutex != _pid + 1 && event[1].mutex != _pid + 1);
#endif
    lock_mutex(e)
}

inline leave_event(e) {
    event[e].registered = false;
    left[e] = false;
    waiting--;
    stop_listening(e)
}

proctype WaitForSeveral(bool patient) {
    bool left[EVENTS];     /* registrations of this call */
    byte waiting = 0;
    bool decided = false;
    bool gave_up = false;
    bool taken = false;
    byte i = 0;

    do                     /* the first look */
    :: i < EVENTS && !ALL && !decided -> take(i, decided); i++
    :: else -> break
    od;

    i = 0;
    master_alive = !decided;
    do
    :: i < EVENTS && !decided ->
        lock_event(i);
        take_or_listen(i, taken);
        if
        :: taken -> decided = !ALL
        :: else -> event[i].registered = true; left[i] = true; waiting++
        fi;
        unlock_mutex(i);
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
            :: left[i] && event[i].state ->
                lock_event(i);
                take(i, taken);
                if :: taken -> leave_event(i) :: else fi;
                unlock_mutex(i)
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
            unlock_mutex(i)
        :: else
        fi;
        i++
    :: else -> break
    od;
    master_alive = false;
    assert(!event[0].registered && !event[1].registered);
#ifdef DESTROY
    destroy(0)
#endif
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

/* The wait succeeded, so the only signal was sent. */
proctype WaitAndDestroy() {
    bool won = false;
    do
    :: !won -> wait_for_one(0, false, won)
    :: else -> break
    od;
    destroy(0)
}

init {
    atomic {
#ifdef DESTROY
        run Signal(0);
        if :: run WaitAndDestroy() :: run WaitForSeveral(true) fi;
#else
        run Signal(0);
        run Signal(0);
        if :: run Wait(0, true) :: run Wait(0, false) fi;
#ifdef SINGLE
        if :: run Wait(0, true) :: run Wait(0, false) fi;
        if :: run Wait(0, true) :: run Wait(0, false) fi;
#else
        run Signal(1);
        if :: run WaitForSeveral(true) :: run WaitForSeveral(false) fi;
#endif
#endif
#ifndef MUTATE_DEADLOCK
        run NothingIsLost()    /* would be the first to complain */
#endif
    }
}
