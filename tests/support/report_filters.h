// Report filters for the tests of packers.
#ifndef TESTS_SUPPORT_REPORT_FILTERS_H
#define TESTS_SUPPORT_REPORT_FILTERS_H

#include <memory>

#include <veltrane/alloc.h>
#include <veltrane/owned.h>

#include "libvtenterprise/server_report_filter.h"
#include "support/texts.h"

using ReportFilterPtr = std::unique_ptr<ReportFilter, veltrane::Destroyer<ReportFilterDestroy>>;

// A new list of patterns; NULL for none.
inline Seq *Patterns(const Texts &texts)
{
    if (texts.empty()) {
        return nullptr;
    }
    Seq *patterns = SeqNew(texts.size(), free);
    for (const std::string &text : texts) { SeqAppend(patterns, xstrdup(text.c_str())); }
    return patterns;
}

// A filter that includes and excludes what these match; no text is no restriction.
inline ReportFilterPtr Filter(const char *type, const Texts &include, const Texts &exclude = {})
{
    return ReportFilterPtr(ReportFilterNewFrom(type, Patterns(include), Patterns(exclude)));
}

#endif
