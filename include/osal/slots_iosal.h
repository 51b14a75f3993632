/* The ninety slots of the service interface, one row a slot, in slot order. The order is frozen.
 *
 * Row: number, name of the slot in the table, exported function, result, arguments. SLOT rows have
 * their service; the services of VACANT rows are not built yet, and their slots are null. The list
 * yields the table type (osal/iosal.h), the table, the export list and the slot tests. Macros only:
 * the linker map is preprocessed from it as well.
 */
#ifndef OSAL_SLOTS_IOSAL_H
#define OSAL_SLOTS_IOSAL_H

#define KX_IOSAL_SLOT_COUNT 90

/* clang-format off */
#define KX_IOSAL_SLOTS(SLOT, VACANT)                                                              \
    SLOT(0, QueryInterface, OsalQueryInterface, KCSTATUS,                                         \
         (PIOsal pThis, const GUID* pIId, void** ppInterface))                                    \
    SLOT(1, AddRef, OsalAddReference, UINT32, (PIOsal pThis))                                     \
    SLOT(2, Release, OsalReleaseReference, UINT32, (PIOsal pThis))                                \
    SLOT(3, KxCloseKey, KxCloseKey, KCSTATUS, (PIOsal pThis, HANDLE Handle))                      \
    SLOT(4, KxCreateKey, KxCreateKey, KCSTATUS,                                                   \
         (PIOsal pThis, const WCHAR* pKeyNameW, KX_KEY_ACCESS DesiredAccess, HANDLE* pHandle))    \
    SLOT(5, KxDeleteKey, KxDeleteKey, KCSTATUS, (PIOsal pThis, HANDLE Handle))                    \
    SLOT(6, KxEnumerateKey, KxEnumerateKey, KCSTATUS,                                             \
         (PIOsal pThis, HANDLE Handle, UINT32 Index, PVOID pKeyInformation, UINT32 Length,        \
          PUINT32 pResultLength))                                                                 \
    SLOT(7, KxEnumerateValueKey, KxEnumerateValueKey, KCSTATUS,                                   \
         (PIOsal pThis, HANDLE Handle, UINT32 Index, PVOID pKeyValueInformation, UINT32 Length,   \
          PUINT32 pResultLength))                                                                 \
    SLOT(8, KxOpenKey, KxOpenKey, KCSTATUS,                                                       \
         (PIOsal pThis, const WCHAR* pKeyNameW, KX_KEY_ACCESS DesiredAccess, HANDLE* pHandle))    \
    SLOT(9, KxQueryValueKey, KxQueryValueKey, KCSTATUS,                                           \
         (PIOsal pThis, HANDLE Handle, const WCHAR* pValueNameW, PVOID pKeyValueInfo, UINT32      \
          Length, PUINT32 pResultLength))                                                         \
    SLOT(10, KxSetValueKey, KxSetValueKey, KCSTATUS,                                              \
         (PIOsal pThis, HANDLE Handle, const WCHAR* pValueNameW, KX_REG_TYPE DataType, const      \
          void* pData, UINT32 DataLength))                                                        \
    SLOT(11, KxDebugBreakPoint, KxDebugBreakPoint, void, (PIOsal pThis))                          \
    SLOT(12, KxDebugPrintf, KxDebugPrintf, void, (PIOsal pThis, const CHAR* pFormatStr, ...))     \
    SLOT(13, KxInitializeListHead, KxInitializeListHead, void,                                    \
         (PIOsal pThis, PLIST_ENTRY pListEntry))                                                  \
    SLOT(14, KxInsertEntryAfter, KxInsertEntryAfter, void,                                        \
         (PIOsal pThis, PLIST_ENTRY pListHead, PLIST_ENTRY pListEntry, PLIST_ENTRY pAfterEntry))  \
    SLOT(15, KxInsertEntryBefore, KxInsertEntryBefore, void,                                      \
         (PIOsal pThis, PLIST_ENTRY pListHead, PLIST_ENTRY pListEntry, PLIST_ENTRY pBeforeEntry)) \
    SLOT(16, KxInsertHeadList, KxInsertHeadList, void,                                            \
         (PIOsal pThis, PLIST_ENTRY pListHead, PLIST_ENTRY pListEntry))                           \
    SLOT(17, KxInsertTailList, KxInsertTailList, void,                                            \
         (PIOsal pThis, PLIST_ENTRY pListHead, PLIST_ENTRY pListEntry))                           \
    SLOT(18, KxIsListEmpty, KxIsListEmpty, BOOLEAN, (PIOsal pThis, PLIST_ENTRY pListHead))        \
    SLOT(19, KxRemoveEntryList, KxRemoveEntryList, void, (PIOsal pThis, PLIST_ENTRY pListEntry))  \
    SLOT(20, KxRemoveHeadList, KxRemoveHeadList, PLIST_ENTRY,                                     \
         (PIOsal pThis, PLIST_ENTRY pListHead))                                                   \
    SLOT(21, KxRemoveTailList, KxRemoveTailList, PLIST_ENTRY,                                     \
         (PIOsal pThis, PLIST_ENTRY pListHead))                                                   \
    SLOT(22, KxCharUpperBuff, KxCharUpperBuff, KCSTATUS,                                          \
         (PIOsal pThis, UINT32 Length, PWCHAR pWideStr))                                          \
    SLOT(23, KxMultiByteToWideChar, KxMultiByteToWideChar, KCSTATUS,                              \
         (PIOsal pThis, UINT32 CodePage, const CHAR* pMultiByteStr, INT32 MultiByteStrLen, PWCHAR \
          pWideCharStr, PUINT32 pWideCharStrLen))                                                 \
    SLOT(24, KxWideCharToMultiByte, KxWideCharToMultiByte, KCSTATUS,                              \
         (PIOsal pThis, UINT32 CodePage, const WCHAR* pWideCharStr, INT32 WideCharStrLen, PCHAR   \
          pMultiByteStr, PUINT32 pMultiByteStrLen))                                               \
    SLOT(25, KxAllocNonPagedMemory, KxAllocNonPagedMemory, PVOID, (PIOsal pThis, UINT32 Size))    \
    SLOT(26, KxAllocPagedMemory, KxAllocPagedMemory, PVOID, (PIOsal pThis, UINT32 Size))          \
    SLOT(27, KxFreeMemory, KxFreeMemory, KCSTATUS, (PIOsal pThis, PVOID pMemory))                 \
    SLOT(28, KxAllocTimer, KxAllocTimer, KCSTATUS,                                                \
         (PIOsal pThis, PKX_TIMER_ROUTINE pTimerRoutine, PVOID pContext, BOOLEAN bDispatchLevel,  \
          PHANDLE pHandle))                                                                       \
    SLOT(29, KxAllocWorkItem, KxAllocWorkItem, KCSTATUS,                                          \
         (PIOsal pThis, PKX_WORK_ITEM_ROUTINE pWorkItemRoutine, PVOID pContext, HANDLE* pHandle)) \
    SLOT(30, KxCancelTimer, KxCancelTimer, BOOLEAN, (PIOsal pThis, HANDLE hTimer))                \
    SLOT(31, KxDestroyTimer, KxDestroyTimer, KCSTATUS, (PIOsal pThis, HANDLE hTimer))             \
    SLOT(32, KxDestroyWorkItem, KxDestroyWorkItem, KCSTATUS, (PIOsal pThis, HANDLE hWork))        \
    SLOT(33, KxScheduleTimer, KxScheduleTimer, KCSTATUS,                                          \
         (PIOsal pThis, HANDLE hTimer, UINT64 Timeout))                                           \
    SLOT(34, KxScheduleWorkItem, KxScheduleWorkItem, KCSTATUS,                                    \
         (PIOsal pThis, HANDLE hWorkItem, KX_PRIORITY Priority))                                  \
    SLOT(35, KxSleep, KxSleep, void, (PIOsal pThis, UINT64 Interval))                             \
    SLOT(36, KxCompareMemory, KxCompareMemory, UINT32,                                            \
         (PIOsal pThis, const void* pMemory1, const void* pMemory2, UINT32 Length))               \
    SLOT(37, KxCopyMemory, KxCopyMemory, void,                                                    \
         (PIOsal pThis, PVOID pDest, const void* pSrc, UINT32 Length))                            \
    SLOT(38, KxFillMemory, KxFillMemory, void,                                                    \
         (PIOsal pThis, PVOID pDest, UINT32 Length, UCHAR Fill))                                  \
    SLOT(39, KxMoveMemory, KxMoveMemory, void,                                                    \
         (PIOsal pThis, PVOID pDest, const void* pSrc, UINT32 Length))                            \
    SLOT(40, KxStrHash, KxStrHash, UINT32,                                                        \
         (PIOsal pThis, const CHAR* pString, UINT32 HashTableSize))                               \
    SLOT(41, KxStrHashW, KxStrHashW, UINT32,                                                      \
         (PIOsal pThis, const WCHAR* pStringW, UINT32 HashTableSize))                             \
    SLOT(42, KxStrlen, KxStrlen, UINT32, (PIOsal pThis, const CHAR* pString))                     \
    SLOT(43, KxStrlenW, KxStrlenW, UINT32, (PIOsal pThis, const WCHAR* pStringW))                 \
    SLOT(44, KxZeroMemory, KxZeroMemory, void, (PIOsal pThis, PVOID pDest, UINT32 Length))        \
    SLOT(45, KxAppendUnicodeStringToString, KxAppendUnicodeStringToString, KCSTATUS,              \
         (PIOsal pThis, UNICODE_STRING* pDest, const UNICODE_STRING* pSrc))                       \
    SLOT(46, KxAppendUnicodeToString, KxAppendUnicodeToString, KCSTATUS,                          \
         (PIOsal pThis, UNICODE_STRING* pDest, const WCHAR* pSrc))                                \
    SLOT(47, KxCompareString, KxCompareString, INT32,                                             \
         (PIOsal pThis, const STRING* pString1, const STRING* pString2, BOOLEAN                   \
          bCaseInsensitive))                                                                      \
    SLOT(48, KxCompareUnicodeString, KxCompareUnicodeString, INT32,                               \
         (PIOsal pThis, const UNICODE_STRING* pString1, const UNICODE_STRING* pString2, BOOLEAN   \
          bCaseInsensitive))                                                                      \
    SLOT(49, KxCopyString, KxCopyString, void,                                                    \
         (PIOsal pThis, STRING* pDest, const STRING* pSrc))                                       \
    SLOT(50, KxCopyUnicodeString, KxCopyUnicodeString, void,                                      \
         (PIOsal pThis, UNICODE_STRING* pDest, const UNICODE_STRING* pSrc))                       \
    SLOT(51, KxEqualString, KxEqualString, BOOLEAN,                                               \
         (PIOsal pThis, const STRING* pString1, const STRING* pString2, BOOLEAN                   \
          bCaseInsensitive))                                                                      \
    SLOT(52, KxEqualUnicodeString, KxEqualUnicodeString, BOOLEAN,                                 \
         (PIOsal pThis, const UNICODE_STRING* pString1, const UNICODE_STRING* pString2, BOOLEAN   \
          bCaseInsensitive))                                                                      \
    SLOT(53, KxInitString, KxInitString, void, (PIOsal pThis, STRING* pDest, const CHAR* pSrc))   \
    SLOT(54, KxInitUnicodeString, KxInitUnicodeString, void,                                      \
         (PIOsal pThis, UNICODE_STRING* pDest, const WCHAR* pSrc))                                \
    SLOT(55, KxIntegerToUnicodeString, KxIntegerToUnicodeString, KCSTATUS,                        \
         (PIOsal pThis, UINT32 Value, UINT32 Base, UNICODE_STRING* pString))                      \
    SLOT(56, KxUnicodeStringToInteger, KxUnicodeStringToInteger, KCSTATUS,                        \
         (PIOsal pThis, const UNICODE_STRING* pString, UINT32 Base, PUINT32 pValue))              \
    SLOT(57, KxAcquireLockForReadAccess, KxAcquireLockForReadAccess, KCSTATUS,                    \
         (PIOsal pThis, HANDLE Handle, BOOLEAN bWait))                                            \
    SLOT(58, KxAcquireLockForWriteAccess, KxAcquireLockForWriteAccess, KCSTATUS,                  \
         (PIOsal pThis, HANDLE Handle, BOOLEAN bWait))                                            \
    SLOT(59, KxAcquireMutex, KxAcquireMutex, KCSTATUS, (PIOsal pThis, HANDLE Handle))             \
    SLOT(60, KxAcquireSpinLock, KxAcquireSpinLock, KCSTATUS,                                      \
         (PIOsal pThis, HANDLE Handle, KCSPIN_STATE* pPrevState))                                 \
    SLOT(61, KxAllocEvent, KxAllocEvent, KCSTATUS,                                                \
         (PIOsal pThis, KX_EVENT_TYPE EventType, HANDLE* pHandle))                                \
    SLOT(62, KxAllocMutex, KxAllocMutex, KCSTATUS,                                                \
         (PIOsal pThis, UINT32 Level, HANDLE* pHandle))                                           \
    SLOT(63, KxAllocReadWriteLock, KxAllocReadWriteLock, KCSTATUS,                                \
         (PIOsal pThis, HANDLE* pHandle))                                                         \
    SLOT(64, KxAllocSpinLock, KxAllocSpinLock, KCSTATUS, (PIOsal pThis, HANDLE* pHandle))         \
    SLOT(65, KxDestroyEvent, KxDestroyEvent, KCSTATUS, (PIOsal pThis, HANDLE Handle))             \
    SLOT(66, KxDestroyMutex, KxDestroyMutex, KCSTATUS, (PIOsal pThis, HANDLE Handle))             \
    SLOT(67, KxDestroyReadWriteLock, KxDestroyReadWriteLock, KCSTATUS,                            \
         (PIOsal pThis, HANDLE Handle))                                                           \
    SLOT(68, KxDestroySpinLock, KxDestroySpinLock, KCSTATUS, (PIOsal pThis, HANDLE Handle))       \
    SLOT(69, KxGetCurrentIrql, KxGetCurrentIrql, IRQ_LEVEL, (PIOsal pThis))                       \
    SLOT(70, KxInterlockedDecrement, KxInterlockedDecrement, UINT32,                              \
         (PIOsal pThis, UINT32* pValue))                                                          \
    SLOT(71, KxInterlockedExchange, KxInterlockedExchange, UINT32,                                \
         (PIOsal pThis, UINT32* pTarget, UINT32 Value))                                           \
    SLOT(72, KxInterlockedIncrement, KxInterlockedIncrement, UINT32,                              \
         (PIOsal pThis, UINT32* pValue))                                                          \
    SLOT(73, KxReleaseMutex, KxReleaseMutex, KCSTATUS, (PIOsal pThis, HANDLE Handle))             \
    SLOT(74, KxReleaseReadWriteLock, KxReleaseReadWriteLock, KCSTATUS,                            \
         (PIOsal pThis, HANDLE Handle))                                                           \
    SLOT(75, KxReleaseSpinLock, KxReleaseSpinLock, KCSTATUS,                                      \
         (PIOsal pThis, HANDLE Handle, KCSPIN_STATE prevState))                                   \
    SLOT(76, KxResetEvent, KxResetEvent, KCSTATUS,                                                \
         (PIOsal pThis, HANDLE Handle, BOOLEAN* pPrevState))                                      \
    SLOT(77, KxSignalEvent, KxSignalEvent, KCSTATUS,                                              \
         (PIOsal pThis, HANDLE Handle, BOOLEAN* pPrevState))                                      \
    SLOT(78, KxWaitForMultipleEvents, KxWaitForMultipleEvents, KCSTATUS,                          \
         (PIOsal pThis, UINT32 Count, HANDLE* Handles, BOOLEAN bWaitAll, INT64 Timeout))          \
    SLOT(79, KxWaitForSingleEvent, KxWaitForSingleEvent, KCSTATUS,                                \
         (PIOsal pThis, HANDLE Handle, INT64 Timeout))                                            \
    SLOT(80, KxCreateThread, KxCreateThread, KCSTATUS,                                            \
         (PIOsal pThis, KX_PRIORITY Priority, PKX_THREAD_ROUTINE pThreadRoutine, PVOID pContext,  \
          HANDLE* pHandle))                                                                       \
    SLOT(81, KxDestroyThread, KxDestroyThread, KCSTATUS, (PIOsal pThis, HANDLE Handle))           \
    SLOT(82, KxExitThread, KxExitThread, void,                                                    \
         (PIOsal pThis, HANDLE Handle, KCSTATUS ExitStatus, BOOLEAN bDestroyThread))              \
    SLOT(83, KxGetThreadExitStatus, KxGetThreadExitStatus, KCSTATUS,                              \
         (PIOsal pThis, HANDLE Handle))                                                           \
    SLOT(84, KxSetThreadPriority, KxSetThreadPriority, KCSTATUS,                                  \
         (PIOsal pThis, HANDLE Handle, KX_PRIORITY priority))                                     \
    SLOT(85, KxWaitForThreadExit, KxWaitForThreadExit, KCSTATUS,                                  \
         (PIOsal pThis, HANDLE Handle, INT64 TimeOut))                                            \
    SLOT(86, KxGetSystemTime, KxGetSystemTime, void, (PIOsal pThis, PUINT64 pCurrentTime))        \
    SLOT(87, KxRegisterModuleName, KxRegisterModuleName, KCSTATUS,                                \
         (PIOsal pThis, const CHAR* pModuleName))                                                 \
    SLOT(88, KxGetGeneralOsalStatistics, KxGetGeneralOsalStatistics, KCSTATUS,                    \
         (PIOsal pThis, PUINT32 pSize, PVOID pStatBuf))                                           \
    SLOT(89, KxDeleteValue, KxDeleteValue, KCSTATUS,                                              \
         (PIOsal pThis, HANDLE Handle, const WCHAR* pValueNameW))
/* clang-format on */

#endif
