// The words of reporting and the conversions over them.
#include "libvtenterprise/reports.h"

#include <cctype>
#include <cstring>
#include <ctime>
#include <set>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/record_text.h"

using testing::ElementsAreArray;

namespace {

// Two outputs of BundleQualifiedNameSplit, filled with a byte that shows what was written.
struct SplitName {
    explicit SplitName(const char *name) : done(BundleQualifiedNameSplit(name, ns, bundle)) {}

    char ns[kBundleNameSize] = {'u', 'n'};
    char bundle[kBundleNameSize] = {'u', 'n'};
    bool done;
};

}  // namespace

TEST(CodeBook, TheCodesStandInTheOrderOfTheProtocol)
{
    const char *const codes[] = {"PRF", "CLS", "SUI", "CHG", "CNG", "DIF", "MNM", "MNW", "MNY", "MNH",
                                 "MOM", "MOY", "MOH", "PCP", "TCP", "SOF", "AVL", "PST", "POT", "VAL",
                                 "VRD", "VAR", "SEN", "PRL", "NKL", "BUN", "SWD", "EXS", "CLD", "VAD",
                                 "LSD", "SDI", "SPD", "PRD", "ELD", "CND", "PLG"};
    EXPECT_EQ(vtr_code_max, 37);
    const std::vector<std::string> book(std::begin(VT_CODEBOOK), std::end(VT_CODEBOOK));
    EXPECT_THAT(book, ElementsAreArray(codes));
}

TEST(CodeBook, TheNamedChaptersHaveTheirCodes)
{
    EXPECT_STREQ(VT_CODEBOOK[vtr_code_fchange], "CNG");
    EXPECT_STREQ(VT_CODEBOOK[vtr_code_monitor_mg], "MOM");
    EXPECT_STREQ(VT_CODEBOOK[vtr_code_monitor_yr], "MOY");
    EXPECT_STREQ(VT_CODEBOOK[vtr_code_monitor_hg], "MOH");
    EXPECT_STREQ(VT_CODEBOOK[vtr_code_code_promiseout], "POT");
    EXPECT_STREQ(VT_CODEBOOK[vtr_code_execution_status], "EXS");
    EXPECT_STREQ(VT_CODEBOOK[vtr_code_class_diff], "CLD");
    EXPECT_STREQ(VT_CODEBOOK[vtr_code_variable_diff], "VAD");
    EXPECT_STREQ(VT_CODEBOOK[vtr_code_last_seen_diff], "LSD");
    EXPECT_STREQ(VT_CODEBOOK[vtr_code_software_diff], "SDI");
    EXPECT_STREQ(VT_CODEBOOK[vtr_code_software_patch_diff], "SPD");
    EXPECT_STREQ(VT_CODEBOOK[vtr_code_performance], "PRD");
    EXPECT_STREQ(VT_CODEBOOK[vtr_code_execution_log_diff], "ELD");
    EXPECT_STREQ(VT_CODEBOOK[vtr_code_fdiff], "CND");
    EXPECT_STREQ(VT_CODEBOOK[vtr_code_promise_log], "PLG");
}

TEST(CodeBook, EveryCodeIsThreeCapitalsAndFindsItsIndex)
{
    for (int i = 0; i < vtr_code_max; i++) {
        const std::string code = VT_CODEBOOK[i];
        EXPECT_EQ(code.size(), 3u) << code;
        for (const char c : code) { EXPECT_TRUE(c >= 'A' && c <= 'Z') << code; }
        EXPECT_EQ(Reports_CodeBookIndexFromString(code.c_str(), vtr_code_max), i);
    }
}

TEST(CodeBook, AnUnknownCodeGivesTheDefault)
{
    EXPECT_EQ(Reports_CodeBookIndexFromString("CLD", vtr_code_max), vtr_code_class_diff);
    EXPECT_EQ(Reports_CodeBookIndexFromString("cld", vtr_code_max), vtr_code_max);
    EXPECT_EQ(Reports_CodeBookIndexFromString("XYZ", vtr_code_class_diff), vtr_code_class_diff);
    EXPECT_EQ(Reports_CodeBookIndexFromString("CLDX", vtr_code_max), vtr_code_max);
    EXPECT_EQ(Reports_CodeBookIndexFromString("CL", vtr_code_max), vtr_code_max);
    EXPECT_EQ(Reports_CodeBookIndexFromString("", vtr_code_max), vtr_code_max);
    EXPECT_EQ(Reports_CodeBookIndexFromString(nullptr, vtr_code_max), vtr_code_max);
}

TEST(CodeBook, TheSixStateChaptersAndNoOtherAreDifferences)
{
    const std::set<int> state_chapters = {28, 29, 30, 31, 32, 34};
    for (int i = -1; i <= vtr_code_max; i++) {
        EXPECT_EQ(Reports_IsDiff(static_cast<CodeBookIndex>(i)), state_chapters.count(i) == 1) << i;
    }
}

TEST(ReportType, ThePatchReportHasItsShortName)
{
    EXPECT_STREQ(ReportTypeToString(report_type_classes), "classes");
    EXPECT_STREQ(ReportTypeToString(report_type_variables), "variables");
    EXPECT_STREQ(ReportTypeToString(report_type_lastseen), "lastseen");
    EXPECT_STREQ(ReportTypeToString(report_type_software), "software");
    EXPECT_STREQ(ReportTypeToString(report_type_software_patch), "patch");
    EXPECT_STREQ(ReportTypeToString(report_type_execution_log), "execution_log");
}

TEST(ReportType, AnyOtherNumberIsUnknown)
{
    for (const int number : {6, 7, -1, 1000}) {
        EXPECT_STREQ(ReportTypeToString(static_cast<ReportType>(number)), "unknown") << number;
    }
}

TEST(RequestType, EachWordGivesItsNumber)
{
    EXPECT_EQ(Reports_RequestTypeFromString("delta"), 0);
    EXPECT_EQ(Reports_RequestTypeFromString("full"), 1);
    EXPECT_EQ(Reports_RequestTypeFromString("collect_call"), 2);
    EXPECT_EQ(Reports_RequestTypeFromString("error"), 3);
    EXPECT_EQ(Reports_RequestTypeFromString("rebase"), 4);
    for (int i = 0; i < REPORT_REQUEST_TYPE_MAX; i++) {
        EXPECT_EQ(Reports_RequestTypeFromString(REPORT_REQUEST_STR[i]), i);
    }
}

TEST(RequestType, AnUnreadableWordIsAnError)
{
    for (const char *word : {"Rebase", "", "delta ", "del", "deltas"}) {
        EXPECT_EQ(Reports_RequestTypeFromString(word), REPORT_REQUEST_TYPE_ERROR) << word;
    }
    EXPECT_EQ(Reports_RequestTypeFromString(nullptr), REPORT_REQUEST_TYPE_ERROR);
}

TEST(Timestamp, IsTheNumberBeforeTheFirstComma)
{
    EXPECT_EQ(Reports_TimestampFromString("1513275477,x"), 1513275477);
    EXPECT_EQ(Reports_TimestampFromString("1513275477,x,y"), 1513275477);
    EXPECT_EQ(Reports_TimestampFromString("17"), 17);
    EXPECT_EQ(Reports_TimestampFromString("12345678901"), 12345678901);
    EXPECT_EQ(Reports_TimestampFromString("12345678901,"), 12345678901);
}

TEST(Timestamp, WhatIsNoNumberOrTooLongIsZero)
{
    for (const char *line : {"", ",1", "123456789012", "123456789012,x", "12a,5", "a", " 1,", "1 ,"}) {
        EXPECT_EQ(Reports_TimestampFromString(line), 0) << line;
    }
}

TEST(Architecture, EachHasACodeAndBack)
{
    const char *const pairs[][2] = {{"i386", "3"},   {"i486", "4"}, {"i586", "5"},  {"i686", "6"},   {"noarch", "-"},
                                    {"x86_64", "x"}, {"s390", "t"}, {"s390x", "s"}, {"default", "d"}};
    for (const auto &[name, code] : pairs) {
        EXPECT_STREQ(Vesk_ShortArch(name), code);
        EXPECT_STREQ(Vesk_LongArch(code), name);
    }
}

TEST(Architecture, ATextWithoutACodeIsReturnedItself)
{
    for (const char *arch : {"amd64", "arm64", "I386", "i3866", "", "3"}) { EXPECT_EQ(Vesk_ShortArch(arch), arch); }
    for (const char *arch : {"3x", "xx", "-\n", "\n\n", "amd64", "D", "i386"}) { EXPECT_EQ(Vesk_LongArch(arch), arch); }
}

TEST(Architecture, ACodeThatIsNotThereIsUnknown)
{
    EXPECT_STREQ(Vesk_LongArch(nullptr), "unknown");
    EXPECT_STREQ(Vesk_LongArch(""), "unknown");
    EXPECT_STREQ(Vesk_LongArch("\n"), "unknown");
}

TEST(BundleName, IsSplitAtItsFirstColonAndEndsAtTheSecond)
{
    const SplitName qualified("ns:main");
    EXPECT_TRUE(qualified.done);
    EXPECT_STREQ(qualified.ns, "ns");
    EXPECT_STREQ(qualified.bundle, "main");

    const SplitName three("a:b:c");
    EXPECT_TRUE(three.done);
    EXPECT_STREQ(three.ns, "a");
    EXPECT_STREQ(three.bundle, "b");

    const SplitName open("ns:");
    EXPECT_TRUE(open.done);
    EXPECT_STREQ(open.ns, "ns");
    EXPECT_STREQ(open.bundle, "");
}

TEST(BundleName, WithoutAColonHasNoNamespace)
{
    const SplitName plain("main");
    EXPECT_TRUE(plain.done);
    EXPECT_STREQ(plain.ns, "");
    EXPECT_STREQ(plain.bundle, "main");
}

TEST(BundleName, AnEmptyOneIsRefusedAndTheOutputsStay)
{
    for (const char *name : {"", static_cast<const char *>(nullptr)}) {
        const SplitName none(name);
        EXPECT_FALSE(none.done);
        EXPECT_STREQ(none.ns, "un");
        EXPECT_STREQ(none.bundle, "un");
    }
}

TEST(BundleName, TheOutputsArePaddedWithZeros)
{
    char ns[kBundleNameSize];
    char bundle[kBundleNameSize];
    memset(ns, 'u', sizeof(ns));
    memset(bundle, 'u', sizeof(bundle));
    ASSERT_TRUE(BundleQualifiedNameSplit("ns:main", ns, bundle));
    EXPECT_EQ(std::string(ns, sizeof(ns)), std::string("ns") + std::string(1022, '\0'));
    EXPECT_EQ(std::string(bundle, sizeof(bundle)), std::string("main") + std::string(1020, '\0'));
}

TEST(BundleName, APieceThatFillsItsBufferHasNoTerminator)
{
    const std::string full(1024, 'b');
    for (const std::string &piece : {full, full + "and more"}) {
        char ns[kBundleNameSize + 1] = {};
        char bundle[kBundleNameSize + 1] = {};
        ns[kBundleNameSize] = '|';
        bundle[kBundleNameSize] = '|';
        ASSERT_TRUE(BundleQualifiedNameSplit((piece + ":" + piece).c_str(), ns, bundle));
        EXPECT_EQ(std::string(ns, sizeof(ns)), full + "|");
        EXPECT_EQ(std::string(bundle, sizeof(bundle)), full + "|");
    }
}

TEST(SqlVariables, EveryOccurrenceOfTheKeyBecomesTheNumber)
{
    EXPECT_EQ(Taken(SqlVariableExpandNumeric("a K b K", "K", -12)), "a -12 b -12");
    EXPECT_EQ(Taken(SqlVariableExpandNumeric("none", "K", 1)), "none");
    EXPECT_EQ(Taken(SqlVariableExpandNumeric("K", "K", 9223372036854775807L)), "9223372036854775807");
}

TEST(SqlVariables, AQueryWithoutThemIsAnEqualNewText)
{
    const char query[] = "SELECT 1";
    char *expanded = SqlVariableExpand(query);
    EXPECT_NE(expanded, query);
    EXPECT_EQ(Taken(expanded), query);
}

TEST(SqlVariables, SecondsAndDaysAreOfTheSameMoment)
{
    const long before = time(nullptr);
    const std::string expanded =
        Taken(SqlVariableExpand("TIMESTAMP_UNIX() TIMESTAMP_UNIX_DAYS() TIMESTAMP_UNIX() TIMESTAMP_UNIX_DAYS()"));
    const long after = time(nullptr);

    const long seconds = std::stol(expanded);
    EXPECT_GE(seconds, before);
    EXPECT_LE(seconds, after);
    const std::string both = std::to_string(seconds) + " " + std::to_string(seconds / 86400);
    EXPECT_EQ(expanded, both + " " + both);
}
