// Texts of a report that have a limit: joined tags, and the values of variables.
#ifndef LIBVTENTERPRISE_REPORTED_TEXT_H
#define LIBVTENTERPRISE_REPORTED_TEXT_H

#include <cstddef>
#include <string_view>

#include <veltrane/owned.h>
#include <veltrane/set.h>

// A text of more bytes than this is cut to one byte less.
inline constexpr size_t kMaxReportedBytes = 1024;

// Whose text it is, for the line that tells of a cut: "Context 'linux'".
struct ReportedItem {
    const char *kind;
    const char *name;
};

// The text as a record keeps it, cut, at verbose level, when it is too long to be sent. NULL for an empty one: an empty
// column is read back as absent, and the item would look changed after every run.
//
// what  what it is of the item, and its verb, for the same line: "(value) is"
veltrane::TextPtr ReportedText(std::string_view text, const ReportedItem &item, const char *what);

// The same for a set of tags, joined with ",".
veltrane::TextPtr ReportedTags(const StringSet *tags, const ReportedItem &item);

#endif
