/* The service interface: a table of ninety entry points behind a per-client instance.
 *
 * An instance comes from the factory of CLSID_OrvaneOsal (osal/component.h). Every service takes
 * the instance as its first argument and can be called through the table or by its exported name;
 * both are the same function. The services are described in the header of their subject.
 */
#ifndef OSAL_IOSAL_H
#define OSAL_IOSAL_H

#include "osal/slots_iosal.h"
#include "osal/status.h"
#include "osal/types.h"

OSAL_BEGIN_DECLS

typedef struct IOsal IOsal;
typedef IOsal* PIOsal;

#define OSAL_TABLE_FIELD(number, field, function, result, arguments) result(*field) arguments;
typedef struct IOsalVtbl {
    KX_IOSAL_SLOTS(OSAL_TABLE_FIELD, OSAL_TABLE_FIELD)
} IOsalVtbl;
#undef OSAL_TABLE_FIELD

/* What a client sees of an instance. */
struct IOsal {
    const IOsalVtbl* lpVtbl;
};

/* Hands out this interface (IID_IUnknown, IID_IOrvaneOsal_1) and counts one reference. Null
 * ppInterface: code 4. Another identifier: *ppInterface null, code 2. Thread safe. */
KCSTATUS OsalQueryInterface(PIOsal pThis, const GUID* pIId, void** ppInterface);

/* Counts one reference; returns the new count. Thread safe. */
UINT32 OsalAddReference(PIOsal pThis);

/* Gives one reference back; returns the count left. At zero the instance is freed, and memory,
 * locks and whatever else was allocated through it and is still held is left as it is: it can no
 * longer be given back, since its owner is gone. Thread safe. */
UINT32 OsalReleaseReference(PIOsal pThis);

/* Names the client in the statistics. A name of more than 31 characters is cut to its first 31.
 * Null: code 4. pThis is not checked. Not synchronised with a reader of the statistics or a second
 * call on the same instance: name an instance before it is shared. */
KCSTATUS KxRegisterModuleName(PIOsal pThis, const CHAR* pModuleName);

OSAL_END_DECLS

#endif
