#include "store.h"

#include <errno.h>
#include <pthread.h>
#include <sqlite3.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <iterator>

#include "file.h"
#include "handles.h"

namespace tsreg {
namespace {

constexpr int kBusyTimeoutMs = 10'000;
constexpr timespec kRetryPause = {0, 10'000'000};

// Names are compared by the column's collation. Key numbers are never used again, so that a handle
// of a deleted key cannot reach another one. Format 1.
constexpr const char* kCreate = R"(
BEGIN IMMEDIATE;
PRAGMA application_id = 0x6F727667;
PRAGMA user_version = 1;
CREATE TABLE IF NOT EXISTS keys(
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  parent INTEGER NOT NULL,
  name TEXT NOT NULL COLLATE NOCASE,
  written INTEGER NOT NULL,
  UNIQUE(parent, name));
CREATE TABLE IF NOT EXISTS vals(
  key INTEGER NOT NULL,
  name TEXT NOT NULL COLLATE NOCASE,
  type INTEGER NOT NULL,
  data BLOB NOT NULL,
  PRIMARY KEY(key, name)) WITHOUT ROWID;
INSERT OR IGNORE INTO keys VALUES(1, 0, '', 0);
COMMIT;
)";
constexpr int kApplicationId = 0x6F727667;
constexpr int kFormat = 1;

constexpr const char* kSetValue =
    "INSERT INTO vals VALUES(?, ?, ?, ?)"
    " ON CONFLICT DO UPDATE SET type = excluded.type, data = excluded.data";

constexpr const char* kStatements[] = {
    "BEGIN",
    "BEGIN IMMEDIATE",
    "COMMIT",
    "ROLLBACK",
    "SAVEPOINT call",
    "RELEASE call",
    "ROLLBACK TO call",
    "SELECT seq FROM sqlite_sequence WHERE name = 'keys'",
    "SELECT 1 FROM keys WHERE id = ?",
    "SELECT id FROM keys WHERE parent = ? AND name = ?",
    "INSERT INTO keys(parent, name, written) VALUES(?, ?, ?) RETURNING id",
    "UPDATE keys SET written = ? WHERE id = ?",
    "UPDATE keys SET written = ? WHERE id = (SELECT parent FROM keys WHERE id = ?)",
    "SELECT name, written FROM keys WHERE parent = ? AND name >= ? ORDER BY name LIMIT 1 OFFSET ?",
    "DELETE FROM keys WHERE id = ?",
    "DELETE FROM vals WHERE key = ?",
    "SELECT type, data FROM vals WHERE key = ? AND name = ?",
    "SELECT name, type, data FROM vals WHERE key = ? AND name >= ? ORDER BY name LIMIT 1 OFFSET ?",
    kSetValue,
    "DELETE FROM vals WHERE key = ? AND name = ?",
};
constexpr auto kStatementCount = static_cast<std::size_t>(Sql::kCount);
static_assert(std::size(kStatements) == kStatementCount);

constinit pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;

// Guarded by the lock.
constinit sqlite3* connection = nullptr;
constinit sqlite3_stmt* statements[kStatementCount] = {};
constinit UINT32 epoch = 0;     // grows where SQLite's version of the content stays
constinit bool broken = false;  // to be closed at the end of the section
constinit int last_logged = SQLITE_OK;
constinit char path[kPathSize] = {};
constinit bool fork_handlers_set = false;
constinit int fork_cancel_state = 0;
constinit int transaction_cancel_state = 0;
constinit INT64 transaction_first_key = 0;  // this and later ones vanish if it is taken back

// The thread that holds the lock for a transaction of its own, or 0. Read without the lock: a
// thread looks for itself only, which nobody else writes here. No thread_local variable, because
// the leak checker stumbles over those of libraries that were unloaded.
constinit std::atomic<pthread_t> transaction_thread = 0;

bool file_system_is_full() {
    const int error = connection != nullptr ? sqlite3_system_errno(connection) : 0;
    return error == ENOSPC || error == EDQUOT;
}

UINT32 code_of(int result) {
    switch (result & 0xFF) {
        case SQLITE_BUSY:
        case SQLITE_LOCKED:
            return KC_CODE_TIMED_OUT;
        case SQLITE_NOMEM:
        case SQLITE_FULL:
            return KC_CODE_NO_RESOURCES;
        case SQLITE_READONLY:
        case SQLITE_PERM:
        case SQLITE_CANTOPEN:
            return KC_CODE_ACCESS_DENIED;
        case SQLITE_CORRUPT:
        case SQLITE_NOTADB:
            return KC_CODE_DAMAGED;
        case SQLITE_IOERR:
            return file_system_is_full() ? KC_CODE_NO_RESOURCES : KC_CODE_FAILED;
        default:
            return KC_CODE_FAILED;
    }
}

// After these the file may be another one when it is opened next, or work again.
bool ends_connection(int result) {
    const int kind = result & 0xFF;
    return kind == SQLITE_CORRUPT || kind == SQLITE_NOTADB || kind == SQLITE_IOERR ||
           kind == SQLITE_CANTOPEN || kind == SQLITE_READONLY;
}

KCSTATUS fail(int result) {
    if (result != last_logged) {
        last_logged = result;
        syslog(LOG_USER | LOG_ERR, "registry file %s: %s", path, sqlite3_errstr(result));
    }
    if (ends_connection(result)) broken = true;
    return error(code_of(result));
}

// SQLite ends a transaction by itself upon the worst failures, and loses it with the connection.
bool is_lost() {
    return connection == nullptr || sqlite3_get_autocommit(connection);
}

void close_connection() {
    for (sqlite3_stmt*& statement : statements) {
        sqlite3_finalize(statement);
        statement = nullptr;
    }
    sqlite3_close(connection);
    connection = nullptr;
    broken = false;
}

// The connection must not reach the child, where SQLite would believe in file locks that only the
// parent holds. The log of the file is left for the next connection, which may be a moment away.
// A transaction of the forking thread is lost by this.
void before_fork() {
    if (!in_thread_transaction()) {
        int state;
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
        pthread_mutex_lock(&lock);
        fork_cancel_state = state;
    }
    if (connection == nullptr) return;
    sqlite3_db_config(connection, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    close_connection();
}

void after_fork() {
    if (in_thread_transaction()) return;
    const int state = fork_cancel_state;
    pthread_mutex_unlock(&lock);
    pthread_setcancelstate(state, nullptr);
}

int number_of(const char* sql, int* number) {
    sqlite3_stmt* statement = nullptr;
    int result = sqlite3_prepare_v2(connection, sql, -1, &statement, nullptr);
    if (result == SQLITE_OK) result = sqlite3_step(statement);
    if (result == SQLITE_ROW) {
        *number = sqlite3_column_int(statement, 0);
        result = SQLITE_OK;
    }
    sqlite3_finalize(statement);
    return result;
}

// The busy time-out does not cover the switch to a write-ahead log, which processes that meet at a
// new file try at the same time.
int execute(const char* sql) {
    int result;
    for (int tries = kBusyTimeoutMs / 10; tries > 0; --tries) {
        result = sqlite3_exec(connection, sql, nullptr, nullptr, nullptr);
        if ((result & 0xFF) != SQLITE_BUSY) return result;
        if (!sqlite3_get_autocommit(connection))
            sqlite3_exec(connection, "ROLLBACK", nullptr, nullptr, nullptr);
        nanosleep(&kRetryPause, nullptr);
    }
    return result;
}

// Refuses a database of something else before anything is written to it.
int check_format(bool* empty) {
    int schema = 0;
    int application = 0;
    int format = 0;
    int result = number_of("PRAGMA schema_version", &schema);
    if (result == SQLITE_OK) result = number_of("PRAGMA application_id", &application);
    if (result == SQLITE_OK) result = number_of("PRAGMA user_version", &format);
    if (result != SQLITE_OK) return result;
    *empty = schema == 0;
    return *empty || (application == kApplicationId && format == kFormat) ? SQLITE_OK
                                                                          : SQLITE_NOTADB;
}

int set_up() {
    sqlite3_extended_result_codes(connection, 1);
    sqlite3_busy_timeout(connection, kBusyTimeoutMs);
    bool empty = false;
    int result = check_format(&empty);
    if (result == SQLITE_OK) result = execute("PRAGMA journal_mode = WAL");
    if (result == SQLITE_OK)
        result = execute("PRAGMA synchronous = FULL; PRAGMA journal_size_limit = 8388608");
    if (result == SQLITE_OK && empty) result = execute(kCreate);
    return result;
}

int connect() {
    constexpr int kFlags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_PRIVATECACHE;
    const int result = sqlite3_open_v2(path, &connection, kFlags, nullptr);
    return result == SQLITE_OK ? set_up() : result;
}

sqlite3_stmt* prepared(Sql which) {
    const auto index = static_cast<std::size_t>(which);
    sqlite3_stmt*& statement = statements[index];
    if (statement == nullptr)
        sqlite3_prepare_v3(connection, kStatements[index], -1, SQLITE_PREPARE_PERSISTENT,
                           &statement, nullptr);
    return statement;
}

}  // namespace

Section::Section() {
    if (in_thread_transaction()) {
        cancel_state_ = transaction_cancel_state;
        return;
    }
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel_state_);
    pthread_mutex_lock(&lock);
}

Section::~Section() {
    if (broken) close_connection();
    if (in_thread_transaction()) {
        transaction_cancel_state = cancel_state_;
        return;
    }
    pthread_mutex_unlock(&lock);
    pthread_setcancelstate(cancel_state_, nullptr);
}

KCSTATUS open_store(bool make) {
    if (in_thread_transaction()) return is_lost() ? kLost : KC_OK;
    if (connection != nullptr) return KC_OK;
    if (!choose_file(path)) return fail(SQLITE_CANTOPEN);
    if (make) make_file(path);
    if (!make && access(path, F_OK) != 0 && errno == ENOENT) return kNotFound;
    if (!fork_handlers_set)
        fork_handlers_set = pthread_atfork(before_fork, after_fork, after_fork) == 0;
    if (const int result = connect(); result != SQLITE_OK) {
        broken = true;
        return fail(result);
    }
    ++epoch;
    return KC_OK;
}

void close_store() {
    close_connection();
}

UINT64 store_version() {
    UINT32 version = 0;
    sqlite3_file_control(connection, "main", SQLITE_FCNTL_DATA_VERSION, &version);
    return UINT64{epoch} << 32 | version;
}

int rows_changed() {
    return sqlite3_changes(connection);
}

Query::Query(Sql which) : statement_(prepared(which)) {}

void Query::reset() {
    sqlite3_reset(statement_);
    bound_ = 0;
}

Query& Query::bind(INT64 number) {
    sqlite3_bind_int64(statement_, ++bound_, number);
    return *this;
}

Query& Query::bind(std::string_view text) {
    sqlite3_bind_text(statement_, ++bound_, text.data(), static_cast<int>(text.size()),
                      SQLITE_STATIC);
    return *this;
}

Query& Query::bind_data(const void* data, UINT32 size) {
    sqlite3_bind_blob(statement_, ++bound_, size != 0 ? data : "", static_cast<int>(size),
                      SQLITE_STATIC);
    return *this;
}

KCSTATUS Query::row(KCSTATUS none) {
    if (statement_ == nullptr) return fail(sqlite3_extended_errcode(connection));
    switch (const int result = sqlite3_step(statement_)) {
        case SQLITE_ROW:
            return KC_OK;
        case SQLITE_DONE:
            return none;
        default:
            return fail(result);
    }
}

INT64 Query::number(int column) const {
    return sqlite3_column_int64(statement_, column);
}

std::string_view Query::text(int column) const {
    const void* bytes = sqlite3_column_blob(statement_, column);
    const int size = sqlite3_column_bytes(statement_, column);
    if (bytes == nullptr) return "";
    return {static_cast<const char*>(bytes), static_cast<std::size_t>(size)};
}

KCSTATUS Transaction::begin(Sql how) {
    const KCSTATUS status = Query(in_thread_transaction() ? Sql::kSave : how).run();
    active_ = status == KC_OK;
    return status;
}

KCSTATUS Transaction::commit() {
    const KCSTATUS status = Query(in_thread_transaction() ? Sql::kRelease : Sql::kCommit).run();
    if (status != KC_OK) return status;
    if (in_thread_transaction()) ++epoch;
    active_ = false;
    last_logged = SQLITE_OK;
    return KC_OK;
}

Transaction::~Transaction() {
    if (!active_ || sqlite3_get_autocommit(connection)) return;
    Query(in_thread_transaction() ? Sql::kRollbackToSave : Sql::kRollback).run();
    if (in_thread_transaction()) Query(Sql::kRelease).run();
}

bool in_thread_transaction() {
    return transaction_thread.load(std::memory_order_relaxed) == pthread_self();
}

KCSTATUS begin_thread_transaction() {
    if (const KCSTATUS status = Query(Sql::kBeginWrite).run(); status != KC_OK) return status;
    Query last_key(Sql::kLastKey);
    if (const KCSTATUS status = last_key.row(kLost); status != KC_OK) {
        last_key.reset();
        Query(Sql::kRollback).run();
        return status;
    }
    transaction_first_key = last_key.number(0) + 1;
    transaction_thread.store(pthread_self(), std::memory_order_relaxed);
    return KC_OK;
}

KCSTATUS commit_thread_transaction() {
    const KCSTATUS status = is_lost() ? kLost : Query(Sql::kCommit).run();
    if (status != KC_OK) rollback_thread_transaction();
    transaction_thread.store(0, std::memory_order_relaxed);
    return status;
}

// Numbers of keys that were made in the transaction will be given to other keys.
void rollback_thread_transaction() {
    if (!is_lost()) Query(Sql::kRollback).run();
    disown_keys_from(transaction_first_key);
    ++epoch;
    transaction_thread.store(0, std::memory_order_relaxed);
}

}  // namespace tsreg
