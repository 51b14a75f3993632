// The registry file as an SQLite connection with prepared statements.
//
// One connection a process, guarded by one lock: SQLite's own sharing between threads would gain
// nothing but more connections to end when the library is unloaded. fork finds the connection
// closed, since neither it nor the file locks it knows of may cross; the next call opens it anew.
#pragma once

#include <string_view>

#include "osal/types.h"
#include "status.h"

struct sqlite3_stmt;

namespace tsreg {

constexpr INT64 kHiveId = 1;  // row of the hive, which every file has

// The library's lock for the life of the object, and no cancellation meanwhile: SQLite could not
// be left in the middle. A thread that has a transaction of its own keeps both until it ends.
class Section {
  public:
    Section();
    ~Section();
    Section(const Section&) = delete;
    Section& operator=(const Section&) = delete;

  private:
    int cancel_state_ = 0;
};

// What follows is for use inside a Section.

// Opens the file unless it is open. kNotFound: there is none, and make is false. kLost: the
// calling thread's transaction was lost.
KCSTATUS open_store(bool make);

// Closes it, for unloading.
void close_store();

// Changes whenever the content of the file does, as seen by the last statement that was stepped.
UINT64 store_version();

// Rows that the last statement changed.
int rows_changed();

enum class Sql {
    kBeginRead,
    kBeginWrite,
    kCommit,
    kRollback,
    kSave,
    kRelease,
    kRollbackToSave,
    kLastKey,
    kKeyExists,
    kFindKey,
    kAddKey,
    kTouchKey,
    kTouchParent,
    kSubKeyFrom,
    kDropKey,
    kDropValues,
    kFindValue,
    kValueFrom,
    kSetValue,
    kDropValue,
    kCount
};

// One use of a prepared statement. Parameters are bound in order; bound texts and data must
// outlive the object.
class Query {
  public:
    explicit Query(Sql which);
    ~Query() { reset(); }
    Query(const Query&) = delete;
    Query& operator=(const Query&) = delete;

    Query& bind(INT64 number);
    Query& bind(std::string_view text);
    Query& bind_data(const void* data, UINT32 size);

    // KC_OK: there is a row, whose columns are valid until the next step. none: there is no further
    // one. Any other status: a failure, which was logged.
    KCSTATUS row(KCSTATUS none);
    // Runs a statement that has no rows.
    KCSTATUS run() { return row(KC_OK); }
    void reset();

    INT64 number(int column) const;
    std::string_view text(int column) const;  // or any bytes

  private:
    sqlite3_stmt* statement_;
    int bound_ = 0;
};

// The transaction of one call, rolled back unless committed; within a transaction of the thread, a
// part of that.
class Transaction {
  public:
    ~Transaction();
    KCSTATUS begin(Sql how);
    KCSTATUS commit();

  private:
    bool active_ = false;
};

// The transaction of the calling thread, which spans calls.
bool in_thread_transaction();
KCSTATUS begin_thread_transaction();
// The transaction ends, whatever the status; of any but KC_OK nothing of it is left.
KCSTATUS commit_thread_transaction();
void rollback_thread_transaction();

}  // namespace tsreg
