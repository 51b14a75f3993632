// The C++ face of the library: everything in one include. See osal/status.hpp for what holds in all
// of it.
#pragma once

#include "osal/context_object.hpp"
#include "osal/event.hpp"
#include "osal/interface.hpp"
#include "osal/lock.hpp"
#include "osal/memory.hpp"
#include "osal/object.hpp"
#include "osal/registry.hpp"
#include "osal/status.hpp"
#include "osal/text.hpp"
#include "osal/thread.hpp"
#include "osal/timeout.hpp"
#include "osal/timer.hpp"
#include "osal/workitem.hpp"
