// What a report query may carry: filters that access promises with "report_data_select" set, and how they judge.
//
// One book a query word ("delta", "rebase"); in it at most one filter a kind of data: "monitoring", "metatags",
// "promise_handles". The books live in one process-wide set, absent until the first such promise is kept and guarded by
// vtt_server_filter; a query works on a private copy of its book, so a reload of policy never changes a filter under
// it.
//
// A pattern that holds regular-expression characters must match the whole text, any other must equal it.
#ifndef LIBVTENTERPRISE_SERVER_REPORT_FILTER_H
#define LIBVTENTERPRISE_SERVER_REPORT_FILTER_H

#include <memory>

#include <veltrane/owned.h>
#include <veltrane/seq.h>
#include <veltrane/set.h>

#include "libvtenterprise/export.h"

struct ReportFilter {
    char *report_type;  // owned; first, as the name of a book is: one comparator serves both
    Seq *include_list;  // owned texts, at least one of which must match; NULL = no such restriction, empty = nothing
                        // does
    Seq *exclude_list;  // owned texts, none of which may match; NULL = no such restriction
};

struct ReportBookFilter {
    char *book_name;          // owned: the query word
    Seq *report_filter_list;  // owned ReportFilter, in order; NULL until the first is appended
};

// New. report_type is copied; both lists (NULL or Seqs of texts that free their items) are taken over.
VT_EXPORT ReportFilter *ReportFilterNewFrom(const char *report_type, Seq *include_list, Seq *exclude_list) noexcept;

// New deep copy; absent lists stay absent.
VT_EXPORT ReportFilter *ReportFilterCopy(const ReportFilter *filter) noexcept;

// NULL is ignored.
VT_EXPORT void ReportFilterDestroy(ReportFilter *filter) noexcept;

// New, without any filter. book_name is copied.
VT_EXPORT ReportBookFilter *ReportBookFilterNewFrom(const char *book_name) noexcept;

// NULL is ignored.
VT_EXPORT void ReportBookFilterDestroy(ReportBookFilter *book_filter) noexcept;

// Takes over filter.
VT_EXPORT void ReportBookFilterAppendReportFilter(ReportBookFilter *book_filter, ReportFilter *filter) noexcept;

// The first book of that name, lent; NULL when there is none or no sequence.
VT_EXPORT ReportBookFilter *GetReportBookFilter(const char *book_name, const Seq *book_filters) noexcept;

// The first filter of that type, lent; NULL when there is none, no list or no book.
VT_EXPORT ReportFilter *GetReportFilter(const char *report_type, const ReportBookFilter *book_filter) noexcept;

// New deep copy.
VT_EXPORT ReportBookFilter *CopyReportBookFilter(const ReportBookFilter *book_filter) noexcept;

// Add copies of all that source holds to destination: a filter of a type new to it is appended, the patterns of any
// other go behind those already there. So a book that let everything through is restricted once a second one brings
// includes.
VT_EXPORT void ReportBookFilterMerge(ReportBookFilter *destination, const ReportBookFilter *source) noexcept;

// Whether filter, which must be there, lets a record of this key leave the host.
VT_EXPORT bool IsKeyAllowedByFilter(const char *key, const ReportFilter *filter) noexcept;

// The same for a record that carries a set of texts: some element must match an include, none an exclude.
VT_EXPORT bool IsStringSetAllowedByFilter(const StringSet *set, const ReportFilter *filter) noexcept;

// New copy of a sequence of texts, in the same order.
VT_EXPORT Seq *CopyRegExList(const Seq *list) noexcept;

// Comparators for SeqLookup: the key against the name of a book, and against the type of a filter.
VT_EXPORT int CompareKeyToReportBookName(const void *key, const void *element, void *user_data) noexcept;
VT_EXPORT int CompareKeyToReportType(const void *key, const void *element, void *user_data) noexcept;

// The entry points that fill and drop the set are in entry_points_real.h:
//   KeepReportDataSelectAccessPromise  keeps an access promise. Without "report_data_select" nothing happens; else the
//                                      promiser's book is made from its six lists, or they are merged into the book
//                                      that an earlier promise made.
//   CleanReportBookFilterSet           drops all books; queries go unfiltered until promises bring new ones.

using ReportBookFilterPtr = std::unique_ptr<ReportBookFilter, veltrane::Destroyer<ReportBookFilterDestroy>>;

// A private copy of the book of this query word; NULL when policy set none.
//
// Locks     takes vtt_server_filter for the lookup and the copy.
ReportBookFilterPtr CopyBookFilterOfQuery(const char *query_word);

#endif
