// Class expressions: their values, what is refused, and texts made to exhaust a reader.
#include "libveltrane/class_expression.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <veltrane/owned.h>

namespace {

using testing::ElementsAre;
using veltrane::EvaluateClassExpression;

// "t..." is defined, everything else is not.
ExpressionValue Value(const std::string &expression)
{
    return EvaluateClassExpression(expression, [](const std::string &name) { return name[0] == 't'; });
}

TEST(ClassExpression, HasTheValueOfItsOperators)
{
    for (const char *text : {"t", "!f", "t.t", "t&t1", "t|f", "f|t", "!(f)", "(t)", "!!t", "f.f|t", "t|f.f", "(f|t).t",
                             "t.!f", "!(f|f)", " t . t ", "t\n|\tf", "t.(f|(t&!f))", "ns:f|t", "!(t.f).t"}) {
        EXPECT_EQ(Value(text), EXPRESSION_VALUE_TRUE) << text;
    }
    for (const char *text :
         {"f", "!t", "t.f", "f&t", "f|f", "!!f", "!(t|f)", "(f|t).f", "t.!t", "f.t|f", "!t|f", "0", "((((f))))"}) {
        EXPECT_EQ(Value(text), EXPRESSION_VALUE_FALSE) << text;
    }
}

TEST(ClassExpression, AndBindsCloserThanOr)
{
    EXPECT_EQ(Value("t|t.f"), EXPRESSION_VALUE_TRUE);
    EXPECT_EQ(Value("(t|t).f"), EXPRESSION_VALUE_FALSE);
    EXPECT_EQ(Value("f.f|t"), EXPRESSION_VALUE_TRUE);
    EXPECT_EQ(Value("f.(f|t)"), EXPRESSION_VALUE_FALSE);
}

TEST(ClassExpression, NotBelongsToTheNextOperandAlone)
{
    EXPECT_EQ(Value("!f.f"), EXPRESSION_VALUE_FALSE);
    EXPECT_EQ(Value("!t|t"), EXPRESSION_VALUE_TRUE);
    EXPECT_EQ(Value("!(t).t"), EXPRESSION_VALUE_FALSE);
}

TEST(ClassExpression, EmptyIsAnError)
{
    for (const char *text : {"", " ", "\t\n", "()", "( )", "t.()"}) {
        EXPECT_EQ(Value(text), EXPRESSION_VALUE_ERROR) << "'" << text << "'";
    }
}

TEST(ClassExpression, MalformedIsAnError)
{
    for (const char *text :
         {".",          "t.",  ".t",   "t..t", "t||t", "t&&t", "t|",    "|t",   "!",         "t!",
          "t!t",        "t.!", "(",    ")",    "(t",   "t)",   "t(t)",  "(t)t", "t t",       ")t(",
          "web-server", "t,t", "$(t)", "t[1]", "a:",   ":a",   "a:b:c", "::",   "t\xC3\xA4", "t/t"}) {
        EXPECT_EQ(Value(text), EXPRESSION_VALUE_ERROR) << text;
    }
}

TEST(ClassExpression, AZeroByteIsNoPartOfAnExpression)
{
    EXPECT_EQ(Value(std::string("t\0t", 3)), EXPRESSION_VALUE_ERROR);
}

TEST(ClassExpression, EveryNameIsAskedForOnceFromLeftToRight)
{
    std::vector<std::string> asked;
    EvaluateClassExpression("a.(b|ns:c)|!d", [&asked](const std::string &name) {
        asked.push_back(name);
        return true;
    });
    EXPECT_THAT(asked, ElementsAre("a", "b", "ns:c", "d"));
}

TEST(ClassExpression, AMillionParenthesesExhaustNothing)
{
    constexpr size_t kDepth = 1'000'000;
    EXPECT_EQ(Value(std::string(kDepth, '(') + "t" + std::string(kDepth, ')')), EXPRESSION_VALUE_TRUE);
    EXPECT_EQ(Value(std::string(kDepth, '(')), EXPRESSION_VALUE_ERROR);
    EXPECT_EQ(Value(std::string(kDepth, '!') + "t"), EXPRESSION_VALUE_TRUE);
    EXPECT_EQ(Value(std::string(kDepth + 1, '!') + "t"), EXPRESSION_VALUE_FALSE);
}

TEST(ClassExpression, AContextAnswersForItsClasses)
{
    const veltrane::EvalContextPtr ctx(EvalContextNew());
    EvalContextClassPutHard(ctx.get(), "debian", nullptr);
    EvalContextClassPutSoft(ctx.get(), "site:web", nullptr);

    EXPECT_EQ(CheckClassExpression(ctx.get(), "debian.!container"), EXPRESSION_VALUE_TRUE);
    EXPECT_EQ(CheckClassExpression(ctx.get(), "default:debian&site:web"), EXPRESSION_VALUE_TRUE);
    EXPECT_EQ(CheckClassExpression(ctx.get(), "web"), EXPRESSION_VALUE_FALSE);
    EXPECT_EQ(CheckClassExpression(ctx.get(), "site:debian"), EXPRESSION_VALUE_FALSE);
    EXPECT_EQ(CheckClassExpression(ctx.get(), "debian."), EXPRESSION_VALUE_ERROR);
    EXPECT_EQ(CheckClassExpression(ctx.get(), ""), EXPRESSION_VALUE_ERROR);
}

}  // namespace
