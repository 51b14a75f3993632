/* The component runtime, liblcm.so: finds component libraries, starts and stops them, and makes
 * instances of the classes they serve.
 *
 * A component is a shared library that exports TSCOM_Table, DllStart, DllGetClassObject and DllStop
 * (osal/component.h). osal.so is one, and itself calls LcmCreateInstance to reach others. A host
 * product may put a runtime of its own in front of this one; it needs that one function.
 *
 * Refusals: whatever the runtime refuses, it reports by a status of facility KC_FACILITY_RUNTIME,
 * built through the status library under the name of the function called, and by one line in the
 * system log at LOG_USER | LOG_ERR that names the file, folder or class and says why.
 */
#ifndef HOST_LCM_H
#define HOST_LCM_H

#include "osal/status.h"
#include "osal/types.h"

OSAL_BEGIN_DECLS

/* Finds, loads and starts components.
 *
 * Searched in this order: the folder "components" beside this library, `directory` unless it is
 * null, and the folders of the environment variable LCM_COMPONENT_PATH, absolute paths separated by
 * colons, empty ones skipped; the variable is ignored in a set-user-id process. In each folder the
 * files whose names end in ".so" are taken in the order of the bytes of their names. A symbolic
 * link counts as the file it leads to. A file that is loaded already is passed over, under whatever
 * name it comes again. Each other one is loaded with RTLD_NOW | RTLD_LOCAL, its DllStart is called,
 * and from then on its classes are served. Other threads see it at once.
 *
 * Refused, one by one, while the search goes on with the next file or folder:
 *   code 1       a file or folder that its group or others may write, or that neither root nor the
 *                effective user owns; checked are the folder searched, the file that a link leads
 * to and its folder, not the folders above. A file that is no regular one or cannot be loaded. A
 * folder that cannot be read. code 2       a file that lacks an entry point; one of a library that
 * it needs does not count. code 3       `directory`, a folder of the variable or the end of a link
 * that does not exist. "components" may be missing. code 4       a folder of the variable that is
 * not an absolute path. code 5       no memory; ends the search. any other    a component whose
 * DllStart returned an error: that very status. DllStop is not called, the file is unloaded. Code
 * 0x1003, and nothing is done: the call comes from inside a component, that is from a routine that
 * this runtime is calling on this thread.
 *
 * Returns 0, or the status of the first refusal. The runtime is started either way, with the
 * components that were not refused; with code 0x1003 it stays as it was.
 *
 * A second call searches again, the caller's new folder too, and adds what is not loaded yet behind
 * the rest. After LcmStop everything may be started anew.
 *
 * `directory` is used during the call only. Safe on any thread; calls of LcmStart and LcmStop wait
 * for one another. Blocks as loading does and as long as the components' DllStart. Cancellation is
 * disabled meanwhile. Reads the environment. Not for use in a signal handler, nor in a fork child
 * of a process with several threads. */
KCSTATUS LcmStart(const char* directory);

/* Makes an instance of a class: asks the component that serves it for the class factory
 * (DllGetClassObject with IID_IClassFactory) and calls its CreateInstance with `outer`, `iid` and
 * `out`. Of several components with the same class, the one loaded first serves.
 *
 * Returns what CreateInstance returned, unchanged. The caller owns one reference of the instance
 * and must give it back before LcmStop. On every failure *out is null. Refused with
 *   code 1       runtime not started, or stopping, or the component could not give its factory
 *                (it returned a result other than 0 and 0x80004002, or no factory)
 *   code 2       nobody serves the class, or the component's entry returned 0x80004002
 *   code 4       clsid, iid or out is null
 * `outer` is passed on as it is; the library's own classes refuse any but null. Not checked: that
 * the component keeps to the interface it promises.
 *
 * Safe on any thread, also from inside a component: from its DllStart (components loaded before it
 * are served), from DllGetClassObject and CreateInstance, from its threads. From inside a DllStop
 * every class is refused with code 1. Blocks only as long as the component's own routines; a
 * cancellation point only where they are one, and for the log line of a refusal. A thread may end
 * or be cancelled in the component's routines; nothing of the runtime stays held. */
KCSTATUS LcmCreateInstance(const GUID* clsid, void* outer, const GUID* iid, void** out);

/* Stops the runtime: waits for calls of LcmCreateInstance that are under way (new ones are refused
 * with code 1 from now on), calls DllStop of all components, the one loaded last first, and then
 * unloads them in the same order. No component is unloaded before all have stopped, so that a
 * thread of one may still run a routine of another until DllStop has ended it.
 *
 * Every instance must have been released, and nobody may be inside a component's code any more:
 * neither can be checked. What DllStop returns is ignored.
 *
 * Returns 0; also when the runtime was not started, which does nothing. Code 0x1003, and nothing is
 * done: called from inside a component. Not detected, and a deadlock: a component that waits for
 * another thread that calls LcmStop.
 *
 * Safe on any thread. Blocks as long as the components' DllStop. Cancellation is disabled
 * meanwhile. A process may end without it; components are then neither stopped nor unloaded. */
KCSTATUS LcmStop(void);

OSAL_END_DECLS

#endif
