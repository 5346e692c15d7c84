// Reading numbers out of foreign lines as scanf's "%ld" does, but with a defined result for one that is too large.
#ifndef LIBVTENTERPRISE_SCAN_NUMBER_H
#define LIBVTENTERPRISE_SCAN_NUMBER_H

#include <cstdlib>

// Skip white space, read a decimal number with an optional sign into *ret_number and move *text behind it. A number out
// of range becomes the nearest long. False when no number is there: both are then untouched.
inline bool ScanNumber(const char **text, long *ret_number)
{
    char *end = nullptr;
    const long number = strtol(*text, &end, 10);
    if (end == *text) {
        return false;
    }
    *text = end;
    *ret_number = number;
    return true;
}

#endif
