// Report filters: their records, the set that access promises fill, and the judgement.
#include "libvtenterprise/server_report_filter.h"

#include <cstddef>
#include <cstdlib>
#include <iterator>

#include <veltrane/alloc.h>
#include <veltrane/mutex.h>
#include <veltrane/policy.h>
#include <veltrane/rlist.h>
#include <veltrane/rval.h>
#include <veltrane/string_lib.h>

#include "libvtenterprise/entry_points_real.h"
#include "libvtenterprise/thread_guard.h"

namespace {

using veltrane::SeqPtr;
using veltrane::SeqViewPtr;
using ReportFilterPtr = std::unique_ptr<ReportFilter, veltrane::Destroyer<ReportFilterDestroy>>;

// All books; absent until a promise brings the first. Guarded by vtt_server_filter.
SeqPtr book_filter_set;

// The three kinds of data, each with the attributes that restrict it, in the order in which a book holds them.
constexpr struct {
    const char *report_type;
    const char *include;
    const char *exclude;
} kSelections[] = {
    {"monitoring", "monitoring_include", "monitoring_exclude"},
    {"metatags", "metatags_include", "metatags_exclude"},
    {"promise_handles", "promise_handle_include", "promise_handle_exclude"},
};

void DestroyFilterItem(void *filter) { ReportFilterDestroy(static_cast<ReportFilter *>(filter)); }
void DestroyBookItem(void *book_filter) { ReportBookFilterDestroy(static_cast<ReportBookFilter *>(book_filter)); }

const char *TextAt(const Seq *texts, size_t i) { return static_cast<const char *>(SeqAt(texts, i)); }
const ReportFilter *FilterAt(const Seq *filters, size_t i)
{
    return static_cast<const ReportFilter *>(SeqAt(filters, i));
}

Seq *CopyListOrAbsent(const Seq *list) { return list != nullptr ? CopyRegExList(list) : nullptr; }

// The patterns of an attribute: absent when the attribute is, otherwise present even when it lists nothing. A single
// text counts as a list of one: an exclude written that way must not let everything through.
SeqPtr PatternsOf(const Constraint *constraint)
{
    if (constraint == nullptr) {
        return nullptr;
    }
    SeqPtr patterns(SeqNew(10, free));
    const char *scalar = RvalScalarValue(constraint->rval);
    if (scalar != nullptr) {
        SeqAppend(patterns.get(), xstrdup(scalar));
        return patterns;
    }
    for (const Rlist *node = RvalRlistValue(constraint->rval); node != nullptr; node = node->next) {
        SeqAppend(patterns.get(), xstrdup(RlistScalarValue(node)));
    }
    return patterns;
}

ReportBookFilterPtr BookOf(const Promise *pp)
{
    ReportBookFilterPtr book(ReportBookFilterNewFrom(pp->promiser));
    for (const auto &selection : kSelections) {
        SeqPtr include = PatternsOf(PromiseGetImmediateConstraint(pp, selection.include));
        SeqPtr exclude = PatternsOf(PromiseGetImmediateConstraint(pp, selection.exclude));
        if (include != nullptr || exclude != nullptr) {
            ReportBookFilterAppendReportFilter(
                book.get(), ReportFilterNewFrom(selection.report_type, include.release(), exclude.release()));
        }
    }
    return book;
}

// Put copies of the patterns behind those of *list, which is made when absent.
void AppendPatterns(Seq **list, const Seq *patterns)
{
    if (patterns == nullptr) {
        return;
    }
    SeqPtr copies(CopyRegExList(patterns));
    if (*list == nullptr) {
        *list = copies.release();
        return;
    }
    SeqAppendSeq(*list, copies.get());
    const SeqViewPtr emptied(copies.release());  // its texts now belong to *list
}

bool PatternMatches(const char *pattern, const char *key)
{
    return HasRegexMetaChars(pattern) ? StringMatchFull(pattern, key) : StringEqual(pattern, key);
}

bool AnyPatternMatches(const Seq *patterns, const char *key)
{
    for (size_t i = 0; i < SeqLength(patterns); ++i) {
        if (PatternMatches(TextAt(patterns, i), key)) {
            return true;
        }
    }
    return false;
}

bool AnyPatternMatches(const Seq *patterns, const StringSet *set)
{
    StringSetIterator i = StringSetIteratorInit(set);
    for (const char *key = StringSetIteratorNext(&i); key != nullptr; key = StringSetIteratorNext(&i)) {
        if (AnyPatternMatches(patterns, key)) {
            return true;
        }
    }
    return false;
}

// subject: one key, or a set of which any element may match
template <typename Subject>
bool IsAllowed(const Subject *subject, const ReportFilter *filter)
{
    if (filter->include_list != nullptr && !AnyPatternMatches(filter->include_list, subject)) {
        return false;
    }
    return filter->exclude_list == nullptr || !AnyPatternMatches(filter->exclude_list, subject);
}

}  // namespace

ReportFilter *ReportFilterNewFrom(const char *report_type, Seq *include_list, Seq *exclude_list) noexcept
{
    ReportFilter *filter = static_cast<ReportFilter *>(xcalloc(1, sizeof(ReportFilter)));
    filter->report_type = xstrdup(report_type);
    filter->include_list = include_list;
    filter->exclude_list = exclude_list;
    return filter;
}

ReportFilter *ReportFilterCopy(const ReportFilter *filter) noexcept
{
    return ReportFilterNewFrom(filter->report_type, CopyListOrAbsent(filter->include_list),
                               CopyListOrAbsent(filter->exclude_list));
}

void ReportFilterDestroy(ReportFilter *filter) noexcept
{
    if (filter == nullptr) {
        return;
    }
    free(filter->report_type);
    SeqDestroy(filter->include_list);
    SeqDestroy(filter->exclude_list);
    free(filter);
}

ReportBookFilter *ReportBookFilterNewFrom(const char *book_name) noexcept
{
    ReportBookFilter *book_filter = static_cast<ReportBookFilter *>(xcalloc(1, sizeof(ReportBookFilter)));
    book_filter->book_name = xstrdup(book_name);
    return book_filter;
}

void ReportBookFilterDestroy(ReportBookFilter *book_filter) noexcept
{
    if (book_filter == nullptr) {
        return;
    }
    free(book_filter->book_name);
    SeqDestroy(book_filter->report_filter_list);
    free(book_filter);
}

void ReportBookFilterAppendReportFilter(ReportBookFilter *book_filter, ReportFilter *filter) noexcept
{
    if (book_filter->report_filter_list == nullptr) {
        book_filter->report_filter_list = SeqNew(std::size(kSelections), DestroyFilterItem);
    }
    SeqAppend(book_filter->report_filter_list, filter);
}

ReportBookFilter *GetReportBookFilter(const char *book_name, const Seq *book_filters) noexcept
{
    if (book_filters == nullptr) {
        return nullptr;
    }
    return static_cast<ReportBookFilter *>(SeqLookup(book_filters, book_name, CompareKeyToReportBookName));
}

ReportFilter *GetReportFilter(const char *report_type, const ReportBookFilter *book_filter) noexcept
{
    if (book_filter == nullptr || book_filter->report_filter_list == nullptr) {
        return nullptr;
    }
    return static_cast<ReportFilter *>(SeqLookup(book_filter->report_filter_list, report_type, CompareKeyToReportType));
}

ReportBookFilter *CopyReportBookFilter(const ReportBookFilter *book_filter) noexcept
{
    ReportBookFilter *copy = ReportBookFilterNewFrom(book_filter->book_name);
    const Seq *filters = book_filter->report_filter_list;
    for (size_t i = 0; filters != nullptr && i < SeqLength(filters); ++i) {
        ReportBookFilterAppendReportFilter(copy, ReportFilterCopy(FilterAt(filters, i)));
    }
    return copy;
}

void ReportBookFilterMerge(ReportBookFilter *destination, const ReportBookFilter *source) noexcept
{
    const Seq *filters = source->report_filter_list;
    for (size_t i = 0; filters != nullptr && i < SeqLength(filters); ++i) {
        const ReportFilter *added = FilterAt(filters, i);
        ReportFilter *present = GetReportFilter(added->report_type, destination);
        if (present == nullptr) {
            ReportBookFilterAppendReportFilter(destination, ReportFilterCopy(added));
            continue;
        }
        AppendPatterns(&present->include_list, added->include_list);
        AppendPatterns(&present->exclude_list, added->exclude_list);
    }
}

bool IsKeyAllowedByFilter(const char *key, const ReportFilter *filter) noexcept { return IsAllowed(key, filter); }

bool IsStringSetAllowedByFilter(const StringSet *set, const ReportFilter *filter) noexcept
{
    return IsAllowed(set, filter);
}

Seq *CopyRegExList(const Seq *list) noexcept
{
    const size_t length = SeqLength(list);
    Seq *copy = SeqNew(length, free);
    for (size_t i = 0; i < length; ++i) { SeqAppend(copy, xstrdup(TextAt(list, i))); }
    return copy;
}

static_assert(offsetof(ReportFilter, report_type) == 0 && offsetof(ReportBookFilter, book_name) == 0);

int CompareKeyToReportBookName(const void *key, const void *element, void *) noexcept
{
    const char *name = element != nullptr ? *static_cast<char *const *>(element) : nullptr;
    return StringSafeCompare(static_cast<const char *>(key), name);
}

int CompareKeyToReportType(const void *key, const void *element, void *user_data) noexcept
{
    return CompareKeyToReportBookName(key, element, user_data);
}

ReportBookFilterPtr CopyBookFilterOfQuery(const char *query_word)
{
    const ThreadGuard guard(vtt_server_filter);
    const ReportBookFilter *book_filter = GetReportBookFilter(query_word, book_filter_set.get());
    return ReportBookFilterPtr(book_filter != nullptr ? CopyReportBookFilter(book_filter) : nullptr);
}

void KeepReportDataSelectAccessPromise__real(const Promise *pp) noexcept
{
    if (PromiseGetImmediateConstraint(pp, "report_data_select") == nullptr) {
        return;
    }
    ReportBookFilterPtr book = BookOf(pp);

    const ThreadGuard guard(vtt_server_filter);
    ReportBookFilter *present = GetReportBookFilter(pp->promiser, book_filter_set.get());
    if (present != nullptr) {
        ReportBookFilterMerge(present, book.get());
        return;
    }
    if (book_filter_set == nullptr) {
        book_filter_set.reset(SeqNew(10, DestroyBookItem));
    }
    SeqAppend(book_filter_set.get(), book.release());
}

void CleanReportBookFilterSet__real() noexcept
{
    const ThreadGuard guard(vtt_server_filter);
    book_filter_set.reset();
}
