#include "libvtenterprise/server_report_filter.h"

#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <veltrane/alloc.h>
#include <veltrane/policy.h>
#include <veltrane/rlist.h>

#include "libvtenterprise/entry_points_real.h"
#include "tests/support/record_text.h"
#include "tests/support/texts.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ReportFilterPtr = std::unique_ptr<ReportFilter, veltrane::Destroyer<ReportFilterDestroy>>;

Seq *NewSeq(const Texts &texts) { return Fields(texts).release(); }

ReportFilterPtr Including(const Texts &include)
{
    return ReportFilterPtr(ReportFilterNewFrom("metatags", NewSeq(include), nullptr));
}

ReportFilterPtr Excluding(const Texts &exclude)
{
    return ReportFilterPtr(ReportFilterNewFrom("metatags", nullptr, NewSeq(exclude)));
}

bool KeyPasses(const std::string &key, const ReportFilterPtr &filter)
{
    return IsKeyAllowedByFilter(key.c_str(), filter.get());
}

bool SetPasses(const Texts &members, const ReportFilterPtr &filter)
{
    const veltrane::StringSetPtr set(StringSetNew());
    for (const std::string &member : members) { StringSetAdd(set.get(), xstrdup(member.c_str())); }
    return IsStringSetAllowedByFilter(set.get(), filter.get());
}

// A server policy put together in memory; a fresh set of books before and after it.
class AccessPromises : public ::testing::Test {
  protected:
    AccessPromises() : policy_(PolicyNew())
    {
        CleanReportBookFilterSet__real();
        Bundle *bundle = PolicyAppendBundle(policy_.get(), "default", "access_rules", "server", "promises.vt");
        section_ = BundleAppendSection(bundle, "access");
    }
    ~AccessPromises() override { CleanReportBookFilterSet__real(); }

    Promise *NewPromise(const std::string &promiser)
    {
        return BundleSectionAppendPromise(section_, promiser.c_str(), Rval{}, SourceOffset{});
    }

    // A promise with "report_data_select".
    Promise *NewSelection(const std::string &promiser)
    {
        Promise *pp = NewPromise(promiser);
        PromiseAppendConstraint(pp, "report_data_select", RvalNew("selection", RVAL_TYPE_SCALAR));
        return pp;
    }

    static void AddList(Promise *pp, const char *attribute, const Texts &texts)
    {
        PromiseAppendConstraint(pp, attribute, ListRval(texts));
    }

    veltrane::PolicyPtr policy_;
    BundleSection *section_;
};

TEST(ReportFilter, OwnsWhatItIsMadeOfAndCopiesDeeply)
{
    std::string type = "monitoring";
    const ReportFilterPtr filter(ReportFilterNewFrom(type.c_str(), NewSeq({"a", "b"}), NewSeq({})));
    type = "changed";

    const ReportFilterPtr copy(ReportFilterCopy(filter.get()));

    EXPECT_STREQ(filter->report_type, "monitoring");
    EXPECT_STREQ(copy->report_type, "monitoring");
    EXPECT_NE(copy->report_type, filter->report_type);
    EXPECT_THAT(SeqTexts(copy->include_list), ElementsAre("a", "b"));
    EXPECT_NE(SeqAt(copy->include_list, 0), SeqAt(filter->include_list, 0));
    ASSERT_NE(copy->exclude_list, nullptr);  // present, and empty
    EXPECT_THAT(SeqTexts(copy->exclude_list), IsEmpty());
}

TEST(ReportFilter, AbsentListsStayAbsentInACopy)
{
    const ReportFilterPtr filter(ReportFilterNewFrom("metatags", nullptr, nullptr));

    const ReportFilterPtr copy(ReportFilterCopy(filter.get()));

    EXPECT_EQ(copy->include_list, nullptr);
    EXPECT_EQ(copy->exclude_list, nullptr);
}

TEST(ReportFilter, DestroyingNothingIsFine)
{
    ReportFilterDestroy(nullptr);
    ReportBookFilterDestroy(nullptr);
}

TEST(ReportFilter, ACopiedPatternListHoldsTheSameTextsInTheSameOrder)
{
    const veltrane::SeqPtr list(NewSeq({"b", "a", "b"}));

    const veltrane::SeqPtr copy(CopyRegExList(list.get()));

    EXPECT_THAT(SeqTexts(copy.get()), ElementsAre("b", "a", "b"));
    EXPECT_NE(SeqAt(copy.get(), 0), SeqAt(list.get(), 0));
}

TEST(ReportFilter, WithoutListsEverythingPasses)
{
    const ReportFilterPtr filter(ReportFilterNewFrom("metatags", nullptr, nullptr));

    EXPECT_TRUE(KeyPasses("cpu0", filter));
    EXPECT_TRUE(KeyPasses("", filter));
    EXPECT_TRUE(SetPasses({"a"}, filter));
    EXPECT_TRUE(SetPasses({}, filter));
}

TEST(ReportFilter, APatternWithMetaCharactersMustMatchTheWholeKey)
{
    EXPECT_TRUE(KeyPasses("cpu0", Including({"cpu.*"})));
    EXPECT_TRUE(KeyPasses("cpu", Including({"cpu.*"})));
    EXPECT_FALSE(KeyPasses("mycpu0", Including({"cpu.*"})));
    EXPECT_FALSE(KeyPasses("cpu00", Including({"cpu[0-9]"})));
}

TEST(ReportFilter, APlainWordNeverMatchesBySubstring)
{
    EXPECT_FALSE(KeyPasses("cpu0", Including({"cpu"})));
    EXPECT_FALSE(KeyPasses("cp", Including({"cpu"})));
    EXPECT_FALSE(KeyPasses("CPU", Including({"cpu"})));
    EXPECT_TRUE(KeyPasses("cpu", Including({"cpu"})));
    EXPECT_TRUE(KeyPasses("cpu0", Excluding({"cpu"})));
    EXPECT_FALSE(KeyPasses("cpu", Excluding({"cpu"})));
}

TEST(ReportFilter, OneMatchingIncludeIsEnough)
{
    EXPECT_TRUE(KeyPasses("b", Including({"a", "b", "c"})));
    EXPECT_FALSE(KeyPasses("d", Including({"a", "b", "c"})));
}

TEST(ReportFilter, APresentButEmptyIncludeListRefusesEveryKeyAndSet)
{
    EXPECT_FALSE(KeyPasses("a", Including({})));
    EXPECT_FALSE(KeyPasses("", Including({})));
    EXPECT_FALSE(SetPasses({"a"}, Including({})));
    EXPECT_FALSE(SetPasses({}, Including({})));
}

TEST(ReportFilter, APresentButEmptyExcludeListRefusesNothing)
{
    EXPECT_TRUE(KeyPasses("a", Excluding({})));
    EXPECT_TRUE(SetPasses({"a"}, Excluding({})));
}

TEST(ReportFilter, AKeyOnBothListsIsRefused)
{
    const ReportFilterPtr filter(ReportFilterNewFrom("metatags", NewSeq({"a.*"}), NewSeq({"ab"})));

    EXPECT_TRUE(KeyPasses("aa", filter));
    EXPECT_FALSE(KeyPasses("ab", filter));
    EXPECT_FALSE(KeyPasses("b", filter));
}

TEST(ReportFilter, ASetNeedsOneElementThatIsIncluded)
{
    EXPECT_TRUE(SetPasses({"x", "inventory"}, Including({"inventory"})));
    EXPECT_TRUE(SetPasses({"x", "inventory"}, Including({"none", "inv.*"})));
    EXPECT_FALSE(SetPasses({"x", "y"}, Including({"inventory"})));
    EXPECT_FALSE(SetPasses({}, Including({"inventory"})));
    EXPECT_FALSE(SetPasses({}, Including({".*"})));
}

TEST(ReportFilter, ASetIsRefusedForAnyElementThatIsExcluded)
{
    EXPECT_FALSE(SetPasses({"inventory", "noreport"}, Excluding({"noreport"})));
    EXPECT_FALSE(SetPasses({"inventory", "noreport"}, Excluding({"x", "no.*"})));
    EXPECT_TRUE(SetPasses({"inventory"}, Excluding({"noreport"})));
    EXPECT_TRUE(SetPasses({}, Excluding({".*"})));

    const ReportFilterPtr both(ReportFilterNewFrom("metatags", NewSeq({"inventory"}), NewSeq({"noreport"})));
    EXPECT_FALSE(SetPasses({"inventory", "noreport"}, both));
    EXPECT_TRUE(SetPasses({"inventory", "other"}, both));
}

TEST(ReportFilter, KeysAreComparedWithTheFirstFieldOfEitherRecord)
{
    const ReportFilterPtr filter(ReportFilterNewFrom("metatags", nullptr, nullptr));
    const ReportBookFilterPtr book(ReportBookFilterNewFrom("delta"));

    EXPECT_EQ(CompareKeyToReportType("metatags", filter.get(), nullptr), 0);
    EXPECT_EQ(CompareKeyToReportType("a", filter.get(), nullptr), -1);
    EXPECT_EQ(CompareKeyToReportBookName("delta", book.get(), nullptr), 0);
    EXPECT_EQ(CompareKeyToReportBookName("z", book.get(), nullptr), 1);
    EXPECT_EQ(CompareKeyToReportBookName(nullptr, book.get(), nullptr), -1);
    EXPECT_EQ(CompareKeyToReportType("delta", book.get(), nullptr), 0);  // one function serves both
}

TEST(ReportBookFilter, HasNoListUntilTheFirstFilterIsAppended)
{
    const ReportBookFilterPtr book(ReportBookFilterNewFrom("delta"));
    EXPECT_EQ(book->report_filter_list, nullptr);
    EXPECT_EQ(GetReportFilter("metatags", book.get()), nullptr);

    ReportFilter *filter = Including({"a"}).release();
    ReportBookFilterAppendReportFilter(book.get(), filter);

    EXPECT_EQ(SeqLength(book->report_filter_list), 1U);
    EXPECT_EQ(GetReportFilter("metatags", book.get()), filter);
    EXPECT_EQ(GetReportFilter("monitoring", book.get()), nullptr);
    EXPECT_EQ(GetReportFilter("metatags", nullptr), nullptr);
}

TEST(ReportBookFilter, TheFirstFilterOfATypeIsFound)
{
    const ReportBookFilterPtr book(ReportBookFilterNewFrom("delta"));
    ReportFilter *first = Including({"a"}).release();
    ReportBookFilterAppendReportFilter(book.get(), first);
    ReportBookFilterAppendReportFilter(book.get(), Including({"b"}).release());

    EXPECT_EQ(GetReportFilter("metatags", book.get()), first);
}

TEST(ReportBookFilter, IsFoundByItsNameOrNotAtAll)
{
    const veltrane::SeqPtr books(
        SeqNew(2, [](void *book) { ReportBookFilterDestroy(static_cast<ReportBookFilter *>(book)); }));
    ReportBookFilter *delta = ReportBookFilterNewFrom("delta");
    SeqAppend(books.get(), ReportBookFilterNewFrom("rebase"));
    SeqAppend(books.get(), delta);

    EXPECT_EQ(GetReportBookFilter("delta", books.get()), delta);
    EXPECT_EQ(GetReportBookFilter("full", books.get()), nullptr);
    EXPECT_EQ(GetReportBookFilter("delta", nullptr), nullptr);
}

TEST(ReportBookFilter, CopiesDeeplyAndInOrder)
{
    const ReportBookFilterPtr book(ReportBookFilterNewFrom("delta"));
    ReportBookFilterAppendReportFilter(book.get(), ReportFilterNewFrom("monitoring", NewSeq({"cpu.*"}), nullptr));
    ReportBookFilterAppendReportFilter(book.get(), ReportFilterNewFrom("metatags", nullptr, NewSeq({"x"})));

    const ReportBookFilterPtr copy(CopyReportBookFilter(book.get()));

    EXPECT_STREQ(copy->book_name, "delta");
    ASSERT_EQ(SeqLength(copy->report_filter_list), 2U);
    const ReportFilter *first = static_cast<ReportFilter *>(SeqAt(copy->report_filter_list, 0));
    EXPECT_STREQ(first->report_type, "monitoring");
    EXPECT_THAT(SeqTexts(first->include_list), ElementsAre("cpu.*"));
    EXPECT_NE(first, SeqAt(book->report_filter_list, 0));
    EXPECT_STREQ(static_cast<ReportFilter *>(SeqAt(copy->report_filter_list, 1))->report_type, "metatags");
}

TEST(ReportBookFilter, ACopyOfABookWithoutListHasNone)
{
    const ReportBookFilterPtr book(ReportBookFilterNewFrom("delta"));

    EXPECT_EQ(ReportBookFilterPtr(CopyReportBookFilter(book.get()))->report_filter_list, nullptr);
}

TEST(ReportBookFilter, MergingAppendsCopiesOfFiltersOfNewTypes)
{
    const ReportBookFilterPtr destination(ReportBookFilterNewFrom("delta"));
    const ReportBookFilterPtr source(ReportBookFilterNewFrom("other"));
    ReportBookFilterAppendReportFilter(source.get(), ReportFilterNewFrom("metatags", NewSeq({"a"}), nullptr));

    ReportBookFilterMerge(destination.get(), source.get());

    const ReportFilter *merged = GetReportFilter("metatags", destination.get());
    ASSERT_NE(merged, nullptr);
    EXPECT_NE(merged, GetReportFilter("metatags", source.get()));
    EXPECT_THAT(SeqTexts(merged->include_list), ElementsAre("a"));
    EXPECT_EQ(merged->exclude_list, nullptr);
    EXPECT_STREQ(destination->book_name, "delta");
}

TEST(ReportBookFilter, MergingPutsPatternsBehindThoseThereAndKeepsDuplicates)
{
    const ReportBookFilterPtr destination(ReportBookFilterNewFrom("delta"));
    const ReportBookFilterPtr source(ReportBookFilterNewFrom("delta"));
    ReportBookFilterAppendReportFilter(destination.get(), ReportFilterNewFrom("metatags", NewSeq({"a", "b"}), nullptr));
    ReportBookFilterAppendReportFilter(source.get(),
                                       ReportFilterNewFrom("metatags", NewSeq({"b", "c"}), NewSeq({"x"})));

    ReportBookFilterMerge(destination.get(), source.get());

    const ReportFilter *merged = GetReportFilter("metatags", destination.get());
    EXPECT_THAT(SeqTexts(merged->include_list), ElementsAre("a", "b", "b", "c"));
    EXPECT_THAT(SeqTexts(merged->exclude_list), ElementsAre("x"));
    const ReportFilter *untouched = GetReportFilter("metatags", source.get());
    EXPECT_THAT(SeqTexts(untouched->include_list), ElementsAre("b", "c"));
    EXPECT_THAT(SeqTexts(untouched->exclude_list), ElementsAre("x"));
}

TEST(ReportBookFilter, ABookThatLetEverythingThroughIsRestrictedByIncludesMergedIn)
{
    const ReportBookFilterPtr destination(ReportBookFilterNewFrom("delta"));
    const ReportBookFilterPtr source(ReportBookFilterNewFrom("delta"));
    ReportBookFilterAppendReportFilter(destination.get(), ReportFilterNewFrom("metatags", nullptr, NewSeq({"x"})));
    ReportBookFilterAppendReportFilter(source.get(), ReportFilterNewFrom("metatags", NewSeq({"a"}), nullptr));
    EXPECT_TRUE(IsKeyAllowedByFilter("b", GetReportFilter("metatags", destination.get())));

    ReportBookFilterMerge(destination.get(), source.get());

    EXPECT_FALSE(IsKeyAllowedByFilter("b", GetReportFilter("metatags", destination.get())));
}

TEST(ReportBookFilter, MergingABookWithoutFiltersChangesNothing)
{
    const ReportBookFilterPtr destination(ReportBookFilterNewFrom("delta"));
    const ReportBookFilterPtr source(ReportBookFilterNewFrom("delta"));

    ReportBookFilterMerge(destination.get(), source.get());

    EXPECT_EQ(destination->report_filter_list, nullptr);
}

TEST_F(AccessPromises, TheSetIsAbsentUntilAPromiseFillsIt) { EXPECT_EQ(CopyBookFilterOfQuery("delta"), nullptr); }

TEST_F(AccessPromises, WithoutReportDataSelectTheSetIsLeftAlone)
{
    Promise *pp = NewPromise("delta");
    AddList(pp, "metatags_include", {"inventory"});

    KeepReportDataSelectAccessPromise__real(pp);

    EXPECT_EQ(CopyBookFilterOfQuery("delta"), nullptr);
}

TEST_F(AccessPromises, ASelectionWithoutListsMakesABookThatLetsEverythingThrough)
{
    KeepReportDataSelectAccessPromise__real(NewSelection("delta"));

    const ReportBookFilterPtr book = CopyBookFilterOfQuery("delta");
    ASSERT_NE(book, nullptr);
    EXPECT_STREQ(book->book_name, "delta");
    EXPECT_EQ(book->report_filter_list, nullptr);
}

TEST_F(AccessPromises, TheSixListsMakeThreeFiltersInTheirOrder)
{
    Promise *pp = NewSelection("delta");
    AddList(pp, "promise_handle_include", {"h1"});
    AddList(pp, "promise_handle_exclude", {"h2"});
    AddList(pp, "metatags_include", {"t1"});
    AddList(pp, "metatags_exclude", {"t2", "t3"});
    AddList(pp, "monitoring_include", {"m1"});
    AddList(pp, "monitoring_exclude", {"m2"});

    KeepReportDataSelectAccessPromise__real(pp);

    const ReportBookFilterPtr book = CopyBookFilterOfQuery("delta");
    ASSERT_NE(book, nullptr);
    ASSERT_EQ(SeqLength(book->report_filter_list), 3U);
    std::vector<std::pair<std::string, std::pair<Texts, Texts>>> filters;
    for (size_t i = 0; i < 3; ++i) {
        const ReportFilter *filter = static_cast<ReportFilter *>(SeqAt(book->report_filter_list, i));
        filters.push_back({filter->report_type, {SeqTexts(filter->include_list), SeqTexts(filter->exclude_list)}});
    }
    EXPECT_THAT(filters, ElementsAre(std::pair("monitoring", std::pair(Texts{"m1"}, Texts{"m2"})),
                                     std::pair("metatags", std::pair(Texts{"t1"}, Texts{"t2", "t3"})),
                                     std::pair("promise_handles", std::pair(Texts{"h1"}, Texts{"h2"}))));
}

TEST_F(AccessPromises, AnAbsentAttributeLeavesItsListAbsent)
{
    Promise *pp = NewSelection("delta");
    AddList(pp, "metatags_exclude", {"noreport"});

    KeepReportDataSelectAccessPromise__real(pp);

    const ReportBookFilterPtr book = CopyBookFilterOfQuery("delta");
    ASSERT_EQ(SeqLength(book->report_filter_list), 1U);
    const ReportFilter *filter = GetReportFilter("metatags", book.get());
    ASSERT_NE(filter, nullptr);
    EXPECT_EQ(filter->include_list, nullptr);
    EXPECT_THAT(SeqTexts(filter->exclude_list), ElementsAre("noreport"));
}

TEST_F(AccessPromises, AnEmptyListIsPresentAndLetsNothingThrough)
{
    Promise *pp = NewSelection("delta");
    AddList(pp, "metatags_include", {});

    KeepReportDataSelectAccessPromise__real(pp);

    const ReportBookFilterPtr book = CopyBookFilterOfQuery("delta");
    const ReportFilter *filter = GetReportFilter("metatags", book.get());
    ASSERT_NE(filter, nullptr);
    ASSERT_NE(filter->include_list, nullptr);
    EXPECT_THAT(SeqTexts(filter->include_list), IsEmpty());
    EXPECT_FALSE(IsKeyAllowedByFilter("inventory", filter));
}

TEST_F(AccessPromises, ASingleTextCountsAsAListOfOne)
{
    Promise *pp = NewSelection("delta");
    PromiseAppendConstraint(pp, "metatags_exclude", RvalNew("secret", RVAL_TYPE_SCALAR));

    KeepReportDataSelectAccessPromise__real(pp);

    const ReportBookFilterPtr book = CopyBookFilterOfQuery("delta");
    EXPECT_FALSE(IsKeyAllowedByFilter("secret", GetReportFilter("metatags", book.get())));
}

TEST_F(AccessPromises, PromisesWithTheSamePromiserAddUpToOneBook)
{
    Promise *first = NewSelection("delta");
    AddList(first, "metatags_include", {"inventory"});
    Promise *second = NewSelection("delta");
    AddList(second, "metatags_exclude", {"noreport"});

    KeepReportDataSelectAccessPromise__real(first);
    KeepReportDataSelectAccessPromise__real(second);

    const ReportBookFilterPtr book = CopyBookFilterOfQuery("delta");
    ASSERT_EQ(SeqLength(book->report_filter_list), 1U);
    const ReportFilter *filter = GetReportFilter("metatags", book.get());
    EXPECT_THAT(SeqTexts(filter->include_list), ElementsAre("inventory"));
    EXPECT_THAT(SeqTexts(filter->exclude_list), ElementsAre("noreport"));
}

TEST_F(AccessPromises, PromisesWithDifferentPromisersMakeSeparateBooks)
{
    Promise *delta = NewSelection("delta");
    AddList(delta, "metatags_include", {"a"});
    Promise *rebase = NewSelection("rebase");
    AddList(rebase, "metatags_include", {"b"});

    KeepReportDataSelectAccessPromise__real(delta);
    KeepReportDataSelectAccessPromise__real(rebase);

    const ReportBookFilterPtr delta_book = CopyBookFilterOfQuery("delta");
    const ReportBookFilterPtr rebase_book = CopyBookFilterOfQuery("rebase");
    EXPECT_THAT(SeqTexts(GetReportFilter("metatags", delta_book.get())->include_list), ElementsAre("a"));
    EXPECT_THAT(SeqTexts(GetReportFilter("metatags", rebase_book.get())->include_list), ElementsAre("b"));
    EXPECT_EQ(CopyBookFilterOfQuery("full"), nullptr);
}

TEST_F(AccessPromises, ACopyOutlivesTheSet)
{
    Promise *pp = NewSelection("delta");
    AddList(pp, "metatags_include", {"inventory"});
    KeepReportDataSelectAccessPromise__real(pp);

    const ReportBookFilterPtr book = CopyBookFilterOfQuery("delta");
    CleanReportBookFilterSet__real();

    EXPECT_EQ(CopyBookFilterOfQuery("delta"), nullptr);
    EXPECT_THAT(SeqTexts(GetReportFilter("metatags", book.get())->include_list), ElementsAre("inventory"));
}

TEST_F(AccessPromises, CleaningAnAbsentSetIsFineAndASetCanBeFilledAgain)
{
    CleanReportBookFilterSet__real();
    CleanReportBookFilterSet__real();

    KeepReportDataSelectAccessPromise__real(NewSelection("delta"));

    EXPECT_NE(CopyBookFilterOfQuery("delta"), nullptr);
}

TEST_F(AccessPromises, ReloadingPolicyWhileQueriesTakeTheirCopiesTearsNothing)
{
    Promise *pp = NewSelection("delta");
    AddList(pp, "metatags_include", {"inventory"});
    std::vector<std::thread> queries;
    for (int t = 0; t < 3; ++t) {
        queries.emplace_back([] {
            for (int i = 0; i < 200; ++i) {
                const ReportBookFilterPtr book = CopyBookFilterOfQuery("delta");
                if (book != nullptr) {
                    EXPECT_TRUE(IsKeyAllowedByFilter("inventory", GetReportFilter("metatags", book.get())));
                }
            }
        });
    }
    for (int i = 0; i < 200; ++i) {
        CleanReportBookFilterSet__real();
        KeepReportDataSelectAccessPromise__real(pp);
    }
    for (std::thread &query : queries) { query.join(); }

    EXPECT_NE(CopyBookFilterOfQuery("delta"), nullptr);
}

}  // namespace
