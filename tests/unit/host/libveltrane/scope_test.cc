// The names of the special scopes.
#include <gtest/gtest.h>

#include <veltrane/scope.h>

TEST(Scope, EverySpecialScopeHasItsName)
{
    const char *const names[] = {"const", "edit", "match", "mon", "sys", "this", "body", "def"};
    for (int i = 0; i < SPECIAL_SCOPE_NONE; i++) {
        EXPECT_STREQ(SpecialScopeToString(static_cast<SpecialScope>(i)), names[i]);
    }
}

TEST(Scope, NoScopeHasNoName) { EXPECT_EQ(SpecialScopeToString(SPECIAL_SCOPE_NONE), nullptr); }
