// A policy put together by hand: what its accessors read, and the digests that name promises and files.
#include <veltrane/policy.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include <veltrane/eval_context.h>
#include <veltrane/json.h>
#include <veltrane/owned.h>
#include <veltrane/rlist.h>
#include <veltrane/seq.h>
#include <veltrane/string_lib.h>

#include "libveltrane/policy_control.h"
#include "libveltrane/policy_internal.h"
#include "support/log_capture.h"

namespace {

using testing::ElementsAre;
using testing::Pair;

Rval Scalar(const char *text) { return RvalNew(text, RVAL_TYPE_SCALAR); }
Rval List(const char *text) { return {RlistFromSplitString(text, ','), RVAL_TYPE_LIST}; }
Rval Container(const char *text)
{
    JsonElement *json = nullptr;
    EXPECT_EQ(JsonParse(text, &json), JSON_PARSE_OK);
    return {json, RVAL_TYPE_CONTAINER};
}

class PolicyTest : public testing::Test {
  protected:
    Promise *NewPromise(const char *promiser = "/etc/motd", Rval promisee = Rval{}, size_t line = 12)
    {
        return BundleSectionAppendPromise(section_, promiser, promisee, SourceOffset{line, 9});
    }

    veltrane::PolicyPtr policy_{PolicyNew()};
    Bundle *bundle_ = PolicyAppendBundle(policy_.get(), nullptr, "main", "agent", "/inputs/promises.vt");
    BundleSection *section_ = BundleAppendSection(bundle_, "files");
};

std::string Hash(const Promise *pp, const char *salt = "")
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    char hex[2 * VT_SHA256_LEN + 1];
    PromiseRuntimeHash(pp, salt, digest, HASH_METHOD_SHA256);
    StringBytesToHex(hex, sizeof(hex), digest, VT_SHA256_LEN);
    return hex;
}

TEST_F(PolicyTest, DestroyAcceptsNull)
{
    PolicyDestroy(nullptr);
    veltrane::PromiseDestroy(nullptr);
    EXPECT_EQ(policy_->release_id, nullptr);
}

TEST_F(PolicyTest, PartsKnowWhatTheyBelongTo)
{
    const Promise *pp = NewPromise();
    EXPECT_EQ(PromiseGetBundle(pp), bundle_);
    EXPECT_EQ(bundle_->parent_policy, policy_.get());
    EXPECT_EQ(SeqAt(policy_->bundles, 0), bundle_);
    EXPECT_EQ(SeqAt(bundle_->sections, 0), section_);
    EXPECT_EQ(SeqAt(section_->promises, 0), pp);
    EXPECT_STREQ(PromiseGetNamespace(pp), "default");
}

TEST_F(PolicyTest, AHandleIsAScalarOrNone)
{
    Promise *pp = NewPromise();
    EXPECT_EQ(PromiseGetHandle(pp), nullptr);
    PromiseAppendConstraint(pp, "handle", List("a,b"));
    EXPECT_EQ(PromiseGetHandle(pp), nullptr);
    PromiseAppendConstraint(pp, "handle", Scalar("motd"));
    EXPECT_STREQ(PromiseGetHandle(pp), "motd");
}

TEST_F(PolicyTest, AnIdIsTheHandleOrTheSourceLine)
{
    Promise *pp = NewPromise();
    EXPECT_STREQ(PromiseID(pp), "/inputs/promises.vt:12");
    PromiseAppendConstraint(pp, "handle", Scalar("motd"));
    EXPECT_STREQ(PromiseID(pp), "motd");
}

TEST_F(PolicyTest, ABundleMadeInMemoryHasNoFile)
{
    const Bundle *bundle = PolicyAppendBundle(policy_.get(), "site", "memory", "agent", nullptr);
    EXPECT_EQ(bundle->source_path, nullptr);
    const Promise *pp = BundleSectionAppendPromise(BundleAppendSection(const_cast<Bundle *>(bundle), "files"), "x",
                                                   Rval{}, SourceOffset{});
    EXPECT_STREQ(PromiseID(pp), "<no file>:0");
}

TEST_F(PolicyTest, APromiseIsShownWhereItStands)
{
    Bundle *bundle = PolicyAppendBundle(policy_.get(), "site", "web", "agent", "/inputs/web.vt");
    const Promise *pp =
        BundleSectionAppendPromise(BundleAppendSection(bundle, "commands"), "/bin/true", Rval{}, SourceOffset{3, 1});
    LogCapture log;
    PromiseRef(LOG_LEVEL_VERBOSE, pp);
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE,
                                            "This promise stands in bundle 'site:web': type 'commands', promiser "
                                            "'/bin/true', at '/inputs/web.vt:3'")));
}

TEST_F(PolicyTest, OfTwoAttributesOfOneNameTheLastIsInForce)
{
    Promise *pp = NewPromise();
    PromiseAppendConstraint(pp, "content", Scalar("one"));
    PromiseAppendConstraint(pp, "content", Scalar("two"));
    EXPECT_STREQ(RvalScalarValue(PromiseGetConstraint(pp, "content")->rval), "two");
    EXPECT_STREQ(RvalScalarValue(PromiseGetImmediateConstraint(pp, "content")->rval), "two");
    EXPECT_EQ(PromiseGetConstraint(pp, "create"), nullptr);
    EXPECT_EQ(PromiseGetImmediateConstraint(pp, "create"), nullptr);
}

TEST_F(PolicyTest, AnAttributeIsAListOnlyWhenItIsOne)
{
    Promise *pp = NewPromise();
    PromiseAppendConstraint(pp, "meta", List("inventory,report"));
    PromiseAppendConstraint(pp, "comment", Scalar("text"));
    PromiseAppendConstraint(pp, "admit_ips", Rval{nullptr, RVAL_TYPE_LIST});
    EXPECT_EQ(RlistLen(PromiseGetConstraintAsList(pp, "meta")), 2u);
    EXPECT_EQ(PromiseGetConstraintAsList(pp, "comment"), nullptr);
    EXPECT_EQ(PromiseGetConstraintAsList(pp, "admit_ips"), nullptr);
    EXPECT_EQ(PromiseGetConstraintAsList(pp, "absent"), nullptr);
}

TEST_F(PolicyTest, AFilesHashIsKnownByItsPath)
{
    PolicySetFileHash(policy_.get(), "/inputs/promises.vt", "00ff");
    EXPECT_STREQ(PolicyGetPolicyFileHash(policy_.get(), "/inputs/promises.vt"), "00ff");
    EXPECT_EQ(PolicyGetPolicyFileHash(policy_.get(), "/inputs/other.vt"), nullptr);
    EXPECT_EQ(PolicyGetPolicyFileHash(policy_.get(), nullptr), nullptr);
}

TEST_F(PolicyTest, TheRuntimeHashIsOfTheTextsWithAZeroAfterEach)
{
    Promise *pp = NewPromise("/etc/motd", List("ops,se\"c"));
    PromiseAppendConstraint(pp, "handle", Scalar("motd"));
    PromiseAppendConstraint(pp, "perms", Container("{\"mode\":\"0644\"}"));
    EXPECT_EQ(Hash(pp), "6ad80a5c0ca00f0404a477aab99031416a264d3f5625ff15ab61e47c5213a6ee");
}

TEST_F(PolicyTest, MovingAPromiseOrGuardingItKeepsItsHash)
{
    Promise *here = NewPromise("/etc/motd", Rval{}, 12);
    PromiseAppendConstraint(here, "content", Scalar("hello"));
    Promise *there = NewPromise("/etc/motd", Rval{}, 99);
    PromiseAppendConstraint(there, "comment", Scalar("why"));
    PromiseAppendConstraint(there, "if", Scalar("debian"));
    PromiseAppendConstraint(there, "content", Scalar("hello"));
    PromiseAppendConstraint(there, "unless", Scalar("container"));
    EXPECT_EQ(Hash(here), Hash(there));
}

TEST_F(PolicyTest, WhateverAPromiseSaysChangesItsHash)
{
    const std::string plain = Hash(NewPromise());
    EXPECT_EQ(Hash(NewPromise()), plain);
    EXPECT_NE(Hash(NewPromise(), "salt"), plain);
    EXPECT_NE(Hash(NewPromise("/etc/issue")), plain);
    EXPECT_NE(Hash(NewPromise("/etc/motd", Scalar("ops"))), plain);

    Promise *attributed = NewPromise();
    PromiseAppendConstraint(attributed, "create", Scalar("true"));
    EXPECT_NE(Hash(attributed), plain);

    Bundle *other = PolicyAppendBundle(policy_.get(), "site", "main", "agent", "/inputs/promises.vt");
    EXPECT_NE(Hash(BundleSectionAppendPromise(BundleAppendSection(other, "files"), "/etc/motd", Rval{}, {12, 9})),
              plain);
    EXPECT_NE(Hash(BundleSectionAppendPromise(BundleAppendSection(bundle_, "commands"), "/etc/motd", Rval{}, {12, 9})),
              plain);
}

TEST_F(PolicyTest, NeighbouringTextsOfAHashDoNotRunIntoOneAnother)
{
    Promise *one = NewPromise("ab", Scalar("c"));
    Promise *two = NewPromise("a", Scalar("bc"));
    EXPECT_NE(Hash(one), Hash(two));
}

TEST_F(PolicyTest, OnlyTheDigestsOwnLengthIsWritten)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    std::fill(std::begin(digest), std::end(digest), 0xAA);
    PromiseRuntimeHash(NewPromise(), "", digest, HASH_METHOD_SHA256);
    for (size_t i = VT_SHA256_LEN; i < sizeof(digest); i++) { ASSERT_EQ(digest[i], 0xAA) << i; }
}

TEST_F(PolicyTest, ADetachedPromiseStandsInNoList)
{
    const veltrane::PromisePtr pp(veltrane::PromiseNewDetached(section_, "x", Scalar("ops"), SourceOffset{5, 1}));
    EXPECT_EQ(SeqLength(section_->promises), 0u);
    EXPECT_STREQ(PromiseID(pp.get()), "/inputs/promises.vt:5");
}

TEST_F(PolicyTest, ControlAttributesAreReadByWhatTheyHold)
{
    policy_->internal->control[{"common", "package_inventory"}] = List("apt,snap");
    policy_->internal->control[{"server", "listen"}] = Scalar("true");
    EXPECT_STREQ(veltrane::PolicyControlScalar(policy_.get(), "server", "listen"), "true");
    EXPECT_EQ(veltrane::PolicyControlScalar(policy_.get(), "agent", "listen"), nullptr);
    EXPECT_EQ(veltrane::PolicyControlScalar(policy_.get(), "common", "package_inventory"), nullptr);
    EXPECT_EQ(RlistLen(veltrane::PolicyControlList(policy_.get(), "common", "package_inventory")), 2u);
    EXPECT_EQ(veltrane::PolicyControlList(policy_.get(), "server", "listen"), nullptr);
}

TEST_F(PolicyTest, TheContextTakesOverWhatTheCommonSectionSets)
{
    policy_->internal->control[{"common", "package_inventory"}] = List("apt,snap");
    policy_->internal->control[{"common", "protocol_version"}] = Scalar("latest");
    policy_->internal->control[{"common", "lastseen_expire_after"}] = Scalar("3600");
    const veltrane::EvalContextPtr ctx(EvalContextNew());
    veltrane::PolicyControlCommonIntoContext(policy_.get(), ctx.get());
    EXPECT_EQ(RlistLen(GetDefaultInventoryFromContext(ctx.get())), 2u);
    EXPECT_STREQ(EvalContextVariableControlCommonGet(ctx.get(), COMMON_CONTROL_PROTOCOL_VERSION), "latest");
    EXPECT_STREQ(EvalContextVariableControlCommonGet(ctx.get(), COMMON_CONTROL_LASTSEEN_EXPIRE_AFTER), "3600");
}

TEST_F(PolicyTest, WhatPolicyDoesNotSetStaysUnset)
{
    const veltrane::EvalContextPtr ctx(EvalContextNew());
    veltrane::PolicyControlCommonIntoContext(policy_.get(), ctx.get());
    EXPECT_EQ(GetDefaultInventoryFromContext(ctx.get()), nullptr);
    for (int i = 0; i < COMMON_CONTROL_MAX; i++) {
        EXPECT_EQ(EvalContextVariableControlCommonGet(ctx.get(), static_cast<CommonControl>(i)), nullptr);
    }
}

}  // namespace
