// The object manager's records, and what its files call of each other.
//
// Locks, in order: the instance lock (protect of the instance), then an object's lock (protect of
// the object). Deleting and deallocating wait for the object lock with the instance lock held;
// everything else gives one up before it waits for the other. The instance lock is biased, see
// object_turns.h. The locks come from the services, so they are no capabilities to the compiler;
// "caller holds the instance lock" below means exclusively. A look-up by handle that grants takes
// neither, see object_readers.h.
//
// Threads: at most one deletion thread an instance, see objdel.cpp.
#pragma once

#include <cstddef>

#include "osal/component.h"
#include "osal/internal/atomics.h"
#include "osal/internal/instance.h"
#include "osal/internal/list.h"
#include "osal/internal/object_index.h"
#include "osal/internal/object_readers.h"
#include "osal/internal/object_turns.h"
#include "osal/internal/status.h"
#include "osal/iom.h"

// Instance flags.
inline constexpr UINT32 OI_FLAG_INITIALIZED = 0x1;
inline constexpr UINT32 OI_FLAG_RUNDOWN = 0x2;
inline constexpr UINT32 OI_FLAG_DEFERRED_DELETE = 0x4;

// Object flags.
inline constexpr UINT8 OBJ_FLAG_IN_USE = 0x01;
inline constexpr UINT8 OBJ_FLAG_FREE = 0x02;
inline constexpr UINT8 OBJ_FLAG_DELETED = 0x04;
inline constexpr UINT8 OBJ_FLAG_PREALLOCATED = 0x08;
inline constexpr UINT8 OBJ_FLAG_DEALLOCATED = 0x10;
inline constexpr UINT8 OBJ_FLAG_READY = 0x40;
inline constexpr UINT8 OBJ_FLAG_PERMANENT = 0x80;

// A lock made through the services, of the kind that the instance's accessLevel says.
typedef struct _Protect_Token {
    HANDLE handle;  // null: there is none
    KCSPIN_STATE spinState;
} ProtectToken, *pProtectToken;
static_assert(sizeof(ProtectToken) == 16);

// One instance, which is also the interface: its table pointer comes first. Made by the factory in
// the non-paged pool and freed by InstanceDeallocate.
//
// lpVtbl: switched by QueryInterface, read by clients. cReference: changed atomically.
// pIOsal to pfDeallocate, pHashListArray, objDeleteWorkHandle, stride: set by Initialize, then
// constant. flags: changed under the instance lock, read without it as well. The lists but the
// buckets' array, the statistics, index: guarded by the instance lock, exclusively for a change.
// objDeleteActive: likewise, but for the work item, which clears it. turns: see object_turns.h.
// lookers: atomic.
// pfDebug, Hash, Initialize, Compare: never set; part of the record only.
typedef struct _ObjectInfo {
    const IOMVtbl* lpVtbl;
    UINT32 cReference;
    PIOsal pIOsal;
    UINT32 objectSize;
    UINT32 objectsPerBlock;
    POOL_TYPE poolType;
    UINT32 accessLevel;
    UINT32 hashSize;
    PKX_OBJECT_ROUTINE pfDelete;
    PKX_OBJECT_ROUTINE pfDeallocate;
    PKX_OBJECT_ROUTINE pfDebug;
    UINT32 (*Hash)(PVOID);
    KCSTATUS (*Initialize)(PVOID, PVOID);
    BOOLEAN (*Compare)(PVOID, PVOID);
    LIST_ENTRY blockList;
    PLIST_ENTRY pHashListArray;
    LIST_ENTRY allocatedList;
    UINT32 flags;
    UINT32 statsAllocated;
    UINT32 statsInUse;
    UINT32 statsPreallocated;
    ProtectToken protect;
    BOOLEAN objDeleteActive;
    LIST_ENTRY objDeleteList;
    HANDLE objDeleteWorkHandle;

    // Behind the stated fields.
    UINT64 stride;  // bytes from slot to slot: objectSize rounded up to 8, not cut to 32 bits
    osal::Lookers lookers;
    osal::Turns turns;
    osal::BlockIndex index;
} ObjectInfo, *pObjectInfo;
static_assert(offsetof(ObjectInfo, lpVtbl) == 0);
static_assert(offsetof(ObjectInfo, cReference) == 8);
static_assert(offsetof(ObjectInfo, pIOsal) == 16);
static_assert(offsetof(ObjectInfo, objectSize) == 24);
static_assert(offsetof(ObjectInfo, hashSize) == 40);
static_assert(offsetof(ObjectInfo, pfDelete) == 48);
static_assert(offsetof(ObjectInfo, blockList) == 96);
static_assert(offsetof(ObjectInfo, pHashListArray) == 112);
static_assert(offsetof(ObjectInfo, allocatedList) == 120);
static_assert(offsetof(ObjectInfo, flags) == 136);
static_assert(offsetof(ObjectInfo, statsPreallocated) == 148);
static_assert(offsetof(ObjectInfo, protect) == 152);
static_assert(offsetof(ObjectInfo, objDeleteActive) == 168);
static_assert(offsetof(ObjectInfo, objDeleteList) == 176);
static_assert(offsetof(ObjectInfo, objDeleteWorkHandle) == 192);
static_assert(offsetof(ObjectInfo, stride) == 200);

// Heads a block; its slots follow in the same allocation. Made by AllocBlock, freed by FreeBlock.
// Guarded by the instance lock; blockId and oi never change.
typedef struct _BlockHeader {
    LIST_ENTRY blockLink;
    LIST_ENTRY freeList;
    UINT16 freeObjectCount;
    UINT16 blockId;
    pObjectInfo oi;
} BlockHeader;
static_assert(offsetof(BlockHeader, freeObjectCount) == 32);
static_assert(offsetof(BlockHeader, blockId) == 34);
static_assert(sizeof(BlockHeader) == 48);

// The three fields of a handle as the one word that they are read and written as. Its users reach
// fields of other types through it.
typedef UINT32 __attribute__((may_alias)) HandleWord;

// Heads a slot; the client's data follows directly.
//
// objectLink, protect.handle: guarded by the instance lock. handleId, handleInstance, handleIndex:
// changed under the instance lock, read by holders of a reference without it, as one word. flags:
// changed atomically, under the instance lock or the exclusive object lock, read without them.
// marks: atomic, changed under the instance lock but for kLockUsed. generation: handleInstance once
// more, where a look-up sees it in one word with what else it must know; changed like that one.
// instanceCount: atomic. blockStart never changes.
typedef struct _Object {
    LIST_ENTRY objectLink;
    UINT16 handleId;
    UCHAR handleInstance;
    UCHAR handleIndex;
    pBlockHeader blockStart;
    ProtectToken protect;
    UINT8 flags;
    // Between stated fields, in what is padding otherwise.
    UINT8 marks;
    UCHAR generation;
    UINT8 unused;
    UINT32 instanceCount;
} Object, *pObject;
static_assert(offsetof(Object, handleId) == 16);
static_assert(offsetof(Object, handleInstance) == 18);
static_assert(offsetof(Object, handleIndex) == 19);
static_assert(offsetof(Object, blockStart) == 24);
static_assert(offsetof(Object, protect) == 32);
static_assert(offsetof(Object, flags) == 48);
static_assert(offsetof(Object, marks) == 49 && offsetof(Object, generation) == 50);
static_assert(offsetof(Object, instanceCount) == 52);
static_assert(sizeof(Object) == 56, "client data follows directly");

OSAL_BEGIN_DECLS

extern UINT32 g_ulCount;               // interface references held on object managers; atomic
extern UINT32 numScheduledDelObjects;  // objects queued for deletion in all instances; atomic

extern IOMVtbl vtObject;      // zero until the factory's first use
extern IOM_2Vtbl vtObject_2;  // likewise
extern BOOLEAN vtInitialized;

// Builds an instance in a zeroed record. Error statuses carry the line given in the source.
KCSTATUS InternalInitialize(pObjectInfo pThis, UINT32 objectSize, UINT16 objectsPerBlock,
                            POOL_TYPE poolType, UINT32 accessLevel, UINT32 hashSize,
                            PKX_OBJECT_ROUTINE pDeleteRoutine,
                            PKX_OBJECT_ROUTINE pDeallocateRoutine, PKX_OBJECT_ROUTINE pDebugRoutine,
                            UINT32 permBlocks);

// Makes a block and links it before another (null: at the end). flags: of every slot. Null: id 0 or
// no memory. Caller holds the instance lock.
pBlockHeader AllocBlock(pObjectInfo oi, UINT16 blockId, PLIST_ENTRY bhBefore, UINT32 flags);

// Frees a block; caller holds the instance lock. TRUE: the instance went with its last block, and
// neither it nor its lock may be touched.
BOOLEAN FreeBlock(pObjectInfo oi, pBlockHeader bh);

// The lock wrapper, for the instance lock and object locks alike. accessType: KX_OBJECT_EXCLUSIVE
// or KX_OBJECT_SHARED.
BOOLEAN InternalAcquire(pObjectInfo oi, UINT32 accessLevel, pProtectToken pProtect,
                        UINT32 accessType);
void InternalRelease(pObjectInfo oi, UINT32 accessLevel, pProtectToken pProtect);

// Ends an object that has no references any more. Caller holds the instance lock, which is given up
// while a client routine runs and held again on return. ignoreAccessLevel: not to be deferred.
// TRUE: the instance is gone, as in FreeBlock.
BOOLEAN FreeObject(pObjectInfo oi, pObject ob, BOOLEAN ignoreAccessLevel);

// Tears down an instance whose last interface reference went; it stays while its objects do.
void InstanceRelease(pObjectInfo oi);

// Frees an instance that has no blocks. Caller holds the instance lock, if there is one.
void InstanceDeallocate(pObjectInfo oi);

// Queues an object for the deletion thread. Caller holds the instance lock.
void ScheduleObjForDeletion(pObjectInfo oi, pObject ob);
void* ObjDeleteThread(HANDLE threadHandle, PVOID oi);
void* ObjDeleteWorker(HANDLE workHandle, PVOID oi);

#define OSAL_DECLARE_OPERATION(number, field, function, result, arguments) \
    result function arguments;
KX_IOM_SLOTS(OSAL_DECLARE_OPERATION)
KCSTATUS ObjectReferenceByHandle2(PVOID pThis, HANDLE handle, UINT32 accessType, PVOID* ppUserData);
KCSTATUS ObjectGetHandle2(PVOID pThis, PVOID pUserData, PHANDLE phandle);
#undef OSAL_DECLARE_OPERATION

KCSTATUS OMFactoryQueryInterface(LCM_IClassFactory* pThis, const GUID* pIId, void** ppInterface);

OSAL_END_DECLS

namespace osal {

inline constexpr Module kObjectModule{KC_FACILITY_OBJECT, "../object"};

// An error of the object manager that is returned as it is, without a log line.
constexpr KCSTATUS unlogged_object_error(UINT32 code) {
    return KC_MAKE_STATUS(KC_SEVERITY_ERROR, KC_FACILITY_OBJECT, code);
}

// A service by its slot: service<&IOsalVtbl::KxFreeMemory>(osal, memory).
template <auto slot, class... Arguments>
auto service(PIOsal osal, Arguments... arguments) {
    return (osal->lpVtbl->*slot)(osal, arguments...);
}

// --- Instances ---

// The check of every operation: null unless pThis is an initialised instance.
inline pObjectInfo usable(PVOID pThis) {
    auto* oi = static_cast<pObjectInfo>(pThis);
    return oi != nullptr && (load(oi->flags) & OI_FLAG_INITIALIZED) != 0 ? oi : nullptr;
}

// Turns of the instance lock (object_turns.h): any, brief ones, those that run client routines,
// which may be null, and shared ones that do.
inline void lock(pObjectInfo oi) {
    InternalAcquire(oi, oi->accessLevel, &oi->protect, KX_OBJECT_EXCLUSIVE);
}
inline void lock_briefly(pObjectInfo oi) {
    if (!enter_biased(oi->turns.bias)) lock(oi);
}
template <class... Routines>
void lock_for(pObjectInfo oi, Routines... routines) {
    if ((... || (routines != nullptr)))
        lock(oi);
    else
        lock_briefly(oi);
}
// Nobody shares a mutex.
inline void lock_shared_for(pObjectInfo oi, PKX_OBJECT_COMPARE_ROUTINE routine) {
    if (oi->accessLevel == KX_OBJECT_LEVEL_MUTEX) return lock_for(oi, routine);
    if (!enter_biased(oi->turns.bias, Inside::kShared))
        InternalAcquire(oi, oi->accessLevel, &oi->protect, KX_OBJECT_SHARED);
}
// Another thread may be found busy for a moment: one whose bias was ended and that finds out.
inline void unlock(pObjectInfo oi) {
    Turns& turns = oi->turns;
    if (turns.thread == thread_token() &&
        turns.bias.busy.load(std::memory_order_relaxed) != Inside::kNot)
        leave_biased(turns.bias);
    else
        InternalRelease(oi, oi->accessLevel, &oi->protect);
}
inline bool running_down(pObjectInfo oi) {
    return (load(oi->flags) & OI_FLAG_RUNDOWN) != 0;
}

// The bucket of an index, null if there is none.
inline PLIST_ENTRY bucket_of(pObjectInfo oi, UINT32 index) {
    return oi->pHashListArray != nullptr && index < oi->hashSize ? &oi->pHashListArray[index]
                                                                 : nullptr;
}

// --- Objects ---

inline PVOID data_of(pObject ob) {
    return ob + 1;
}
inline pObject object_of(PVOID pUserData) {
    return static_cast<pObject>(pUserData) - 1;
}
inline pObject linked_object(PLIST_ENTRY link) {
    return record_of<Object>(link, offsetof(Object, objectLink));
}
inline pBlockHeader linked_block(PLIST_ENTRY link) {
    return record_of<BlockHeader>(link, offsetof(BlockHeader, blockLink));
}

inline bool has(pObject ob, UINT8 flags) {
    return (load(ob->flags) & flags) != 0;
}
inline constexpr UINT8 kEndingFlags = OBJ_FLAG_DELETED | OBJ_FLAG_DEALLOCATED;

inline void change_flags(pObject ob, UINT8 cleared, UINT8 set) {
    std::atomic_ref<UINT8> flags(ob->flags);
    UINT8 old = flags.load(std::memory_order_relaxed);
    while (!flags.compare_exchange_weak(old, static_cast<UINT8>((old & ~cleared) | set)))
        ;
}

// Marks.
inline constexpr UINT8 kHandedOver = 0x01;  // FreeObject has it: queued or being freed
inline constexpr UINT8 kUncounted = 0x02;   // deleted while preallocated: not part of statsInUse
inline constexpr UINT8 kLockUsed = 0x04;    // somebody asked for its lock since that was made

inline bool marked(pObject ob, UINT8 mark) {
    return (load(ob->marks) & mark) != 0;
}
inline void set_mark(pObject ob, UINT8 mark) {
    std::atomic_ref<UINT8>(ob->marks).fetch_or(mark);
}
inline void clear_marks(pObject ob, UINT8 cleared) {
    std::atomic_ref<UINT8>(ob->marks).fetch_and(static_cast<UINT8>(~cleared));
}

// An object's state as one word, from the low bits up: flags, marks, generation, nothing, count.
typedef UINT64 __attribute__((may_alias)) StateWord;
constexpr UINT64 state_of(UINT8 flags, UINT8 marks, UCHAR generation, UINT32 count) {
    return flags | UINT64{marks} << 8 | UINT64{generation} << 16 | UINT64{count} << 32;
}
inline constexpr UINT64 kOneReference = state_of(0, 0, 0, 1);
inline std::atomic_ref<UINT64> state_word(pObject ob) {
    return std::atomic_ref<UINT64>(reinterpret_cast<StateWord&>(ob->flags));
}

// Makes a live object with one reference of an occupied slot that is complete: look-ups may find it
// from here on.
inline void make_live(pObject ob, UINT8 set) {
    std::atomic_ref<UINT64> state = state_word(ob);
    const UINT64 kept = state.load(std::memory_order_relaxed) & (kOneReference - 1);
    state.store((kept & ~UINT64{OBJ_FLAG_FREE}) | state_of(OBJ_FLAG_IN_USE | set, 0, 0, 1),
                std::memory_order_release);
}

inline void lock_object(pObjectInfo oi, pObject ob, UINT32 access) {
    if (!marked(ob, kLockUsed)) set_mark(ob, kLockUsed);
    InternalAcquire(oi, oi->accessLevel, &ob->protect, access);
}
inline void unlock_object(pObjectInfo oi, pObject ob) {
    InternalRelease(oi, oi->accessLevel, &ob->protect);
}

// Changes the flags of an object that is not being ended and whose lock nobody asked for yet, and
// drops a reference if there is one, in one step; false if it is not like that.
inline bool end_while_unlocked(pObject ob, UINT8 cleared, UINT8 set, UINT32* references_left) {
    constexpr UINT64 excluded = state_of(kEndingFlags, kLockUsed, 0, 0);
    std::atomic_ref<UINT64> state = state_word(ob);
    UINT64 found = state.load();
    while ((found & excluded) == 0) {
        const UINT64 left = found < kOneReference ? found : found - kOneReference;
        *references_left = static_cast<UINT32>(left >> 32);
        if (state.compare_exchange_weak(found, (left & ~UINT64{cleared}) | set)) return true;
    }
    return false;
}

// Makes the lock of an object whose slot was just taken. Returns a code: 0, 4 for an instance
// without a kind of locks, 5 if it cannot be made.
UINT32 make_object_lock(pObjectInfo oi, pObject ob);
void destroy_object_lock(pObjectInfo oi, pObject ob);  // if there is one
void destroy_lock(pObjectInfo oi, UINT32 level, HANDLE handle);

// Drops a reference that is not the last one; false if it is, or if there is none. On the whole
// word: so ThreadSanitizer too knows of it when an end in one step finds the count lower.
inline bool drop_unless_last(pObject ob) {
    std::atomic_ref<UINT64> state = state_word(ob);
    UINT64 found = state.load(std::memory_order_relaxed);
    while (found >= 2 * kOneReference)
        if (state.compare_exchange_weak(found, found - kOneReference)) return true;
    return false;
}

inline void add_reference(pObjectInfo oi, pObject ob) {
    service<&IOsalVtbl::KxInterlockedIncrement>(oi->pIOsal, &ob->instanceCount);
}

// --- Handles: block id, generation and 1-based slot index, from the low bits up ---

constexpr UINT32 handle_block(UINT32 handle) {
    return handle & 0xFFFF;
}
constexpr UCHAR handle_generation(UINT32 handle) {
    return static_cast<UCHAR>(handle >> 16);
}
constexpr UINT32 handle_slot(UINT32 handle) {
    return handle >> 24;
}
constexpr UINT32 make_handle(UINT32 block, UCHAR generation, UINT32 slot) {
    return block | UINT32{generation} << 16 | slot << 24;
}

// A client's handle holds the word in its low half.
inline UINT32 handle_word(HANDLE handle) {
    return static_cast<UINT32>(reinterpret_cast<uintptr_t>(handle));
}
inline HANDLE handle_from(UINT32 word) {
    return reinterpret_cast<HANDLE>(uintptr_t{word});
}
inline void write_low_half(PHANDLE target, UINT32 word) {
    const uintptr_t upper = reinterpret_cast<uintptr_t>(*target) >> 32 << 32;
    *target = reinterpret_cast<HANDLE>(upper | word);
}

// What handles of the second interface are combined with.
inline UINT32 scramble_of(PVOID pThis) {
    return handle_word(static_cast<pObjectInfo>(pThis)->pIOsal);
}

inline UINT32 handle_of(pObject ob) {
    return load(reinterpret_cast<HandleWord&>(ob->handleId));
}
// The copy first: a handle that somebody reads must be good.
inline void set_generation(pObject ob, UCHAR generation) {
    store(ob->generation, generation);
    const UINT32 handle = make_handle(ob->handleId, generation, ob->handleIndex);
    store(reinterpret_cast<HandleWord&>(ob->handleId), HandleWord{handle});
}
// Makes a slot free for the next generation, without marks and references.
inline void make_free(pObject ob) {
    const auto flags = static_cast<UINT8>(load(ob->flags) & ~(OBJ_FLAG_IN_USE | kEndingFlags));
    const auto generation = static_cast<UCHAR>(ob->handleInstance + 1);
    state_word(ob).store(state_of(flags | OBJ_FLAG_FREE, 0, generation, 0),
                         std::memory_order_release);
    set_generation(ob, generation);
}

// --- Slots; caller holds the instance lock, or looks without it (object_readers.h) ---

// A block's slot by its 1-based number.
inline pObject slot_of(pObjectInfo oi, pBlockHeader bh, UINT32 number) {
    return reinterpret_cast<pObject>(reinterpret_cast<char*>(bh + 1) + (number - 1) * oi->stride);
}

// The slot that a handle names, in use or not; null if there is none.
inline pObject named_slot(pObjectInfo oi, UINT32 handle) {
    const UINT32 number = handle_slot(handle);
    pBlockHeader bh = find_block(oi->index, handle_block(handle));
    return bh != nullptr && number != 0 && number <= oi->objectsPerBlock ? slot_of(oi, bh, number)
                                                                         : nullptr;
}

// A free slot of the lowest block that has one, of a new block if none has. Null: no block.
pObject choose_slot(pObjectInfo oi);

// Takes a free slot off its block's list, and puts it back at the list's end.
void take_slot(pObjectInfo oi, pObject ob);
void return_slot(pObjectInfo oi, pObject ob);

// Takes a slot, makes its lock and zeroes its data; on a failure the slot is back. Returns a code
// as make_object_lock does.
UINT32 occupy_slot(pObjectInfo oi, pObject ob);

// --- Ends; caller holds the instance lock ---

// Takes a preallocated object off the list of those.
void leave_allocated(pObjectInfo oi, pObject ob);

// Drops a reference and frees the object if it was the last one of an object to be ended. TRUE as
// in FreeObject.
bool drop_locked(pObjectInfo oi, pObject ob);

// Deletes every object that is not preallocated, as far as its references allow.
void delete_all(pObjectInfo oi);

// --- Lookups ---

// The first object of a bucket that the routine accepts; without one the first. Null: none. Caller
// holds the instance lock, shared or exclusively.
pObject first_match(PLIST_ENTRY bucket, PKX_OBJECT_COMPARE_ROUTINE compare, PVOID data);

// The next object of a scan, which the resume handle tells, that carries none of the excluded flags
// and that the routine accepts. It is referenced and the resume handle moved on; at the end the
// handle stays, but that a start is written as the first slot's. Takes and gives up the instance
// lock.
pObject scan_on(pObjectInfo oi, UINT32* resume, UINT8 excluded, PKX_OBJECT_COMPARE_ROUTINE compare,
                PVOID data);

enum class Kept { kYes, kNo, kTornDown };

// Gives up the instance lock for the exclusive lock of an object that the caller has a reference
// of. kNo: the object is being ended; its reference was dropped, and the instance lock is held
// again. kTornDown: likewise, and the instance is gone.
Kept keep_object(pObjectInfo oi, pObject ob);

// Ends a creation or an opening, of an object whose lock is held exclusively: whoever comes first
// makes it ready.
KCSTATUS finish_opening(pObjectInfo oi, pObject ob, UINT32 firstAccess, UINT32 openAccess,
                        PUINT32 pOpenedMode);

// The status for an instance that went with a reference.
KCSTATUS torn_down();

}  // namespace osal
