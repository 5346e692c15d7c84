// Running averages and the duration of events.
#ifndef VELTRANE_MEASURE_H
#define VELTRANE_MEASURE_H

#include <veltrane/records.h>
#include <veltrane/types.h>

VT_BEGIN_DECLS

// p * new_value + (1 - p) * old_value
double GAverage(double new_value, double old_value, double p);

// q; expect = GAverage(q, old.expect, p); var = GAverage((q - old.expect)^2, old.var, p); dq = q - old.q
QPoint QAverage(QPoint old, double q, double p);

// CLOCK_REALTIME now; a caller may bring its own time instead
struct timespec BeginMeasure(void);

// seconds since start into dbid_performance under event_name (cut at 4095 bytes): the first time { d, d, 0, 0 },
// later QAverage with p = 0.7. A start in the future and a database that does not open are left out at debug level
void EndMeasure(const char *event_name, struct timespec start);

VT_END_DECLS

#endif
