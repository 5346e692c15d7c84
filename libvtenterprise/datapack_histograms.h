// The chapter "MOH": how the measurements of each slot are spread around their average.
//
// The source is <state>/histograms (docs/formats/measurements.md). A line is the slot's name and 64 whole numbers, one
// a position: the seven days smoothed and added up.
#ifndef LIBVTENTERPRISE_DATAPACK_HISTOGRAMS_H
#define LIBVTENTERPRISE_DATAPACK_HISTOGRAMS_H

#include <veltrane/seq.h>

#include "libvtenterprise/server_report_filter.h"

// Append the chapter. Its code is there whenever the file can be opened, though no line follows. What the file cannot
// give counts as 0, at verbose level.
//
// filter  admits slots by their names; NULL = all
void PackHistograms(Seq *reply, const ReportFilter *filter);

#endif
