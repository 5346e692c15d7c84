// Is a text from outside a regular expression at all?
//
// string_lib.h's matching says so in the log each time it is asked; who matches one expression against many texts asks
// here first, once.
#ifndef HOST_LIBVELTRANE_REGEX_CHECK_H
#define HOST_LIBVELTRANE_REGEX_CHECK_H

#include <string>

namespace veltrane {

// Why it does not compile, as "missing closing parenthesis (at byte 3)"; "" when it does.
std::string WhyNoRegex(const char *regex);

}  // namespace veltrane

#endif
