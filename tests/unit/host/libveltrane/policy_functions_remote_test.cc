// The policy functions that ask other hosts. The plug-in is a small one of the tests' own, opened once for all of them.
#include "libveltrane/policy_functions_remote.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <veltrane/extension.h>
#include <veltrane/globals.h>
#include <veltrane/net.h>
#include <veltrane/owned.h>
#include <veltrane/set.h>
#include <veltrane/variable.h>

#include "libveltrane/evaluator.h"
#include "libveltrane/policy_functions.h"
#include "libveltrane/server_connection.h"
#include "support/log_capture.h"
#include "support/sockets.h"
#include "support/work_dir.h"

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;

class RemoteFunctions : public testing::Test {
  protected:
    static void SetUpTestSuite()
    {
        work = std::make_unique<WorkDirectory>();
        const fs::path library = work->path / "lib/veltrane-enterprise.so";
        fs::copy_file(fs::path(VT_TEST_BUILD_DIR) / "tests/plugins/fake_good.so", library);
        fs::permissions(library, fs::perms::owner_all);
    }
    static void TearDownTestSuite() { work.reset(); }

    RemoteFunctions()
    {
        SetServerDown(false);
        log.lines.clear();
        ServerConnectionReplace([](const char *, const char *, const Rlist *, unsigned int, ConnectionFlags, int *) {
            ConnectionInfo *info = ConnectionInfoNew();
            ConnectionInfoSetSocket(info, far_end.theirs.Release());
            return veltrane::AgentConnectionNew(info);
        });
        far_end = SocketPair();
    }
    ~RemoteFunctions() override
    {
        ServerConnectionReplace(nullptr);
        vtnet_Shut();
    }

    static void SetServerDown(bool down)
    {
        *static_cast<std::atomic<bool> *>(shlib_load(enterprise_library(), "fake_server_is_down")) = down;
    }

    // A policy of one agent bundle of this name, with one variable; the hash of its promise is added to hashes.
    void Evaluate(const std::string &bundle, const std::string &value)
    {
        const fs::path path = work->path / "inputs/promises.vt";
        WriteFile(path, "bundles:\n  - common: " + bundle +
                            "\n    promises:\n      - vars: v\n        meta: [mine]\n        " + value + "\n");
        policy = veltrane::ReadPolicy(path);
        ASSERT_NE(policy, nullptr);
        veltrane::Evaluation evaluation;
        evaluation.outcome = [this](EvalContext *, const Promise *pp, PromiseResult) {
            std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
            PromiseRuntimeHash(pp, "", digest.data(), HASH_METHOD_SHA256);
            hashes.emplace_back(digest.begin(), digest.end());
        };
        ctx.reset(EvalContextNew());
        veltrane::EvaluateBundles(ctx.get(), policy.get(), "common", evaluation);
    }

    // "value tags" of the variable v; "(none)" when it is not defined.
    std::string Variable() const
    {
        const veltrane::VariableTableIteratorPtr all(
            EvalContextVariableTableIteratorNew(ctx.get(), nullptr, nullptr, "v"));
        const ::Variable *variable = VariableTableIteratorNext(all.get());
        if (variable == nullptr) {
            return "(none)";
        }
        const veltrane::WriterPtr text(StringWriter());
        RvalWriteRaw(text.get(), VariableGetRval(variable, false));
        const veltrane::BufferPtr tags(StringSetToBuffer(VariableGetTags(variable), ','));
        return std::string(StringWriterData(text.get())) + " " + BufferData(tags.get());
    }

    std::string Complaint(const char *name, std::vector<std::string> arguments)
    {
        Evaluate("main", "string: here");
        log.lines.clear();
        const Promise *pp = FirstPromise();
        const veltrane::Answer answer = veltrane::CallPolicyFunction({ctx.get(), pp, name, std::move(arguments)});
        EXPECT_FALSE(answer.ok);
        EXPECT_FALSE(log.lines.empty());
        return log.lines.empty() ? "" : log.lines.back().second;
    }

    const Promise *FirstPromise() const
    {
        const auto *bundle = static_cast<const Bundle *>(SeqAt(policy->bundles, 0));
        const auto *section = static_cast<const BundleSection *>(SeqAt(bundle->sections, 0));
        return static_cast<const Promise *>(SeqAt(section->promises, 0));
    }

    inline static std::unique_ptr<WorkDirectory> work;
    inline static SocketPair far_end;
    LogCapture log;
    veltrane::PolicyPtr policy;
    veltrane::EvalContextPtr ctx;
    std::vector<std::string> hashes;
};

TEST_F(RemoteFunctions, RemotescalarAsksTheServerForTheHandle)
{
    Evaluate("main", "string: {remotescalar: [site_network, \"hub.example.org:6128\"]}");
    EXPECT_EQ(Variable(), "value of site_network source=promise,mine");
    EXPECT_TRUE(log.Has(LOG_LEVEL_INFO, "Asked 'site_network' of 'hub.example.org:6128' encrypted 0: VAR"));
    EXPECT_TRUE(vtnet_IsInitialized()) << "by the first call";
    Evaluate("main", "string: {remotescalar: [h, hub, yes]}");
    EXPECT_TRUE(log.Has(LOG_LEVEL_INFO, "Asked 'h' of 'hub' encrypted 1: VAR"));
}

TEST_F(RemoteFunctions, AValueThatFillsTheBufferEndsWithIt)
{
    Evaluate("main", "string: {remotescalar: [long, hub]}");
    EXPECT_EQ(Variable(), std::string(4096, 'x') + " source=promise,mine");
}

TEST_F(RemoteFunctions, WhenTheServerFailsTheLastValueStandsForItAndSaysSo)
{
    Evaluate("main", "string: {remotescalar: [h, hub]}");
    SetServerDown(true);
    Evaluate("main", "string: {remotescalar: [h, hub]}");
    EXPECT_EQ(Variable(), "value of h source=promise,mine,source=cache");
    EXPECT_TRUE(
        log.Has(LOG_LEVEL_WARNING, "Function 'remotescalar': 'hub' gives no value of 'h': the last known one is used"));
    ASSERT_EQ(hashes.size(), 2u);
    EXPECT_EQ(hashes[0], hashes[1]) << "it is the same promise";
}

TEST_F(RemoteFunctions, AnotherBundlesValueIsNoneOfOurs)
{
    Evaluate("main", "string: {remotescalar: [of_main, hub]}");
    SetServerDown(true);
    Evaluate("other", "string: {remotescalar: [of_main, hub]}");
    EXPECT_EQ(Variable(), "(none)");
}

TEST_F(RemoteFunctions, WithoutAnyValueThePromiseIsSkippedAndTheReasonSaidOnce)
{
    Evaluate("main", "string: {remotescalar: [refused, hub]}");
    EXPECT_EQ(Variable(), "(none)");
    EXPECT_TRUE(hashes.empty()) << "nothing was judged";
    const std::vector<LogCapture::Line> grave = log.UpTo(LOG_LEVEL_WARNING);
    EXPECT_THAT(grave, ElementsAre(std::pair(LOG_LEVEL_ERR,
                                             std::string("Function 'remotescalar' failed: 'hub' gives no value of "
                                                         "'refused', and no earlier one is known"))));
}

TEST_F(RemoteFunctions, ALookUpThatCannotBeMadeCountsLikeAFailedOne)
{
    EXPECT_EQ(Complaint("remotescalar", {"no network", "hub"}),
              "Function 'remotescalar' failed: 'hub' gives no value of 'no network', and no earlier one is known");
}

TEST_F(RemoteFunctions, TheTagReachesContainersTooAndNoOtherVariable)
{
    Evaluate("main", "string: {remotescalar: [n, hub]}");
    SetServerDown(true);
    Evaluate("main", "data: {a: {remotescalar: [n, hub]}}");
    EXPECT_EQ(Variable(), "{\"a\":\"value of n\"} source=promise,mine,source=cache");
    Evaluate("main", "string: plain");
    EXPECT_EQ(Variable(), "plain source=promise,mine");
}

TEST_F(RemoteFunctions, TheConnectionThatALookUpLeavesOpenIsClosed)
{
    Evaluate("main", "string: {remotescalar: [h, hub]}");
    EXPECT_EQ(ReadToEnd(far_end.ours.Get()), "") << "this would wait for ever";
}

TEST_F(RemoteFunctions, RemotescalarRefusesWhatIsNoHandleNoServerAndNoChoice)
{
    const std::string no_handle =
        "Function 'remotescalar' failed: a handle has 1 to 1024 bytes and no control characters";
    EXPECT_EQ(Complaint("remotescalar", {"", "hub"}), no_handle);
    EXPECT_EQ(Complaint("remotescalar", {std::string(1025, 'h'), "hub"}), no_handle);
    EXPECT_EQ(Complaint("remotescalar", {"a\nb", "hub"}), no_handle);
    EXPECT_EQ(Complaint("remotescalar", {"h", ""}), "Function 'remotescalar' failed: '' is no server");
    EXPECT_EQ(Complaint("remotescalar", {"h", ":6127"}), "Function 'remotescalar' failed: ':6127' is no server");
    EXPECT_EQ(Complaint("remotescalar", {"h", "a b"}), "Function 'remotescalar' failed: 'a b' is no server");
    EXPECT_EQ(Complaint("remotescalar", {"h", "hub", "maybe"}),
              "Function 'remotescalar' failed: 'maybe' is neither yes nor no");
    EXPECT_EQ(Complaint("remotescalar", {"h"}), "Function 'remotescalar' failed: it does not take 1 arguments");
    EXPECT_EQ(Complaint("remotescalar", {"h", "hub", "no", "x"}),
              "Function 'remotescalar' failed: it does not take 4 arguments");
}

TEST_F(RemoteFunctions, WithoutAKeyThereIsNoNetworkAndNobodyIsAsked)
{
    vtnet_Init();  // makes the key
    vtnet_Shut();
    fs::permissions(work->path / "keys/host.priv", fs::perms::group_read, fs::perm_options::add);
    EXPECT_EQ(Complaint("remotescalar", {"h", "hub"}),
              "Function 'remotescalar' failed: there is no network without this host's key");
    fs::permissions(work->path / "keys/host.priv", fs::perms::group_read, fs::perm_options::remove);
    for (const LogCapture::Line &line : log.lines) { EXPECT_THAT(line.second, testing::Not(HasSubstr("Asked"))); }
}

TEST_F(RemoteFunctions, HostswithclassGivesAListOfHosts)
{
    Evaluate("main", "slist: {hostswithclass: [web_server, address]}");
    EXPECT_EQ(Variable(), "{\"web_server\",\"address\",\"0\"} source=promise,mine");
    Evaluate("main", "slist: {hostswithclass: [nowhere, name]}");
    EXPECT_EQ(Variable(), " source=promise,mine") << "no host has it: an empty list";
}

TEST_F(RemoteFunctions, HostswithclassFailsWhereHostsAreNotKnown)
{
    EXPECT_EQ(Complaint("hostswithclass", {"unknown", "name"}),
              "Function 'hostswithclass' failed: the hosts with class 'unknown' are not known here");
    EXPECT_EQ(Complaint("hostswithclass", {"c", "key"}),
              "Function 'hostswithclass' failed: 'key' is neither name nor address");
}

}  // namespace
