// Classes of a context: what a put leaves, and the order in which they are walked.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <veltrane/class.h>
#include <veltrane/owned.h>

#include "libveltrane/eval_context_internal.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using veltrane::BufferPtr;
using veltrane::ClassTableIteratorPtr;
using veltrane::TextPtr;

class ClassTest : public testing::Test {
  protected:
    std::vector<std::string> Walk(const char *ns = nullptr, bool is_hard = true, bool is_soft = true) const
    {
        std::vector<std::string> names;
        const ClassTableIteratorPtr classes(EvalContextClassTableIteratorNewGlobal(ctx_.get(), ns, is_hard, is_soft));
        while (const Class *one = ClassTableIteratorNext(classes.get())) {
            names.emplace_back(TextPtr(ClassRefToString(one->ns, one->name)).get());
        }
        return names;
    }

    const Class *Only() const
    {
        const ClassTableIteratorPtr classes(EvalContextClassTableIteratorNewGlobal(ctx_.get(), nullptr, true, true));
        const Class *first = ClassTableIteratorNext(classes.get());
        EXPECT_EQ(ClassTableIteratorNext(classes.get()), nullptr);
        return first;
    }

    std::string TagsOfOnly() const { return BufferData(BufferPtr(StringSetToBuffer(Only()->tags, ',')).get()); }

    veltrane::EvalContextPtr ctx_{EvalContextNew()};
};

TEST_F(ClassTest, ARefNamesTheNamespaceUnlessItIsTheDefault)
{
    EXPECT_STREQ(TextPtr(ClassRefToString(nullptr, "linux")).get(), "linux");
    EXPECT_STREQ(TextPtr(ClassRefToString("default", "linux")).get(), "linux");
    EXPECT_STREQ(TextPtr(ClassRefToString("site", "linux")).get(), "site:linux");
}

TEST_F(ClassTest, AnEmptyContextHasNoClasses) { EXPECT_THAT(Walk(), IsEmpty()); }

TEST_F(ClassTest, TheWalkAscendsByNamespaceThenName)
{
    for (const char *name : {"site:b", "zebra", "a_b", "site:a", "ab", "Upper", "alpha:z"}) {
        EvalContextClassPutSoft(ctx_.get(), name, nullptr);
    }
    EXPECT_THAT(Walk(), ElementsAre("Upper", "a_b", "ab", "zebra", "alpha:z", "site:a", "site:b"));
}

TEST_F(ClassTest, ANamespaceThatBeginsLikeAnotherIsWalkedAlone)
{
    for (const char *name : {"a:x", "ab:y", "a_b:z", "w"}) { EvalContextClassPutSoft(ctx_.get(), name, nullptr); }
    EXPECT_THAT(Walk("a"), ElementsAre("a:x"));
    EXPECT_THAT(Walk("b"), IsEmpty());
}

TEST_F(ClassTest, TheDefaultNamespaceCanBeWalkedByItsName)
{
    EvalContextClassPutSoft(ctx_.get(), "default:one", nullptr);
    EvalContextClassPutSoft(ctx_.get(), "site:two", nullptr);
    EXPECT_THAT(Walk("default"), ElementsAre("one"));
}

TEST_F(ClassTest, TheDefaultNamespaceReadsAsNull)
{
    EvalContextClassPutSoft(ctx_.get(), "default:one", nullptr);
    EXPECT_EQ(Only()->ns, nullptr);
    EXPECT_STREQ(Only()->name, "one");
}

TEST_F(ClassTest, TheWalkKeepsHardAndSoftApart)
{
    EvalContextClassPutHard(ctx_.get(), "hard", nullptr);
    EvalContextClassPutSoft(ctx_.get(), "soft", nullptr);
    EXPECT_THAT(Walk(nullptr, true, false), ElementsAre("hard"));
    EXPECT_THAT(Walk(nullptr, false, true), ElementsAre("soft"));
    EXPECT_THAT(Walk(nullptr, false, false), IsEmpty());
}

TEST_F(ClassTest, TheNameIsCanonifiedAndItsNamespaceKept)
{
    EvalContextClassPutSoft(ctx_.get(), "site:web-server.10:2", nullptr);
    EXPECT_STREQ(Only()->ns, "site");
    EXPECT_STREQ(Only()->name, "web_server_10_2");
}

TEST_F(ClassTest, ANameLongerThanTheCanonifiersBufferIsKeptWhole)
{
    const std::string name(10000, 'x');
    EvalContextClassPutSoft(ctx_.get(), name.c_str(), nullptr);
    EXPECT_EQ(Only()->name, name);
}

TEST_F(ClassTest, WithoutTagsTheSetIsEmptyAndNeverNull)
{
    EvalContextClassPutSoft(ctx_.get(), "plain", nullptr);
    ASSERT_NE(Only()->tags, nullptr);
    EXPECT_EQ(StringSetSize(Only()->tags), 0u);
}

TEST_F(ClassTest, PuttingAgainReplacesTheTags)
{
    EvalContextClassPutSoft(ctx_.get(), "web", "inventory,source=promise");
    EXPECT_EQ(TagsOfOnly(), "inventory,source=promise");
    EvalContextClassPutSoft(ctx_.get(), "web", "report");
    EXPECT_EQ(TagsOfOnly(), "report");
    EvalContextClassPutSoft(ctx_.get(), "web", nullptr);
    EXPECT_EQ(TagsOfOnly(), "");
}

TEST_F(ClassTest, AHardClassStaysHardWhenPolicyPutsItAgain)
{
    EvalContextClassPutHard(ctx_.get(), "linux", "inventory");
    EvalContextClassPutSoft(ctx_.get(), "linux", "report");
    EXPECT_FALSE(Only()->is_soft);
    EXPECT_EQ(TagsOfOnly(), "report");
}

TEST_F(ClassTest, ASoftClassBecomesHardWhenTheHostPutsIt)
{
    EvalContextClassPutSoft(ctx_.get(), "linux", nullptr);
    EXPECT_TRUE(Only()->is_soft);
    EvalContextClassPutHard(ctx_.get(), "linux", nullptr);
    EXPECT_FALSE(Only()->is_soft);
}

TEST_F(ClassTest, ANameThatIsEmptyDefinesNothing)
{
    EvalContextClassPutSoft(ctx_.get(), "", nullptr);
    EvalContextClassPutHard(ctx_.get(), "site:", nullptr);
    EXPECT_THAT(Walk(), IsEmpty());
}

TEST_F(ClassTest, AMillionClassesAreWalkedInOrder)
{
    constexpr int kClasses = 1'000'000;
    for (int i = 0; i < kClasses; i++) {  // 7919 has no factor in common with a million: each number once, shuffled
        const std::string number = std::to_string(10'000'000 + static_cast<long>(i) * 7919 % kClasses);
        EvalContextClassPutSoft(ctx_.get(), ("class_" + number).c_str(), i % 2 == 0 ? "report" : "inventory,report");
    }
    const ClassTableIteratorPtr classes(EvalContextClassTableIteratorNewGlobal(ctx_.get(), nullptr, true, true));
    int count = 0;
    while (const Class *one = ClassTableIteratorNext(classes.get())) {
        if (one->name != "class_" + std::to_string(10'000'000 + count)) {
            break;
        }
        count++;
    }
    EXPECT_EQ(count, kClasses);
}

}  // namespace
