// Names of variables are taken apart from their end: indices first, then namespace and scope of what is left.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <veltrane/owned.h>
#include <veltrane/policy.h>
#include <veltrane/var_ref.h>

namespace {

using testing::ElementsAre;
using veltrane::VarRefPtr;

std::vector<std::string> Indices(const VarRefPtr &ref) { return {ref->indices, ref->indices + ref->num_indices}; }

// "ns|scope|lval|index,index", "-" for what is not said.
std::string Taken(const VarRefPtr &ref)
{
    const auto part = [](const char *text) { return std::string(text != nullptr ? text : "-"); };
    std::string text = part(ref->ns) + "|" + part(ref->scope) + "|" + part(ref->lval) + "|";
    for (const std::string &index : Indices(ref)) { text += "<" + index + ">"; }
    return text;
}

std::string Parsed(const char *name) { return Taken(VarRefPtr(VarRefParse(name))); }

TEST(VarRef, EachLeadIsOptional)
{
    EXPECT_EQ(Parsed("lval"), "-|-|lval|");
    EXPECT_EQ(Parsed("scope.lval"), "-|scope|lval|");
    EXPECT_EQ(Parsed("ns:lval"), "ns|-|lval|");
    EXPECT_EQ(Parsed("ns:scope.lval"), "ns|scope|lval|");
    EXPECT_EQ(Parsed("ns:scope.lval[i][j]"), "ns|scope|lval|<i><j>");
}

TEST(VarRef, WithoutIndicesThePointerIsNull)
{
    const VarRefPtr ref(VarRefParse("scope.lval"));
    EXPECT_EQ(ref->num_indices, 0u);
    EXPECT_EQ(ref->indices, nullptr);
}

TEST(VarRef, WhatStandsInBracketsIsNeitherNamespaceNorScope)
{
    EXPECT_EQ(Parsed("limits[a.b:c]"), "-|-|limits|<a.b:c>");
    EXPECT_EQ(Parsed("ns:scope.lval[x:y.z][/etc/motd]"), "ns|scope|lval|<x:y.z></etc/motd>");
}

TEST(VarRef, AnIndexMayHoldBrackets)
{
    EXPECT_EQ(Parsed("a[b[0]]"), "-|-|a|<b[0]>");
    EXPECT_EQ(Parsed("a[$(b[c])][d]"), "-|-|a|<$(b[c])><d>");
}

TEST(VarRef, AnEmptyIndexIsAnIndex) { EXPECT_EQ(Parsed("a[]"), "-|-|a|<>"); }

TEST(VarRef, BracketsThatDoNotCloseTheNameBelongToIt)
{
    EXPECT_EQ(Parsed("a[b"), "-|-|a[b|");
    EXPECT_EQ(Parsed("a]"), "-|-|a]|");
    EXPECT_EQ(Parsed("a[b]c"), "-|-|a[b]c|");
    EXPECT_EQ(Parsed("a[b]c[d]"), "-|-|a[b]c|<d>");
    EXPECT_EQ(Parsed("a]]"), "-|-|a]]|");
}

TEST(VarRef, IndicesNeverLeaveAnEmptyName)
{
    EXPECT_EQ(Parsed("[a]"), "-|-|[a]|");
    EXPECT_EQ(Parsed("[a][b]"), "-|-|[a]|<b>");
    EXPECT_EQ(Parsed(""), "-|-||");
}

TEST(VarRef, OnlyTheFirstDotEndsTheScope) { EXPECT_EQ(Parsed("a.b.c"), "-|a|b.c|"); }

TEST(VarRef, AColonAfterTheFirstDotIsPartOfTheName)
{
    EXPECT_EQ(Parsed("scope.a:b"), "-|scope|a:b|");
    EXPECT_EQ(Parsed("ns:scope.a:b"), "ns|scope|a:b|");
}

TEST(VarRef, AnEmptyLeadIsNoLead)
{
    EXPECT_EQ(Parsed(":x"), "-|-|:x|");
    EXPECT_EQ(Parsed(".x"), "-|-|.x|");
}

TEST(VarRef, ANameInsideAScopeKeepsItsColonsAndDots)
{
    const VarRefPtr ref(VarRefParseFromScope("site:net.v4[eth0.1]", "remote_access"));
    EXPECT_EQ(Taken(ref), "-|remote_access|site:net.v4|<eth0.1>");
}

TEST(VarRef, ABundleGivesWhatTheNameDoesNotSay)
{
    const veltrane::PolicyPtr policy(PolicyNew());
    const Bundle *bundle = PolicyAppendBundle(policy.get(), "site", "web", "agent", nullptr);
    const auto from_bundle = [bundle](const char *name) {
        return Taken(VarRefPtr(VarRefParseFromBundle(name, bundle)));
    };

    EXPECT_EQ(from_bundle("x[cn]"), "site|web|x|<cn>");
    EXPECT_EQ(from_bundle("other.x"), "site|other|x|");
    EXPECT_EQ(from_bundle("ns:x"), "ns|web|x|");
    EXPECT_EQ(from_bundle("ns:other.x"), "ns|other|x|");
}

TEST(VarRef, ALongRunOfBracketsIsTakenApartInOneWalk)
{
    std::string name = "a";
    for (int i = 0; i < 20000; i++) { name += "[i]"; }
    EXPECT_EQ(VarRefPtr(VarRefParse(name.c_str()))->num_indices, 20000u);
    EXPECT_EQ(VarRefPtr(VarRefParse(("a" + std::string(200000, '[')).c_str()))->num_indices, 0u);
}

TEST(VarRef, DestroyAcceptsNull)
{
    VarRefDestroy(nullptr);
    const VarRefPtr ref(VarRefParse("a[b][c]"));
    EXPECT_THAT(Indices(ref), ElementsAre("b", "c"));
}

}  // namespace
