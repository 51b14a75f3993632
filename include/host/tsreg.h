/* The registry library, libtsreg.so: a tree of keys with typed values, kept in one file.
 *
 * osal.so calls the first nine functions only. A host product may put a library of its own with
 * the same nine in front of this one; what needs the three of transactions asks for them by name.
 *
 * Keys. Every key lies under the machine-wide hive, TSREG_LOCAL_MACHINE, which is always open. A
 * path names a key below another: names joined by backslashes. Empty names are skipped, so a
 * leading, a trailing or a doubled backslash changes nothing, and an empty path is the key itself.
 * A name has 1 to 255 bytes, in any encoding. Names are compared without regard to the case of the
 * ASCII letters and kept as first written; other bytes compare as they are.
 *
 * Values. A key holds values, each of a name, a type and up to 67,108,864 bytes. A value name has
 * up to 255 bytes, may be empty and may hold backslashes; a null name is the empty one. Types are
 * kept, not interpreted.
 *
 * Statuses have the facility KC_FACILITY_REGISTRY and severity 3, or are KC_OK. Unless a function
 * says otherwise, each may return:
 *
 *   3       no such key or value; the handle is none, or its key was deleted
 *   4       a null pointer, a name or data that is too long, an unknown access
 *   5       out of memory, or the file system is full
 *   6       the handle was not opened for this; or the file may not be read or written
 *   10      other processes kept the file busy for ten seconds
 *   12      the file is damaged, or is no registry file
 *   1       any other failure of the file system; or the thread's transaction was lost
 *
 * Trouble with the file (5, 6, 10, 12, 1) writes one line to syslog at LOG_ERR that names the file
 * and the reason; it is not repeated while the same reason lasts. Nothing else is logged. Output
 * lengths are written for 0 and 7 only, other outputs for 0 only, unless said otherwise.
 *
 * The file. That named by the environment variable TSREG_FILE; else, for root,
 * /var/lib/orvane/registry.db; else orvane/registry.db in $XDG_STATE_HOME or ~/.local/state. A
 * set-user-id process ignores the environment. The file is made by the first call that writes,
 * with mode 0600, and missing folders with mode 0700; before that every key but the hive is not
 * found. It is an SQLite database with a write-ahead log, whose files -wal and -shm belong to it;
 * it must not lie on a network file system. What a call has reported as written survives the death
 * of the process and of the machine; a call that fails or is cut off changes nothing. Any number
 * of processes may use the file at once.
 *
 * Threads. Every function is safe on any thread; calls of one process follow one another. None is
 * a cancellation point. Reads wait for nobody but other threads of the process; writes wait for
 * the disk, and for other writers. fork is allowed at any time: it waits for calls under way, and
 * handles stay valid on both sides. Not for signal handlers.
 */
#ifndef HOST_TSREG_H
#define HOST_TSREG_H

#include "osal/status.h"
#include "osal/types.h"

OSAL_BEGIN_DECLS

/* The machine-wide hive: a handle that is always open, for everything, and cannot be closed. */
#define TSREG_LOCAL_MACHINE ((HANDLE)(uintptr_t)0x80000002u)

/* What TsRegCreateKeyExA did. */
#define TSREG_CREATED_NEW_KEY 1u
#define TSREG_OPENED_EXISTING_KEY 2u

/* Opens the key at pSubKey below hKey; null counts as the empty path. *phKey is null on failure,
 * otherwise a handle that the caller closes. A key may be open any number of times.
 *
 * DesiredAccess: KX_KEY_READ allows queries and enumerations, KX_KEY_WRITE setting and deleting
 * values, KX_KEY_ALL_ACCESS both; another value is code 4. Neither opening nor creating keys
 * below a handle needs a right. Options is ignored. */
KCSTATUS TsRegOpenKeyExA(HANDLE hKey, const CHAR* pSubKey, UINT32 Options, UINT32 DesiredAccess,
                         HANDLE* phKey);

/* Opens the key at pSubKey below hKey, and makes it and the keys on the way to it where they are
 * missing. *phKey is null on failure, otherwise a handle for all access, whatever DesiredAccess
 * says. *pDisposition, unless pDisposition is null: TSREG_CREATED_NEW_KEY or
 * TSREG_OPENED_EXISTING_KEY. Reserved, pClass, Options, DesiredAccess and pSecurity are ignored.
 */
KCSTATUS TsRegCreateKeyExA(HANDLE hKey, const CHAR* pSubKey, UINT32 Reserved, const CHAR* pClass,
                           UINT32 Options, UINT32 DesiredAccess, const void* pSecurity,
                           HANDLE* phKey, UINT32* pDisposition);

/* Ends a handle. Closing the hive does nothing and succeeds. Needs no file; only code 3. */
KCSTATUS TsRegCloseKey(HANDLE hKey);

/* Deletes the key at pSubKey below hKey with its values. Needs no right. A key with keys below it
 * is refused with code 0x1003, the hive with code 4. Handles of the key stay to be closed; every
 * other use of them is code 3, even if a key of the same path is made again. */
KCSTATUS TsRegDeleteKeyA(HANDLE hKey, const CHAR* pSubKey);

/* Deletes a value. Needs the right to write. */
KCSTATUS TsRegDeleteValueA(HANDLE hKey, const CHAR* pValueName);

/* The sub-key number Index, counted from 0 in the order of names. Needs the right to read.
 *
 * *pNameLength: room at pName in bytes on entry; the length of the name on return, which is
 * followed by a zero byte. Code 7: too little room; *pNameLength is the room that is needed, zero
 * byte included. Code 9: there is no such sub-key. *pLastWriteTime, unless null: when values of the
 * sub-key or the keys directly below it last changed, in 100-ns units since 1601-01-01 UTC.
 * pReserved, pClass and pClassLength are ignored.
 *
 * Index counts what there is at the time of the call. Stepping upwards costs the same for each
 * step as long as nobody writes; any other jump costs in proportion to Index. */
KCSTATUS TsRegEnumKeyExA(HANDLE hKey, UINT32 Index, CHAR* pName, UINT32* pNameLength,
                         UINT32* pReserved, CHAR* pClass, UINT32* pClassLength,
                         UINT64* pLastWriteTime);

/* The value number Index, counted from 0 in the order of names, in the same way. Needs the right to
 * read. *pType, unless null, is written for 0 and 7.
 *
 * *pDataLength: room at pData in bytes on entry, the length of the data on return. With a null
 * pData only the length is returned; with a null pDataLength no data are. Code 7: the name or the
 * data does not fit; both lengths are the room that is needed, and no byte is written to pData. */
KCSTATUS TsRegEnumValueA(HANDLE hKey, UINT32 Index, CHAR* pName, UINT32* pNameLength,
                         UINT32* pReserved, UINT32* pType, PVOID pData, UINT32* pDataLength);

/* A value by its name. Needs the right to read. pType, pData and pDataLength as for
 * TsRegEnumValueA; pReserved is ignored. */
KCSTATUS TsRegQueryValueExA(HANDLE hKey, const CHAR* pValueName, UINT32* pReserved, UINT32* pType,
                            PVOID pData, UINT32* pDataLength);

/* Sets a value, new or not. Needs the right to write. pData may be null if DataLength is 0. A value
 * that exists keeps its name as it was first written. Reserved is ignored. */
KCSTATUS TsRegSetValueExA(HANDLE hKey, const CHAR* pValueName, UINT32 Reserved, UINT32 Type,
                          const void* pData, UINT32 DataLength);

/* Transactions: several calls of one thread that take effect together or not at all, whatever ends
 * the process in between. Between TsRegBegin and TsRegCommit or TsRegRollback the thread sees what
 * it did so far; other threads of the process wait at their next call, other processes see nothing
 * of it and wait if they write. The thread must end its transaction, and stays uncancellable until
 * then: if it ends first, it takes the lock of the library with it, and every other thread of the
 * process that calls here or forks waits for ever. A call that fails changes nothing and leaves the
 * rest of the transaction as it is, but trouble with the file may lose it, and so does a fork by
 * the thread: nothing of a lost transaction is kept, every call but TsRegCloseKey is code 1 without
 * a log line, and it is still to be ended, after a fork on both sides. */

/* Begins one; makes the file if there is none. Code 4: the thread has one already. */
KCSTATUS TsRegBegin(void);

/* Ends it and keeps what was done. On failure it has ended too, and nothing was kept. Code 1: it
 * was lost. Code 3: the thread has none. */
KCSTATUS TsRegCommit(void);

/* Ends it and takes everything back; handles of keys that it made stay to be closed, every other
 * use of them is code 3. Code 3: the thread has none. */
KCSTATUS TsRegRollback(void);

OSAL_END_DECLS

#endif
