// The deletion threads of object managers, from the wish for one to its very end.
//
// They are the library's own but are started as threads of clients, which nobody joins, and go on
// when the instance that they were started for is gone. So they are counted from before they are
// started until they leave, and shutdown waits for them to the end: the library may be unloaded as
// soon as it returns.
#pragma once

namespace osal {

// One is to be started, which may fail. It enters first of all, and leaves last but for its end.
void expect_deletion_thread();
void give_up_deletion_thread();
void enter_deletion_thread();
void leave_deletion_thread();

// Once at start-up. Also tells a fork child that there are none.
void reset_deletion_threads();

// Returns when every deletion thread has ended.
void await_deletion_threads();

}  // namespace osal
