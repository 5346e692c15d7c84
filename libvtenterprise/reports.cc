// The tables of the reporting words and the conversions over them.
#include "libvtenterprise/reports.h"

#include <cstdio>
#include <cstring>
#include <ctime>

#include <veltrane/owned.h>
#include <veltrane/rlist.h>
#include <veltrane/string_lib.h>

const char *const VT_CODEBOOK[vtr_code_max] = {
    "PRF", "CLS", "SUI", "CHG", "CNG", "DIF", "MNM", "MNW", "MNY", "MNH",  // 0
    "MOM", "MOY", "MOH", "PCP", "TCP", "SOF", "AVL", "PST", "POT", "VAL",  // 10
    "VRD", "VAR", "SEN", "PRL", "NKL", "BUN", "SWD", "EXS", "CLD", "VAD",  // 20
    "LSD", "SDI", "SPD", "PRD", "ELD", "CND", "PLG",                       // 30
};

const char *const REPORT_REQUEST_STR[REPORT_REQUEST_TYPE_MAX] = {"delta", "full", "collect_call", "error", "rebase"};

namespace {

struct Architecture {
    const char *name;
    const char *code;
};

constexpr Architecture kArchitectures[] = {
    {"i386", "3"},   {"i486", "4"}, {"i586", "5"},  {"i686", "6"},    {"noarch", "-"},
    {"x86_64", "x"}, {"s390", "t"}, {"s390x", "s"}, {"default", "d"},
};

// Zeros up to the end, and no terminator when the text fills all of it.
void CopyPadded(const char *text, char *to)
{
    const size_t length = strnlen(text, kBundleNameSize);
    memcpy(to, text, length);
    memset(to + length, 0, kBundleNameSize - length);
}

}  // namespace

const char *ReportTypeToString(ReportType type)
{
    switch (type) {
        case report_type_classes:
            return "classes";
        case report_type_variables:
            return "variables";
        case report_type_lastseen:
            return "lastseen";
        case report_type_software:
            return "software";
        case report_type_software_patch:
            return "patch";
        case report_type_execution_log:
            return "execution_log";
        case report_type_max:
            break;
    }
    return "unknown";
}

CodeBookIndex Reports_CodeBookIndexFromString(const char *chapter, CodeBookIndex default_index)
{
    for (int i = 0; i < vtr_code_max; i++) {
        if (StringEqual(chapter, VT_CODEBOOK[i])) {
            return static_cast<CodeBookIndex>(i);
        }
    }
    return default_index;
}

bool Reports_IsDiff(CodeBookIndex chapter)
{
    switch (chapter) {
        case vtr_code_class_diff:
        case vtr_code_variable_diff:
        case vtr_code_last_seen_diff:
        case vtr_code_software_diff:
        case vtr_code_software_patch_diff:
        case vtr_code_execution_log_diff:  // the chapter of performance lies before it in the numbering
            return true;
        default:
            return false;
    }
}

ReportRequestType Reports_RequestTypeFromString(const char *s)
{
    for (int i = 0; i < REPORT_REQUEST_TYPE_MAX; i++) {
        if (StringEqual(s, REPORT_REQUEST_STR[i])) {
            return static_cast<ReportRequestType>(i);
        }
    }
    return REPORT_REQUEST_TYPE_ERROR;
}

long Reports_TimestampFromString(const char *line)
{
    char timestamp[12];
    const size_t length = strcspn(line, ",");
    if (length == 0 || length >= sizeof(timestamp)) {
        return 0;
    }
    memcpy(timestamp, line, length);
    timestamp[length] = '\0';
    return StringToLongDefaultOnError(timestamp, 0);
}

const char *Vesk_ShortArch(const char *arch)
{
    for (const Architecture &known : kArchitectures) {
        if (StringEqual(arch, known.name)) {
            return known.code;
        }
    }
    return arch;
}

const char *Vesk_LongArch(const char *arch)
{
    if (arch == nullptr || arch[0] == '\0' || StringEqual(arch, "\n")) {
        return "unknown";
    }
    for (const Architecture &known : kArchitectures) {
        if (StringEqual(arch, known.code)) {
            return known.name;
        }
    }
    return arch;
}

bool BundleQualifiedNameSplit(const char *qualified_bundle_name, char *namespace_out, char *bundle_name_out)
{
    const veltrane::RlistPtr pieces(RlistFromSplitString(qualified_bundle_name, ':'));
    if (pieces == nullptr) {
        return false;
    }
    const bool is_qualified = pieces->next != nullptr;
    CopyPadded(is_qualified ? RlistScalarValue(pieces.get()) : "", namespace_out);
    CopyPadded(RlistScalarValue(is_qualified ? pieces->next : pieces.get()), bundle_name_out);
    return true;
}

char *SqlVariableExpandNumeric(const char *query, const char *key, long value)
{
    char number[32];
    snprintf(number, sizeof(number), "%ld", value);
    return SearchAndReplace(query, key, number);
}

// The first pattern never matches inside the second, which goes on with "_DAYS" where the first has "(".
char *SqlVariableExpand(const char *query)
{
    const long now = static_cast<long>(time(nullptr));
    const veltrane::TextPtr seconds_expanded(SqlVariableExpandNumeric(query, "TIMESTAMP_UNIX()", now));
    return SqlVariableExpandNumeric(seconds_expanded.get(), "TIMESTAMP_UNIX_DAYS()", now / 86400);
}
