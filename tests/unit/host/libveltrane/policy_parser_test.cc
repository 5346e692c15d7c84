// Policy files read whole: what becomes of them, what they include, and who may have written them.
#include <veltrane/policy.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <vector>

#include <veltrane/json.h>
#include <veltrane/owned.h>
#include <veltrane/rlist.h>
#include <veltrane/seq.h>
#include <veltrane/writer.h>

#include "libveltrane/policy_control.h"
#include "libveltrane/policy_source.h"
#include "support/work_dir.h"

namespace {

using std::filesystem::perms;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;
using veltrane::PolicyPtr;

class PolicyParserTest : public testing::Test {
  protected:
    // Writes a policy file that nobody but us can write, whatever the umask is.
    std::string Write(const std::string &name, const std::string &bytes) const
    {
        const std::filesystem::path path = work_.path / "inputs" / name;
        WriteFile(path, bytes);
        std::filesystem::permissions(path, perms::owner_read | perms::owner_write);
        return path.string();
    }

    PolicyPtr Parse(const std::string &path)
    {
        char *error = nullptr;
        PolicyPtr policy(PolicyParseFile(path.c_str(), &error));
        EXPECT_EQ(policy == nullptr, error != nullptr);
        const std::string directory = (work_.path / "inputs").string() + "/";
        error_ = error != nullptr ? error : "accepted";
        free(error);
        for (size_t at = error_.find(directory); at != std::string::npos; at = error_.find(directory)) {
            error_.erase(at, directory.size());
        }
        return policy;
    }

    PolicyPtr ParseText(const std::string &bytes) { return Parse(Write("promises.vt", bytes)); }

    // What is wrong with a file, its directory left out.
    std::string Error(const std::string &bytes)
    {
        ParseText(bytes);
        return error_;
    }

    WorkDirectory work_;
    std::string error_;  // of the last file, "accepted" when there was none
};

const Bundle *BundleAt(const PolicyPtr &policy, size_t i)
{
    return static_cast<const Bundle *>(SeqAt(policy->bundles, i));
}

const BundleSection *SectionAt(const Bundle *bundle, size_t i)
{
    return static_cast<const BundleSection *>(SeqAt(bundle->sections, i));
}

const Promise *PromiseAt(const BundleSection *section, size_t i)
{
    return static_cast<const Promise *>(SeqAt(section->promises, i));
}

const Promise *FirstPromise(const PolicyPtr &policy) { return PromiseAt(SectionAt(BundleAt(policy, 0), 0), 0); }

// The letter of the value's type and its raw text.
std::string Shown(const Promise *pp, const char *lval)
{
    const Constraint *constraint = PromiseGetConstraint(pp, lval);
    if (constraint == nullptr) {
        return "absent";
    }
    const veltrane::WriterPtr writer(StringWriter());
    RvalWriteRaw(writer.get(), constraint->rval);
    return std::string(1, static_cast<char>(constraint->rval.type)) + " " + StringWriterData(writer.get());
}

TEST_F(PolicyParserTest, AFileBecomesBundlesSectionsAndPromisesInItsOrder)
{
    const PolicyPtr policy = ParseText(
        "bundles:\n"
        "  - agent: main\n"
        "    promises:\n"
        "      - vars: a\n"
        "        string: one\n"
        "      - vars: b\n"
        "        string: two\n"
        "      - reports: hello\n"
        "      - vars: c\n"
        "        string: three\n"
        "  - server: rules\n"
        "    namespace: site\n");
    ASSERT_EQ(error_, "accepted");
    ASSERT_EQ(SeqLength(policy->bundles), 2u);
    const Bundle *main = BundleAt(policy, 0);
    EXPECT_STREQ(main->type, "agent");
    EXPECT_STREQ(main->name, "main");
    EXPECT_STREQ(main->ns, "default");
    EXPECT_EQ(main->source_path, (work_.path / "inputs/promises.vt").string());
    ASSERT_EQ(SeqLength(main->sections), 3u);
    EXPECT_STREQ(SectionAt(main, 0)->promise_type, "vars");
    EXPECT_EQ(SeqLength(SectionAt(main, 0)->promises), 2u);
    EXPECT_STREQ(SectionAt(main, 1)->promise_type, "reports");
    EXPECT_STREQ(SectionAt(main, 2)->promise_type, "vars");
    EXPECT_STREQ(PromiseAt(SectionAt(main, 2), 0)->promiser, "c");

    const Bundle *rules = BundleAt(policy, 1);
    EXPECT_STREQ(rules->type, "server");
    EXPECT_STREQ(rules->ns, "site");
    EXPECT_EQ(SeqLength(rules->sections), 0u);
}

TEST_F(PolicyParserTest, PromisesAndAttributesKnowTheirPlace)
{
    const PolicyPtr policy = ParseText(
        "bundles:\n"
        "  - agent: main\n"
        "    promises:\n"
        "      - files: /etc/motd\n"
        "        content: hello\n");
    ASSERT_EQ(error_, "accepted");
    const Promise *pp = FirstPromise(policy);
    EXPECT_EQ(pp->offset.line, 4u);
    EXPECT_EQ(pp->offset.column, 9u);
    EXPECT_EQ(PromiseGetConstraint(pp, "content")->offset.line, 5u);
    EXPECT_EQ(PromiseGetConstraint(pp, "content")->offset.column, 9u);
    EXPECT_EQ(PromiseID(pp), (work_.path / "inputs/promises.vt:4").string());
}

TEST_F(PolicyParserTest, ValuesBecomeScalarsListsAndContainers)
{
    const PolicyPtr policy = ParseText(
        "bundles:\n"
        "  - agent: main\n"
        "    promises:\n"
        "      - files: /etc/motd\n"
        "        handle: motd\n"
        "        meta: [inventory, 'attribute_name=\"x\"']\n"
        "        promisees: [ops, security]\n"
        "        create: yes\n"
        "        content: {readfile: [/x, \"a\\tb\"]}\n"
        "        perms: {mode: 0644, owner: root}\n"
        "        classes: {repaired: motd_changed, failed: [a, b]}\n");
    ASSERT_EQ(error_, "accepted");
    const Promise *pp = FirstPromise(policy);
    EXPECT_STREQ(PromiseGetHandle(pp), "motd");
    EXPECT_EQ(Shown(pp, "meta"), "l {\"inventory\",\"attribute_name=\\\"x\\\"\"}");
    EXPECT_EQ(Shown(pp, "create"), "s true");
    EXPECT_EQ(Shown(pp, "content"), "c {\"readfile\":[\"/x\",\"a\\tb\"]}");
    EXPECT_EQ(Shown(pp, "perms"), "c {\"mode\":\"0644\",\"owner\":\"root\"}");
    EXPECT_EQ(Shown(pp, "classes"), "c {\"repaired\":\"motd_changed\",\"failed\":[\"a\",\"b\"]}");
    EXPECT_EQ(Shown(pp, "promisees"), "absent");
    EXPECT_EQ(RlistLen(RvalRlistValue(pp->promisee)), 2u);
}

TEST_F(PolicyParserTest, OnePromiseeIsAScalar)
{
    const PolicyPtr policy = ParseText("bundles: [{agent: main, promises: [{reports: x, promisees: ops}]}]");
    ASSERT_EQ(error_, "accepted");
    EXPECT_STREQ(RvalScalarValue(FirstPromise(policy)->promisee), "ops");
}

TEST_F(PolicyParserTest, AListKeepsItsOrderAndMayBeEmpty)
{
    const PolicyPtr policy =
        ParseText("bundles: [{agent: main, promises: [{vars: x, slist: [c, a, b, a]}, {vars: y, slist: []}]}]");
    ASSERT_EQ(error_, "accepted");
    const BundleSection *section = SectionAt(BundleAt(policy, 0), 0);
    EXPECT_EQ(Shown(PromiseAt(section, 0), "slist"), "l {\"c\",\"a\",\"b\",\"a\"}");
    EXPECT_EQ(PromiseGetConstraint(PromiseAt(section, 1), "slist")->rval.type, RVAL_TYPE_LIST);
    EXPECT_EQ(PromiseGetConstraintAsList(PromiseAt(section, 1), "slist"), nullptr);
}

TEST_F(PolicyParserTest, AListWithAFunctionIsAContainer)
{
    const PolicyPtr policy =
        ParseText("bundles: [{agent: main, promises: [{classes: x, and: [a, {classmatch: ['b.*']}]}]}]");
    ASSERT_EQ(error_, "accepted");
    EXPECT_EQ(Shown(FirstPromise(policy), "and"), "c [\"a\",{\"classmatch\":[\"b.*\"]}]");
}

TEST_F(PolicyParserTest, DataIsTakenAsItStands)
{
    const PolicyPtr policy = ParseText(
        "bundles: [{agent: main, promises: [{vars: x, data: {b: [1, {nosuch: [\"\\x01\\\"\\\\\"]}], a: yes}}]}]");
    ASSERT_EQ(error_, "accepted");
    EXPECT_EQ(Shown(FirstPromise(policy), "data"),
              "c {\"b\":[\"1\",{\"nosuch\":[\"\\u0001\\\"\\\\\"]}],\"a\":\"yes\"}");
}

TEST_F(PolicyParserTest, TheListsOfReportDataSelectAreThePromisesOwn)
{
    const PolicyPtr policy = ParseText(
        "bundles:\n"
        "  - server: rules\n"
        "    promises:\n"
        "      - access: delta\n"
        "        resource: query\n"
        "        admit_keys: [\"SHA=00\"]\n"
        "        report_data_select:\n"
        "          metatags_include: [inventory, report]\n"
        "          monitoring_include: []\n");
    ASSERT_EQ(error_, "accepted");
    const Promise *pp = FirstPromise(policy);
    EXPECT_NE(PromiseGetImmediateConstraint(pp, "report_data_select"), nullptr);
    EXPECT_EQ(PromiseGetImmediateConstraint(pp, "metatags_exclude"), nullptr);
    const Constraint *include = PromiseGetImmediateConstraint(pp, "metatags_include");
    ASSERT_NE(include, nullptr);
    EXPECT_EQ(RlistLen(RvalRlistValue(include->rval)), 2u);
    EXPECT_EQ(include->offset.line, 8u);
    ASSERT_NE(PromiseGetImmediateConstraint(pp, "monitoring_include"), nullptr);
    EXPECT_EQ(RvalRlistValue(PromiseGetImmediateConstraint(pp, "monitoring_include")->rval), nullptr);
}

TEST_F(PolicyParserTest, ClassesIsATypeAloneAndAnAttributeBesideAnotherType)
{
    const PolicyPtr policy = ParseText(
        "bundles:\n"
        "  - agent: main\n"
        "    promises:\n"
        "      - classes: {kept: a}\n"
        "        reports: hello\n"
        "      - classes: web\n"
        "        expression: any\n");
    ASSERT_EQ(error_, "accepted");
    EXPECT_STREQ(SectionAt(BundleAt(policy, 0), 0)->promise_type, "reports");
    EXPECT_EQ(Shown(FirstPromise(policy), "classes"), "c {\"kept\":\"a\"}");
    EXPECT_STREQ(SectionAt(BundleAt(policy, 0), 1)->promise_type, "classes");
}

TEST_F(PolicyParserTest, ControlIsReadByPrograms)
{
    const PolicyPtr policy = ParseText(
        "control:\n"
        "  common: {package_inventory: [apt, snap], lastseen_expire_after: 60}\n"
        "  agent: {report_class_log: yes}\n"
        "  server: {listen: false}\n");
    ASSERT_EQ(error_, "accepted");
    EXPECT_STREQ(veltrane::PolicyControlScalar(policy.get(), "common", "lastseen_expire_after"), "60");
    EXPECT_STREQ(veltrane::PolicyControlScalar(policy.get(), "agent", "report_class_log"), "true");
    EXPECT_STREQ(veltrane::PolicyControlScalar(policy.get(), "server", "listen"), "false");
    EXPECT_EQ(veltrane::PolicyControlScalar(policy.get(), "server", "dump_reports"), nullptr);
    EXPECT_EQ(RlistLen(veltrane::PolicyControlList(policy.get(), "common", "package_inventory")), 2u);
}

TEST_F(PolicyParserTest, WhatIsWrongIsSaidWithItsPlace)
{
    const struct {
        const char *bytes;
        const char *error;
    } table[] = {
        {"[a]", "promises.vt:1:1: a policy is a map of include, control and bundles"},
        {"text", "promises.vt:1:1: a policy is a map of include, control and bundles"},
        {"", "promises.vt:1:1: the file holds no policy"},
        {"bundle: []", "promises.vt:1:1: unknown key 'bundle' of a policy"},
        {"bundles: {}", "promises.vt:1:10: 'bundles' must be a list"},
        {"bundles:\n", "promises.vt:1:9: 'bundles' must be a list"},
        {"control: []", "promises.vt:1:10: 'control' must be a map of sections"},
        {"control: {hub: {}}", "promises.vt:1:11: unknown control section 'hub'"},
        {"control: {agent: {nosuch: 1}}", "promises.vt:1:19: unknown attribute 'nosuch' of control section 'agent'"},
        {"include: access.vt", "promises.vt:1:10: 'include' must be a list of files"},
        {"include: [[a]]", "promises.vt:1:11: an item of 'include' must be the path of a file"},
        {"include: ['']", "promises.vt:1:11: an item of 'include' must be the path of a file"},
        {"bundles: [main]", "promises.vt:1:11: a bundle must be a map"},
        {"bundles: [{promises: []}]", "promises.vt:1:11: a bundle needs its kind and name: agent, server or common"},
        {"bundles: [{agents: main}]", "promises.vt:1:12: unknown key 'agents' of a bundle"},
        {"bundles: [{agent: main, server: rules}]", "promises.vt:1:25: 'server' beside 'agent': a bundle has one kind"},
        {"bundles: [{agent: a-b}]", "promises.vt:1:19: 'agent' must be a name of letters, digits and '_'"},
        {"bundles: [{agent: [a]}]", "promises.vt:1:19: 'agent' must be a name of letters, digits and '_'"},
        {"bundles: [{agent: a, namespace: 'b:c'}]",
         "promises.vt:1:33: 'namespace' must be a name of letters, digits and '_'"},
        {"bundles: [{common: sys}]",
         "promises.vt:1:20: no bundle can be called 'sys': the host keeps its own variables in 'sys'"},
        {"bundles: [{server: remote_access}]",
         "promises.vt:1:20: no bundle can be called 'remote_access': the variables of 'remote_access' are those that "
         "other hosts may read"},
        {"bundles: [{agent: a}, {server: a}]", "promises.vt:1:32: a bundle 'a' stands already at promises.vt:1:19"},
        {"bundles: [{agent: a, promises: {}}]", "promises.vt:1:32: 'promises' must be a list"},
        {"bundles: [{agent: a, promises: [x]}]", "promises.vt:1:33: a promise must be a map"},
        {"bundles: [{agent: a, promises: [{}]}]", "promises.vt:1:33: a promise needs a type"},
        {"bundles: [{agent: a, promises: [{file: /x}]}]", "promises.vt:1:34: unknown promise type 'file'"},
        {"bundles: [{agent: a, promises: [{files: /x, commands: y}]}]",
         "promises.vt:1:45: 'commands' beside 'files': a promise has one type"},
        {"bundles: [{agent: a, promises: [{classes: {kept: x}}]}]",
         "promises.vt:1:43: the promiser of 'classes' must be a text"},
        {"bundles: [{agent: a, promises: [{files: /x, classes: y}]}]", "promises.vt:1:54: 'classes' must be a map"},
        {"bundles: [{agent: a, promises: [{access: delta, resource: query}]}]",
         "promises.vt:1:34: a bundle of kind 'agent' holds no promises of type 'access'"},
        {"bundles: [{common: a, promises: [{commands: /x}]}]",
         "promises.vt:1:35: a bundle of kind 'common' holds no promises of type 'commands'"},
        {"bundles: [{agent: a, promises: [{reports: x, to: y}]}]",
         "promises.vt:1:46: unknown attribute 'to' of promise type 'reports'"},
    };
    for (const auto &row : table) { EXPECT_EQ(Error(row.bytes), row.error) << row.bytes; }
}

TEST_F(PolicyParserTest, BundlesOfOneNameMayStandInTwoNamespaces)
{
    EXPECT_EQ(Error("bundles: [{agent: a}, {agent: a, namespace: site}]"), "accepted");
    EXPECT_EQ(Error("bundles: [{agent: a}, {agent: a, namespace: default}]"),
              "promises.vt:1:31: a bundle 'a' stands already at promises.vt:1:19");
}

TEST_F(PolicyParserTest, IncludedFilesComeFirstAndAreFoundBesideTheIncludingFile)
{
    std::filesystem::create_directory(work_.path / "inputs/lib");
    std::filesystem::permissions(work_.path / "inputs/lib", perms::owner_all);
    Write("lib/a.vt", "include: [b.vt]\nbundles: [{agent: a}]");
    Write("lib/b.vt", "bundles: [{agent: b}]");
    const std::string absolute = Write("c.vt", "bundles: [{agent: c}]");
    const PolicyPtr policy = ParseText("bundles: [{agent: main}]\ninclude: [lib/a.vt, " + absolute + "]");
    ASSERT_EQ(error_, "accepted");
    std::vector<std::string> names;
    for (size_t i = 0; i < SeqLength(policy->bundles); i++) { names.emplace_back(BundleAt(policy, i)->name); }
    EXPECT_THAT(names, ElementsAre("b", "a", "c", "main"));
    EXPECT_EQ(BundleAt(policy, 0)->source_path, (work_.path / "inputs/lib/b.vt").string());
}

TEST_F(PolicyParserTest, AnErrorInAnIncludedFileNamesThatFile)
{
    Write("access.vt", "bundles:\n  - server: 1-2\n");
    EXPECT_EQ(Error("include: [access.vt]"), "access.vt:2:13: 'server' must be a name of letters, digits and '_'");
}

TEST_F(PolicyParserTest, AFileThatIsIncludedTwiceIsReadOnce)
{
    Write("a.vt", "include: [b.vt]");
    Write("b.vt", "bundles: [{agent: b}]");
    const PolicyPtr policy = ParseText("include: [a.vt, b.vt, ./b.vt]");
    ASSERT_EQ(error_, "accepted");
    EXPECT_EQ(SeqLength(policy->bundles), 1u);
}

TEST_F(PolicyParserTest, FilesThatIncludeOneAnotherInACircleAreRefused)
{
    Write("a.vt", "include: [b.vt]");
    Write("b.vt", "include: [promises.vt]");
    EXPECT_EQ(Error("include: [a.vt]"), "b.vt:1:11: promises.vt: includes itself, directly or through others");
    EXPECT_EQ(Error("include: [promises.vt]"),
              "promises.vt:1:11: promises.vt: includes itself, directly or through others");
}

TEST_F(PolicyParserTest, AChainOfIncludesIsBounded)
{
    for (int i = 1; i < 40; i++) { Write(std::to_string(i) + ".vt", "include: [" + std::to_string(i + 1) + ".vt]"); }
    EXPECT_EQ(Error("include: [1.vt]"), "31.vt:1:11: files include one another deeper than 32");
}

TEST_F(PolicyParserTest, WhatTwoFilesSetInControlIsRefused)
{
    Write("a.vt", "control: {agent: {report_class_log: yes}}");
    EXPECT_EQ(Error("include: [a.vt]\ncontrol: {agent: {report_class_log: yes}}"),
              "promises.vt:2:19: 'report_class_log' is set already at a.vt:1:19");
}

TEST_F(PolicyParserTest, TwoFilesMayNotHoldOneBundle)
{
    Write("a.vt", "bundles: [{agent: main}]");
    EXPECT_EQ(Error("include: [a.vt]\nbundles: [{common: main}]"),
              "promises.vt:2:20: a bundle 'main' stands already at a.vt:1:19");
}

TEST_F(PolicyParserTest, AFileThatIsNotThereIsSaidWithItsPath)
{
    Parse((work_.path / "inputs/absent.vt").string());
    EXPECT_EQ(error_, "absent.vt: No such file or directory");
    EXPECT_EQ(Error("\ninclude: [absent.vt]"), "promises.vt:2:11: absent.vt: No such file or directory");
}

TEST_F(PolicyParserTest, OnlyARegularFileIsRead)
{
    Parse((work_.path / "inputs").string());
    EXPECT_THAT(error_, HasSubstr(": not a regular file"));
    const std::string fifo = (work_.path / "inputs/fifo.vt").string();
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    Parse(fifo);
    EXPECT_EQ(error_, "fifo.vt: not a regular file");
}

TEST_F(PolicyParserTest, AFileThatOthersCouldHaveWrittenIsRefused)
{
    const std::string path = Write("promises.vt", "bundles: []");
    for (const perms extra : {perms::group_write, perms::others_write}) {
        std::filesystem::permissions(path, perms::owner_all | extra);
        EXPECT_EQ(Parse(path), nullptr);
        EXPECT_THAT(error_, StartsWith("promises.vt: "));
        EXPECT_THAT(error_, HasSubstr("is writable by other users"));
    }
    std::filesystem::permissions(path, perms::owner_all | perms::group_read | perms::others_read);
    Parse(path);
    EXPECT_EQ(error_, "accepted");
}

TEST_F(PolicyParserTest, AFileInADirectoryThatOthersCanWriteIsRefused)
{
    const std::string path = Write("promises.vt", "bundles: []");
    std::filesystem::permissions(work_.path / "inputs", perms::all);
    EXPECT_EQ(Parse(path), nullptr);
    EXPECT_THAT(error_, HasSubstr("is writable by other users"));
}

TEST_F(PolicyParserTest, ALinkInADirectoryThatOthersCanWriteIsRefused)
{
    const std::string path = Write("promises.vt", "bundles: []");
    const std::filesystem::path open_directory = work_.path / "open";
    std::filesystem::create_directory(open_directory);
    std::filesystem::create_symlink(path, open_directory / "link.vt");
    std::filesystem::permissions(open_directory, perms::owner_all);
    Parse((open_directory / "link.vt").string());
    EXPECT_EQ(error_, "accepted");
    std::filesystem::permissions(open_directory, perms::all);
    EXPECT_EQ(Parse((open_directory / "link.vt").string()), nullptr);
    EXPECT_THAT(error_, HasSubstr("its directory '" + open_directory.string() + "' is writable by other users"));
}

TEST_F(PolicyParserTest, AFileBeyondTheLimitIsRefused)
{
    std::string bytes = "bundles: []\n#";
    bytes.resize(veltrane::kPolicyFileLimit, 'x');
    EXPECT_EQ(Error(bytes), "accepted");
    EXPECT_EQ(Error(bytes + "x"), "promises.vt: larger than 16777216 bytes");
}

TEST_F(PolicyParserTest, EachFileIsKnownByTheHashOfItsBytes)
{
    const std::string included = Write("a.vt", "bundles: []");
    const PolicyPtr policy = ParseText("include: [a.vt]\n");
    ASSERT_EQ(error_, "accepted");
    EXPECT_STREQ(PolicyGetPolicyFileHash(policy.get(), included.c_str()),
                 "3ec7d9b433e49e105f3ac3a607edcc52252f0dfc768e24fff2970ef556acbb47");
    EXPECT_STREQ(PolicyGetPolicyFileHash(policy.get(), (work_.path / "inputs/promises.vt").c_str()),
                 "eec0aa9492090f23cae1c3afd76d44c26516617193492cae8c15d69c4dcbdd2d");
}

TEST_F(PolicyParserTest, TheReleaseIdIsTheFirstLineOfItsFile)
{
    const struct {
        std::string bytes;
        std::string id;
    } table[] = {{"r-1.2\n", "r-1.2"},           {"r-1.2\r\nsecond\n", "r-1.2"},
                 {"no line end", "no line end"}, {std::string(100, 'x') + "\n", std::string(64, 'x')},
                 {"\nsecond\n", "none"},         {"", "none"}};
    for (const auto &row : table) {
        WriteFile(work_.path / "inputs/release_id", row.bytes);
        const PolicyPtr policy = ParseText("bundles: []");
        ASSERT_EQ(error_, "accepted");
        EXPECT_EQ(policy->release_id != nullptr ? policy->release_id : "none", row.id);
    }
}

TEST_F(PolicyParserTest, WithoutItsFileThereIsNoReleaseId)
{
    const PolicyPtr policy = ParseText("bundles: []");
    ASSERT_EQ(error_, "accepted");
    EXPECT_EQ(policy->release_id, nullptr);
}

TEST_F(PolicyParserTest, TheExamplePoliciesAreRead)
{
    const std::filesystem::path examples = std::filesystem::path(VT_TEST_SOURCE_DIR) / "../examples/policy";
    std::vector<std::string> paths;
    for (const auto &entry : std::filesystem::directory_iterator(examples)) {
        if (entry.path().extension() == ".vt") {
            paths.push_back(Write(entry.path().filename().string(), ReadFile(entry.path())));
        }
    }
    EXPECT_GE(paths.size(), 2u);
    for (const std::string &path : paths) {
        const PolicyPtr policy = Parse(path);
        EXPECT_EQ(error_, "accepted") << path;
    }
}

TEST_F(PolicyParserTest, EveryCutOfAPolicyIsReadOrRefusedWithAPlace)
{
    const std::string whole =
        "control: {common: {package_inventory: [apt]}}\n"
        "bundles:\n"
        "  - agent: main\n"
        "    promises:\n"
        "      - vars: m\n"
        "        slist: [\"a\\n\", 'b', c]\n"
        "      - files: /x\n"
        "        content: |\n"
        "          one\n"
        "        classes: {kept: [k]}\n";
    ASSERT_EQ(Error(whole), "accepted");
    for (size_t length = 0; length < whole.size(); length++) {
        const std::string error = Error(whole.substr(0, length));
        EXPECT_TRUE(error == "accepted" || error.starts_with("promises.vt:")) << length << ": " << error;
    }
}

TEST_F(PolicyParserTest, EveryByteOfAPolicyMayBeAnyOther)
{
    const std::string whole = "bundles:\n - agent: a\n   promises:\n    - vars: x\n      slist: [\"a\", b]\n";
    for (size_t i = 0; i < whole.size(); i++) {
        for (const char c : {'\0', '\n', '\t', ' ', '"', '\'', '[', '{', ':', '-', '%', '&', '*', '!', '\xFF', '#'}) {
            std::string bytes = whole;
            bytes[i] = c;
            const std::string error = Error(bytes);
            EXPECT_TRUE(error == "accepted" || error.starts_with("promises.vt:")) << i << " " << c << ": " << error;
        }
    }
}

}  // namespace
