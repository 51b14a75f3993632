/* Everything a client needs: one include for the whole library. */
#ifndef OSAL_OSAL_H
#define OSAL_OSAL_H

#include "osal/component.h"
#include "osal/conversion.h"
#include "osal/counted_string.h"
#include "osal/debug.h"
#include "osal/event.h"
#include "osal/identifiers.h"
#include "osal/iom.h"
#include "osal/iosal.h"
#include "osal/iscom.h"
#include "osal/list.h"
#include "osal/lock.h"
#include "osal/memory.h"
#include "osal/primitives.h"
#include "osal/registry.h"
#include "osal/statistics.h"
#include "osal/status.h"
#include "osal/thread.h"
#include "osal/time.h"
#include "osal/timer.h"
#include "osal/types.h"
#include "osal/workitem.h"

#endif
