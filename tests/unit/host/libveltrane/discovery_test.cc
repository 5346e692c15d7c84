// Tests of the discovery of the machine.
#include "libveltrane/discovery.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <map>
#include <string>

#include <veltrane/class.h>
#include <veltrane/eval_context.h>
#include <veltrane/globals.h>
#include <veltrane/owned.h>
#include <veltrane/set.h>
#include <veltrane/string_lib.h>

#include "support/work_dir.h"

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using veltrane::FullHostName;
using veltrane::Machine;
using veltrane::ParseOsRelease;

namespace {

Machine Example()
{
    Machine machine;
    machine.kernel = "Linux";
    machine.release = "6.1.0-13-amd64";
    machine.arch = "x86_64";
    machine.is_64_bit = true;
    machine.cpus = 8;
    machine.os = {"debian", "12", "Debian GNU/Linux 12 (bookworm)", {}};
    machine.fqhost = "web-1.example.org";
    machine.interfaces = {"eth0", "lo"};
    machine.ipv4 = {{"eth0", "192.0.2.7"}, {"eth0", "192.0.2.8"}, {"lo", "127.0.0.1"}};
    machine.ipv6 = {"2001:db8::7"};
    return machine;
}

std::map<std::string, std::string> Classes(const EvalContext *ctx)
{
    std::map<std::string, std::string> classes;  // name -> tags
    const veltrane::ClassTableIteratorPtr all(EvalContextClassTableIteratorNewGlobal(ctx, nullptr, true, true));
    while (const Class *one = ClassTableIteratorNext(all.get())) {
        const veltrane::BufferPtr tags(StringSetToBuffer(one->tags, ','));
        classes[one->name] = BufferData(tags.get());
    }
    return classes;
}

std::vector<std::string> Names(const std::map<std::string, std::string> &classes)
{
    std::vector<std::string> names;
    for (const auto &[name, tags] : classes) { names.push_back(name); }
    return names;
}

std::map<std::string, std::string> Variables(const EvalContext *ctx, const char *scope)
{
    std::map<std::string, std::string> values;  // name with indices -> raw value
    const veltrane::VariableTableIteratorPtr all(EvalContextVariableTableIteratorNew(ctx, nullptr, scope, nullptr));
    while (Variable *one = VariableTableIteratorNext(all.get())) {
        const VarRef *ref = VariableGetRef(one);
        std::string name = ref->lval;
        for (size_t i = 0; i < ref->num_indices; ++i) { name += std::string("[") + ref->indices[i] + "]"; }
        const veltrane::WriterPtr writer(StringWriter());
        RvalWriteRaw(writer.get(), VariableGetRval(one, false));
        values[name] = StringWriterData(writer.get());
    }
    return values;
}

class Discovery : public testing::Test {
  protected:
    void Put(const Machine &machine) { veltrane::PutMachine(ctx.get(), machine); }

    WorkDirectory work_dir;
    veltrane::EvalContextPtr ctx{EvalContextNew()};
};

}  // namespace

TEST(OsReleaseFile, IsReadWithItsQuotesTakenOff)
{
    const auto os = ParseOsRelease(
        "PRETTY_NAME=\"Some OS \\\"9\\\"\"\n# ID=comment\nID='some'\nVERSION_ID=9.1\n"
        "ID_LIKE=\"fedora rhel\"\nUNKNOWN=1\nno equals sign\n");

    EXPECT_EQ(os.id, "some");
    EXPECT_EQ(os.version_id, "9.1");
    EXPECT_EQ(os.pretty_name, "Some OS \"9\"");
    EXPECT_THAT(os.like, ElementsAre("fedora", "rhel"));
}

TEST(OsReleaseFile, WithoutContentSaysNothing)
{
    const auto os = ParseOsRelease("");

    EXPECT_EQ(os.id + os.version_id + os.pretty_name, "");
    EXPECT_THAT(os.like, IsEmpty());
}

TEST(HostName, WithADotIsFullAsItStands)
{
    EXPECT_EQ(FullHostName("web.example.org", "127.0.1.1 web.other.org web"), "web.example.org");
}

TEST(HostName, TakesItsDomainFromTheHostsFile)
{
    EXPECT_EQ(FullHostName("web", "127.0.0.1\tlocalhost\n# 1.2.3.4 web.no.org web\n127.0.1.1 web.example.org\tweb\n"),
              "web.example.org");
}

TEST(HostName, StaysShortWhenTheHostsFileGivesNoDomain)
{
    EXPECT_EQ(FullHostName("web", "127.0.0.1 localhost web\n10.0.0.1 other.example.org\n"), "web");
    EXPECT_EQ(FullHostName("web", ""), "web");
}

TEST_F(Discovery, DefinesWhatKindOfMachineItIs)
{
    Put(Example());

    const std::vector<std::string> names = Names(Classes(ctx.get()));

    for (const char *name : {"any", "linux", "x86_64", "linux_x86_64", "64_bit", "debian", "debian_12", "8_cpus",
                             "linux_6_1_0_13_amd64", "linux_6_1_0_13", "linux_6_1_0", "linux_6_1", "linux_6"}) {
        EXPECT_THAT(names, Contains(name));
    }
    EXPECT_THAT(names, Not(Contains("32_bit")));
    EXPECT_THAT(names, Not(Contains("systemd")));
    EXPECT_THAT(names, Not(Contains("container")));
}

TEST_F(Discovery, DefinesTheHostNameItsFirstPartAndEachDomain)
{
    Put(Example());

    const std::vector<std::string> names = Names(Classes(ctx.get()));

    for (const char *name : {"web_1", "web_1_example_org", "example_org", "org"}) {
        EXPECT_THAT(names, Contains(name));
    }
}

TEST_F(Discovery, DefinesAClassForEveryIpv4Address)
{
    Put(Example());

    EXPECT_THAT(Names(Classes(ctx.get())),
                testing::IsSupersetOf({"ipv4_192_0_2_7", "ipv4_192_0_2_8", "ipv4_127_0_0_1"}));
}

TEST_F(Discovery, DefinesWhereItRunsAndWhatItDescendsFrom)
{
    Machine machine = Example();
    machine.has_systemd = machine.is_container = true;
    machine.os.like = {"ubuntu", "debian"};
    Put(machine);

    EXPECT_THAT(Names(Classes(ctx.get())), testing::IsSupersetOf({"systemd", "container", "ubuntu", "debian"}));
}

TEST_F(Discovery, TagsItsClassesAsInventory)
{
    Put(Example());

    std::map<std::string, std::string> classes = Classes(ctx.get());

    EXPECT_EQ(classes["linux"], "inventory,attribute_name=none,source=agent");
    EXPECT_EQ(classes["debian_12"], "inventory,attribute_name=none,source=agent");
    EXPECT_EQ(classes["any"], "source=agent");
}

TEST_F(Discovery, FillsTheSysScope)
{
    Put(Example());

    const std::map<std::string, std::string> expected = {
        {"host", "web-1"},
        {"uqhost", "web-1"},
        {"fqhost", "web-1.example.org"},
        {"domain", "example.org"},
        {"os", "linux"},
        {"os_name", "Debian GNU/Linux 12 (bookworm)"},
        {"os_version", "12"},
        {"flavor", "debian_12"},
        {"arch", "x86_64"},
        {"class", "linux"},
        {"release", "6.1.0-13-amd64"},
        {"cpus", "8"},
        {"ipv4", "192.0.2.7"},
        {"ipv4[eth0]", "192.0.2.7"},
        {"ipv4[lo]", "127.0.0.1"},
        {"ipv6", "{\"2001:db8::7\"}"},
        {"interfaces", "{\"eth0\",\"lo\"}"},
        {"workdir", work_dir.path.string()},
        {"statedir", work_dir.path.string() + "/state"},
        {"inputdir", work_dir.path.string() + "/inputs"},
        {"logdir", work_dir.path.string() + "/log"},
        {"vt_version", Version()},
    };
    EXPECT_EQ(Variables(ctx.get(), "sys"), expected);
}

TEST_F(Discovery, KnowsAMachineWithoutDomainNetworkAndReleaseFile)
{
    Machine machine = Example();
    machine.fqhost = "alone";
    machine.os = {};
    machine.interfaces.clear();
    machine.ipv4.clear();
    machine.ipv6.clear();
    Put(machine);

    std::map<std::string, std::string> values = Variables(ctx.get(), "sys");
    EXPECT_EQ(values["host"], "alone");
    EXPECT_EQ(values["domain"], "");
    EXPECT_EQ(values["ipv4"], "127.0.0.1");
    EXPECT_EQ(values["flavor"], "linux");
    EXPECT_EQ(values["interfaces"], "");
}

TEST_F(Discovery, TellsTheMachineItRunsOnAndTwiceTheSame)
{
    veltrane::DiscoverInto(ctx.get(), 1736164800);
    const veltrane::EvalContextPtr again(EvalContextNew());
    veltrane::DiscoverInto(again.get(), 1736164800);

    char name[256] = "";
    ASSERT_EQ(gethostname(name, sizeof(name) - 1), 0);
    std::string lower = name;
    for (char &c : lower) { c = static_cast<char>(tolower(c)); }
    std::map<std::string, std::string> values = Variables(ctx.get(), "sys");
    EXPECT_TRUE(StringStartsWith(values["fqhost"].c_str(), lower.c_str())) << values["fqhost"];
    EXPECT_EQ(values["os"], "linux");
    EXPECT_GE(std::stol(values["cpus"]), 1);
    EXPECT_THAT(Names(Classes(ctx.get())), testing::IsSupersetOf({"any", "linux", "GMT_Monday"}));

    EXPECT_EQ(Variables(again.get(), "sys"), values);
    EXPECT_EQ(Classes(again.get()), Classes(ctx.get()));
}

TEST_F(Discovery, GivesConstantsForWhatATextCannotSay)
{
    veltrane::DiscoverInto(ctx.get(), 1736164800);

    const std::map<std::string, std::string> expected = {{"dollar", "$"}, {"n", "\n"}, {"t", "\t"}};
    EXPECT_EQ(Variables(ctx.get(), "const"), expected);
}
