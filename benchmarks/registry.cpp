// The registry against SQLite used directly with prepared statements, LMDB and GKeyFile.
//
// SQLite, LMDB and the registry wait for the disk on each set; GKeyFile keeps everything in memory
// and writes the whole file.
#include <sqlite3.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "harness.h"
#include "host/tsreg.h"
#include "library.h"

#ifdef HAVE_LMDB
#include <lmdb.h>
#endif
#ifdef HAVE_GLIB
#include <glib.h>
#endif

namespace {

using bench::Contender;
using bench::keep;

constexpr const char* kGroup = "Software\\Orvane\\Bench";
constexpr WCHAR kKey[] = {'B', 'e', 'n', 'c', 'h', 0};
constexpr UINT32 kData = 0x11223344;

std::string value_name(std::size_t number) {
    return "value" + std::to_string(100'000 + number);
}

void need(bool good, const char* what) {
    if (good) return;
    std::fprintf(stderr, "%s failed\n", what);
    std::exit(1);
}

// What each library does; an empty function is left out.
struct Store {
    std::string name;
    std::function<void(const std::string& name)> set;
    std::function<void(std::uint64_t)> query;  // of value 0, n times
    std::function<void(std::uint64_t)> open_query_close;
    std::function<void(std::uint64_t)> list;  // all values, n times
};

class Folder {
  public:
    Folder() {
        std::string name = std::filesystem::temp_directory_path() / "bench-XXXXXX";
        path = mkdtemp(name.data());
        setenv("TSREG_FILE", (path + "/registry.db").c_str(), 1);
    }
    ~Folder() { std::filesystem::remove_all(path); }
    std::string path;
};

class Sqlite {
  public:
    explicit Sqlite(const std::string& file) {
        need(sqlite3_open_v2(file.c_str(), &database_,
                             SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                             nullptr) == SQLITE_OK,
             "sqlite3_open_v2");
        need(sqlite3_exec(database_,
                          "PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL;"
                          "CREATE TABLE vals(key TEXT, name TEXT COLLATE NOCASE, type INT, data "
                          "BLOB, PRIMARY KEY(key, name)) WITHOUT ROWID",
                          nullptr, nullptr, nullptr) == SQLITE_OK,
             "sqlite3_exec");
        query_ = prepare("SELECT type, data FROM vals WHERE key = ? AND name = ?");
        list_ = prepare("SELECT name, type, data FROM vals WHERE key = ? ORDER BY name");
        set_ = prepare("INSERT OR REPLACE INTO vals VALUES(?, ?, 1, ?)");
    }
    ~Sqlite() {
        for (sqlite3_stmt* statement : {query_, list_, set_})
            sqlite3_finalize(statement);
        sqlite3_close(database_);
    }
    Store store() {
        const auto query = [this](std::uint64_t n) {
            const std::string name = value_name(0);
            for (; n != 0; --n)
                look_up(name);
        };
        return {"SQLite", [this](const std::string& name) { put(name); }, query, query,
                [this](std::uint64_t n) {
                    for (; n != 0; --n)
                        list();
                }};
    }

  private:
    sqlite3_stmt* prepare(const char* text) {
        sqlite3_stmt* statement = nullptr;
        need(sqlite3_prepare_v3(database_, text, -1, SQLITE_PREPARE_PERSISTENT, &statement,
                                nullptr) == SQLITE_OK,
             "sqlite3_prepare_v3");
        sqlite3_bind_text(statement, 1, kGroup, -1, SQLITE_STATIC);
        return statement;
    }
    void look_up(const std::string& name) {
        sqlite3_bind_text(query_, 2, name.data(), static_cast<int>(name.size()), SQLITE_STATIC);
        need(sqlite3_step(query_) == SQLITE_ROW, "query");
        UINT32 data;
        std::memcpy(&data, sqlite3_column_blob(query_, 1), sizeof data);
        keep(data);
        sqlite3_reset(query_);
    }
    void put(const std::string& name) {
        sqlite3_bind_text(set_, 2, name.data(), static_cast<int>(name.size()), SQLITE_STATIC);
        sqlite3_bind_blob(set_, 3, &kData, sizeof kData, SQLITE_STATIC);
        need(sqlite3_step(set_) == SQLITE_DONE, "set");
        sqlite3_reset(set_);
    }
    void list() {
        while (sqlite3_step(list_) == SQLITE_ROW)
            keep(sqlite3_column_blob(list_, 2));
        sqlite3_reset(list_);
    }

    sqlite3* database_ = nullptr;
    sqlite3_stmt* query_;
    sqlite3_stmt* list_;
    sqlite3_stmt* set_;
};

// The services of the library, through their table.
class Services {
  public:
    Services() { need(osal_->KxCreateKey(osal_, kKey, 2, &key_) == KC_OK, "KxCreateKey"); }
    ~Services() { osal_->KxCloseKey(osal_, key_); }
    Store store() {
        return {"osal", [this](const std::string& name) { put(name); },
                [this](std::uint64_t n) {
                    for (; n != 0; --n)
                        look_up(key_);
                },
                [this](std::uint64_t n) {
                    for (; n != 0; --n)
                        open_and_look_up();
                },
                [this](std::uint64_t n) {
                    for (; n != 0; --n)
                        list();
                }};
    }

  private:
    void look_up(HANDLE key) {
        need(osal_->KxQueryValueKey(osal_, key, name_.data(), record_, sizeof record_, &length_) ==
                 KC_OK,
             "KxQueryValueKey");
        keep(record_);
    }
    void open_and_look_up() {
        HANDLE key;
        need(osal_->KxOpenKey(osal_, kKey, 0, &key) == KC_OK, "KxOpenKey");
        look_up(key);
        osal_->KxCloseKey(osal_, key);
    }
    void put(const std::string& name) {
        need(osal_->KxSetValueKey(osal_, key_, wide(name).data(), 1, &kData, 4) == KC_OK,
             "KxSetValueKey");
    }
    void list() {
        for (UINT32 index = 0; osal_->KxEnumerateValueKey(osal_, key_, index, record_,
                                                          sizeof record_, &length_) == KC_OK;
             ++index)
            keep(record_);
    }
    static std::basic_string<WCHAR> wide(const std::string& text) {
        return {text.begin(), text.end()};
    }

    bench::Instance osal_;
    HANDLE key_ = nullptr;
    std::basic_string<WCHAR> name_ = wide(value_name(0));
    UINT64 record_[64];
    UINT32 length_ = 0;
};

// The registry library below them.
class Narrow {
  public:
    Narrow() { need(open(&key_) == KC_OK, "TsRegOpenKeyExA"); }
    ~Narrow() { TsRegCloseKey(key_); }
    Store store() {
        return {"registry library",
                {},
                [this](std::uint64_t n) {
                    for (; n != 0; --n)
                        look_up(key_);
                },
                [this](std::uint64_t n) {
                    for (HANDLE key; n != 0; --n) {
                        need(open(&key) == KC_OK, "TsRegOpenKeyExA");
                        look_up(key);
                        TsRegCloseKey(key);
                    }
                },
                [this](std::uint64_t n) {
                    for (; n != 0; --n)
                        list();
                }};
    }

  private:
    static KCSTATUS open(HANDLE* key) {
        return TsRegOpenKeyExA(TSREG_LOCAL_MACHINE, kGroup, 0, 2, key);
    }
    void look_up(HANDLE key) {
        UINT32 data;
        UINT32 size = sizeof data;
        need(TsRegQueryValueExA(key, name_.c_str(), nullptr, nullptr, &data, &size) == KC_OK,
             "TsRegQueryValueExA");
        keep(data);
    }
    void list() {
        char name[256];
        UINT32 data;
        for (UINT32 index = 0, status = KC_OK; status == KC_OK; ++index) {
            UINT32 length = sizeof name;
            UINT32 size = sizeof data;
            status = TsRegEnumValueA(key_, index, name, &length, nullptr, nullptr, &data, &size);
            keep(data);
        }
    }

    HANDLE key_ = nullptr;
    std::string name_ = value_name(0);
};

#ifdef HAVE_LMDB
class Lmdb {
  public:
    explicit Lmdb(const std::string& folder) {
        mkdir(folder.c_str(), 0700);
        mdb_env_create(&environment_);
        mdb_env_set_mapsize(environment_, 64 << 20);
        need(mdb_env_open(environment_, folder.c_str(), 0, 0600) == 0, "mdb_env_open");
        MDB_txn* write;
        mdb_txn_begin(environment_, nullptr, 0, &write);
        need(mdb_dbi_open(write, nullptr, 0, &table_) == 0, "mdb_dbi_open");
        mdb_txn_commit(write);
        begin_reading();
    }
    ~Lmdb() {
        mdb_txn_abort(read_);
        mdb_env_close(environment_);
    }
    Store store() {
        return {"LMDB", [this](const std::string& name) { put(name); },
                [this](std::uint64_t n) {
                    std::string name = value_name(0);
                    for (; n != 0; --n)
                        look_up(name);
                },
                [this](std::uint64_t n) {
                    std::string name = value_name(0);
                    for (; n != 0; --n) {
                        reopen();
                        look_up(name);
                    }
                },
                [this](std::uint64_t n) {
                    for (; n != 0; --n)
                        list();
                }};
    }

  private:
    void begin_reading() {
        mdb_txn_begin(environment_, nullptr, MDB_RDONLY, &read_);
        need(mdb_dbi_open(read_, nullptr, 0, &table_) == 0, "mdb_dbi_open");
        mdb_txn_reset(read_);
    }
    void reopen() {
        mdb_txn_abort(read_);
        begin_reading();
    }
    void look_up(std::string& name) {
        MDB_val key{name.size(), name.data()};
        MDB_val data;
        mdb_txn_renew(read_);
        need(mdb_get(read_, table_, &key, &data) == 0, "mdb_get");
        keep(*static_cast<UINT32*>(data.mv_data));
        mdb_txn_reset(read_);
    }
    void put(std::string name) {
        UINT32 number = kData;
        MDB_val key{name.size(), name.data()};
        MDB_val data{sizeof number, &number};
        MDB_txn* write;
        mdb_txn_begin(environment_, nullptr, 0, &write);
        mdb_put(write, table_, &key, &data, 0);
        need(mdb_txn_commit(write) == 0, "mdb_txn_commit");
    }
    void list() {
        mdb_txn_renew(read_);
        MDB_cursor* cursor;
        mdb_cursor_open(read_, table_, &cursor);
        MDB_val key;
        MDB_val data;
        while (mdb_cursor_get(cursor, &key, &data, MDB_NEXT) == 0)
            keep(data);
        mdb_cursor_close(cursor);
        mdb_txn_reset(read_);
    }

    MDB_env* environment_ = nullptr;
    MDB_dbi table_ = 0;
    MDB_txn* read_ = nullptr;
};
#endif

#ifdef HAVE_GLIB
class KeyFile {
  public:
    explicit KeyFile(std::string path) : path_(std::move(path)) {}
    ~KeyFile() { g_key_file_free(file_); }
    Store store() {
        return {"GKeyFile", [this](const std::string& name) { put(name); },
                [this](std::uint64_t n) {
                    const std::string name = value_name(0);
                    for (; n != 0; --n)
                        keep(g_key_file_get_uint64(file_, kGroup, name.c_str(), nullptr));
                },
                [this](std::uint64_t n) {
                    for (; n != 0; --n)
                        open_and_look_up();
                },
                [this](std::uint64_t n) {
                    for (; n != 0; --n)
                        list();
                }};
    }

  private:
    void put(const std::string& name) {
        g_key_file_set_uint64(file_, kGroup, name.c_str(), kData);
        need(g_key_file_save_to_file(file_, path_.c_str(), nullptr), "g_key_file_save_to_file");
    }
    void open_and_look_up() {
        GKeyFile* file = g_key_file_new();
        need(g_key_file_load_from_file(file, path_.c_str(), G_KEY_FILE_NONE, nullptr),
             "g_key_file_load_from_file");
        keep(g_key_file_get_uint64(file, kGroup, value_name(0).c_str(), nullptr));
        g_key_file_free(file);
    }
    void list() {
        char** names = g_key_file_get_keys(file_, kGroup, nullptr, nullptr);
        for (char** name = names; *name != nullptr; ++name)
            keep(g_key_file_get_uint64(file_, kGroup, *name, nullptr));
        g_strfreev(names);
    }

    GKeyFile* file_ = g_key_file_new();
    std::string path_;
};
#endif

using Work = std::function<void(std::uint64_t)>;

void race(bench::Report& report, const std::vector<Store>& stores, const char* group,
          std::size_t values, Work Store::*work) {
    std::vector<Contender> contenders;
    for (const Store& store : stores)
        if (store.*work) contenders.emplace_back(store.name, store.*work);
    report.race(group, bench::count_name(values) + " values", static_cast<double>(values),
                std::move(contenders));
}

void race_set(bench::Report& report, const std::vector<Store>& stores, std::size_t values) {
    std::vector<Contender> contenders;
    for (const Store& store : stores)
        if (store.set)
            contenders.emplace_back(store.name, [set = store.set](std::uint64_t n) {
                for (; n != 0; --n)
                    set(value_name(0));
            });
    report.race("set", bench::count_name(values) + " values", static_cast<double>(values),
                std::move(contenders), {20, 2});
}

}  // namespace

int main(int argc, char** argv) {
    bench::Report report(
        argc, argv,
        {"registry", "Registry", "one call, or one listing of all values",
         "The key has the number of values given; a query reads the first. SQLite and "
         "LMDB list in one go, the registry with one call a value. To open is a new read "
         "transaction for LMDB and a new reading of the file for GKeyFile; SQLite has nothing to "
         "open.",
         "values"});
    Folder folder;
    bench::Library library;
    Sqlite sqlite(folder.path + "/direct.db");
    Services services;
    Narrow narrow;
    std::vector<Store> stores = {sqlite.store(), services.store(), narrow.store()};
#ifdef HAVE_LMDB
    Lmdb lmdb(folder.path + "/lmdb");
    stores.push_back(lmdb.store());
#else
    report.missing("LMDB");
#endif
#ifdef HAVE_GLIB
    KeyFile key_file(folder.path + "/file.ini");
    stores.push_back(key_file.store());
#else
    report.missing("GKeyFile");
#endif
    std::size_t filled = 0;
    for (std::size_t values : {10, 100, 1000}) {
        for (; filled < values; ++filled)
            for (const Store& store : stores)
                if (store.set) store.set(value_name(filled));
        race(report, stores, "query on an open key", values, &Store::query);
        race(report, stores, "open, query, close", values, &Store::open_query_close);
        race(report, stores, "list all values by index", values, &Store::list);
        race_set(report, stores, values);
    }
    return report.finish();
}
