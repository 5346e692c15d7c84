// How far two times lie apart, when one of them comes from elsewhere and may be any number.
#ifndef LIBVTENTERPRISE_TIME_DIFFERENCE_H
#define LIBVTENTERPRISE_TIME_DIFFERENCE_H

#include <time.h>

#include <limits>

// a - b, or the nearest time when that is out of range
inline time_t TimeDifference(time_t a, time_t b)
{
    time_t difference;
    if (__builtin_sub_overflow(a, b, &difference)) {
        return b < 0 ? std::numeric_limits<time_t>::max() : std::numeric_limits<time_t>::min();
    }
    return difference;
}

#endif
