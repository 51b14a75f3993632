// The libraries of locks and threads that subjects measure against, as far as this machine has
// them.
#pragma once

#ifdef HAVE_ABSEIL
#include <absl/synchronization/mutex.h>
#endif
#ifdef HAVE_APR
#include <apr_general.h>
#include <apr_thread_cond.h>
#include <apr_thread_mutex.h>
#include <apr_thread_rwlock.h>
#endif
#ifdef HAVE_GLIB
#include <glib.h>
#endif
#ifdef HAVE_NSPR
#include <prcvar.h>
#include <prlock.h>
#include <prmon.h>
#include <prrwlock.h>
#endif

#include "harness.h"

namespace bench {

// Starts those that have to be started, and has the report name those that are not there.
inline void use_peers(Report& report) {
#ifdef HAVE_APR
    apr_initialize();
#else
    report.missing("APR");
#endif
#ifndef HAVE_ABSEIL
    report.missing("Abseil");
#endif
#ifndef HAVE_GLIB
    report.missing("GLib");
#endif
#ifndef HAVE_NSPR
    report.missing("NSPR");
#endif
    (void)report;
}

}  // namespace bench
