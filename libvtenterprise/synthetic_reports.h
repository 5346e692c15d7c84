// Two fixed report streams, with one row in each of the chapters CLD, VAD, LSD, SDI, ELD and EXS: what a hub may be
// fed with where there are no hosts.
//
// The delta and the rebase tell of one host at two moments, and differ in its name, its address, the release of its
// policy and the time of its last run, so that a hub can be seen to have taken both.
#ifndef LIBVTENTERPRISE_SYNTHETIC_REPORTS_H
#define LIBVTENTERPRISE_SYNTHETIC_REPORTS_H

#include <veltrane/seq.h>

#include "libvtenterprise/export.h"

// New Seq of new lines, the header first. ts is the time text of every row but that of EXS.
VT_EXPORT Seq *Reports_PackTestDelta(const char *ts) noexcept;

// The same; every row is an addition.
VT_EXPORT Seq *Reports_PackTestRebase(const char *ts) noexcept;

#endif
