// The policy language: what each attribute may hold, and that everything else is refused where it stands.
#include "libveltrane/policy_schema.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace {

using veltrane::Complaint;
using veltrane::ParseYaml;
using veltrane::PolicyError;
using veltrane::YamlNode;

std::string Shown(const Complaint &complaint)
{
    return complaint.has_value() ? std::to_string(complaint->offset.line) + ":" +
                                       std::to_string(complaint->offset.column) + ": " + complaint->message
                                 : "accepted";
}

YamlNode Tree(const std::string &text)
{
    PolicyError error;
    const std::optional<YamlNode> root = ParseYaml(text, &error);
    EXPECT_TRUE(root.has_value()) << text << " " << error.message;
    return root.value_or(YamlNode{});
}

// A promise as a flow map on one line; its type is its first key.
std::string OfPromise(const std::string &text)
{
    YamlNode node = Tree("{" + text + "}");
    return Shown(veltrane::CheckPromise(node.members.front().key, &node));
}

std::string Control(std::string_view section, const std::string &text)
{
    YamlNode node = Tree("{" + text + "}");
    return Shown(veltrane::CheckControlSection(section, &node));
}

struct Refused {
    const char *text;
    const char *complaint;
};

TEST(PolicySchema, KnowsItsWords)
{
    for (const char *type :
         {"vars", "classes", "files", "commands", "packages", "processes", "methods", "reports", "access"}) {
        EXPECT_TRUE(veltrane::IsPromiseType(type)) << type;
    }
    for (const char *kind : {"agent", "server", "common"}) {
        EXPECT_TRUE(veltrane::IsBundleKind(kind)) << kind;
        EXPECT_TRUE(veltrane::IsControlSection(kind)) << kind;
    }
    EXPECT_FALSE(veltrane::IsPromiseType("file"));
    EXPECT_FALSE(veltrane::IsBundleKind("monitor"));
    EXPECT_FALSE(veltrane::IsControlSection("hub"));
}

TEST(PolicySchema, EachKindOfBundleHoldsItsTypesOfPromises)
{
    EXPECT_TRUE(veltrane::BundleMayHold("agent", "files"));
    EXPECT_FALSE(veltrane::BundleMayHold("agent", "access"));
    EXPECT_TRUE(veltrane::BundleMayHold("server", "access"));
    EXPECT_FALSE(veltrane::BundleMayHold("server", "commands"));
    EXPECT_TRUE(veltrane::BundleMayHold("common", "vars"));
    EXPECT_FALSE(veltrane::BundleMayHold("common", "files"));
}

TEST(PolicySchema, AnIdentifierIsLettersDigitsAndUnderscores)
{
    for (const char *text : {"a", "A_9", "0"}) { EXPECT_TRUE(veltrane::IsIdentifier(text)) << text; }
    for (const char *text : {"", "a-b", "a.b", "a b", "\xC3\xA4"}) {
        EXPECT_FALSE(veltrane::IsIdentifier(text)) << text;
    }
}

TEST(PolicySchema, EveryAttributeOfEveryTypeIsTaken)
{
    for (const char *text : {
             "vars: x, string: 'a $(b)', handle: h, meta: [inventory, 'attribute_name=Owner'], comment: why",
             "vars: x, string: t, if: debian, unless: 'a|(b.!c)', promisees: [a, b], classes: {kept: k, failed: [f, "
             "g]}",
             "vars: x, string: {ldapvalue: [u, b, f, a, s, c]}",
             "vars: 'x[a][b]', int: -12",
             "vars: x, int: '$(n)'",
             "vars: x, real: 1.5e3",
             "vars: x, slist: []",
             "vars: x, slist: [a, '@(others)']",
             "vars: x, slist: '@(others)'",
             "vars: x, slist: {ldaplist: [u]}",
             "vars: x, ilist: [1, -2, '$(n)']",
             "vars: x, rlist: [1, 2.5]",
             "vars: x, data: {a: [1, {b: c}], nosuchfunction: [x]}",
             "vars: '$(name)', string: ''",
             "classes: c, expression: 'debian.!container', scope: bundle, meta: [report]",
             "classes: c, expression: {regldap: [a, b, c, d, e, f, g]}",
             "classes: c, and: [a, 'b|c', {classmatch: ['x.*']}], scope: namespace",
             "classes: c, or: [a]",
             "classes: c, not: '$(expression)'",
             "files: /etc/motd, content: t, create: yes, delete: false, depth_search: true, move_obstructions: no",
             "files: '$(dir)/motd', perms: {mode: 0644, owner: root, group: root}, copy_from: /masterfiles/motd",
             "files: /x, changes: {report_diffs: true, repository: '$(sys.workdir)/changes'}",
             "files: /x, copy_from: {source: /y, servers: [hub], backup: timestamp, stealth: yes, verify: no}",
             "files: /x, content: {readfile: [/y]}",
             "files: /x, depth_search: {depth: 3, cross_file_systems: yes}",
             "files: /x, depth_search: {depth: '$(levels)'}",
             "files: /x, depth_search: {readfile: [/y]}",
             "commands: /bin/ls, args: [-l, /tmp], timeout: 30, shell: true, env: [LANG=C, 'A=$(b)'], cwd: /tmp",
             "commands: /bin/ls, args: '-l /tmp', env: {LANG: C}",
             "packages: openssh-server, policy: present, module: apt, version: '1:2', architecture: amd64",
             "processes: sshd, count: {min: 1, max: 5}, signals: [term, kill], restart_class: sshd_down",
             "methods: hardening, args: ['@(list)', x]",
             "methods: hardening, classes: {repaired: motd_changed}",
             "reports: hello, to_file: /tmp/x",
             "access: delta, resource: query, admit_keys: [SHA=0], admit_ips: [127.0.0.1], deny_keys: []",
             "access: collect_calls, resource: context, admit_keys: '@(hubs)'",
             "access: value, resource: literal, handle: site_network",
             "access: delta, resource: query, report_data_select: {metatags_include: [inventory], metatags_exclude: "
             "[x], promise_handle_include: [a], promise_handle_exclude: [b], monitoring_include: ['cpu.*'], "
             "monitoring_exclude: []}",
         }) {
        EXPECT_EQ(OfPromise(text), "accepted") << text;
    }
}

TEST(PolicySchema, WhatNoAttributeIsIsRefused)
{
    const Refused table[] = {
        {"vars: x, string: a, strin: b", "1:22: unknown attribute 'strin' of promise type 'vars'"},
        {"vars: x, string: a, scope: bundle", "1:22: unknown attribute 'scope' of promise type 'vars'"},
        {"files: /x, resource: query", "1:13: unknown attribute 'resource' of promise type 'files'"},
        {"files: /x, perms: {mod: 1}", "1:21: unknown attribute 'mod' of 'perms'"},
        {"files: /x, changes: {diffs: yes}", "1:23: unknown attribute 'diffs' of 'changes'"},
        {"files: /x, copy_from: {source: /y, from: z}", "1:37: unknown attribute 'from' of 'copy_from'"},
        {"files: /x, depth_search: {levels: 1}", "1:28: unknown attribute 'levels' of 'depth_search'"},
        {"processes: x, count: {least: 1}", "1:24: unknown attribute 'least' of 'count'"},
        {"files: /x, classes: {done: y}", "1:23: unknown attribute 'done' of 'classes'"},
        {"access: delta, resource: query, report_data_select: {tags: [x]}",
         "1:55: unknown attribute 'tags' of 'report_data_select'"},
        {"access: delta, resource: query, metatags_include: [x]",
         "1:34: unknown attribute 'metatags_include' of promise type 'access'"},
    };
    for (const Refused &row : table) { EXPECT_EQ(OfPromise(row.text), row.complaint) << row.text; }
}

TEST(PolicySchema, WhatAnAttributeCannotHoldIsRefused)
{
    const Refused table[] = {
        {"vars: x, string: [a]", "1:19: 'string' must be a text"},
        {"vars: x, string: {a: b, c: d}", "1:19: 'string' takes no map but the call of one function"},
        {"vars: x, string: {}", "1:19: 'string' takes no map but the call of one function"},
        {"vars: x, string: {ldapval: [a]}", "1:20: unknown function 'ldapval'"},
        {"vars: x, string: {readfile: /x}", "1:30: function 'readfile' takes a list of arguments"},
        {"vars: x, string: {readfile: [[a]]}", "1:31: an argument of function 'readfile' must be a text"},
        {"vars: x, int: 1.5", "1:16: 'int' must be a whole number, not '1.5'"},
        {"vars: x, int: ''", "1:16: 'int' must be a whole number, not ''"},
        {"vars: x, int: 99999999999999999999", "1:16: 'int' must be a whole number, not '99999999999999999999'"},
        {"vars: x, real: one", "1:17: 'real' must be a number, not 'one'"},
        {"vars: x, slist: a", "1:18: 'slist' must be a list"},
        {"vars: x, slist: [a, [b]]", "1:22: an item of 'slist' must be a text"},
        {"vars: x, slist: [{readfile: [x]}]", "1:19: an item of 'slist' must be a text"},
        {"vars: x, slist: {nosuch: [a]}", "1:19: unknown function 'nosuch'"},
        {"vars: x, ilist: [1, x]", "1:22: 'ilist' must be a whole number, not 'x'"},
        {"vars: x, rlist: [x]", "1:19: 'rlist' must be a number, not 'x'"},
        {"vars: x, string: a, meta: b", "1:28: 'meta' must be a list of texts"},
        {"vars: x, string: a, meta: [[b]]", "1:29: an item of 'meta' must be a text"},
        {"vars: x, string: a, handle: [b]", "1:30: 'handle' must be a text"},
        {"vars: x, string: a, comment: {b: c}", "1:31: 'comment' must be a text"},
        {"vars: x, string: a, promisees: {b: c}", "1:33: 'promisees' must be a text"},
        {"vars: x, string: a, if: 'a..b'", "1:26: 'if' must be a class expression, not 'a..b'"},
        {"vars: x, string: a, unless: ''", "1:30: 'unless' must be a class expression, not ''"},
        {"vars: x, string: a, classes: motd", "1:31: 'classes' must be a map"},
        {"vars: x, string: a, classes: {kept: {a: b}}", "1:38: 'kept' of 'classes' cannot be a map"},
        {"classes: c, expression: web-server", "1:26: 'expression' must be a class expression, not 'web-server'"},
        {"classes: c, expression: [a]", "1:26: 'expression' must be a class expression"},
        {"classes: c, and: [a, 'b.']", "1:23: 'and' must be a class expression, not 'b.'"},
        {"classes: c, or: [{nosuch: [a]}]", "1:20: unknown function 'nosuch'"},
        {"classes: c, not: a, scope: here", "1:29: 'scope' must be one of: bundle namespace"},
        {"files: /x, create: maybe", "1:21: 'create' must be true or false, not 'maybe'"},
        {"files: /x, create: True", "1:21: 'create' must be true or false, not 'True'"},
        {"files: /x, perms: 0644", "1:20: 'perms' must be a map"},
        {"files: /x, perms: {mode: 0888}", "1:27: 'mode' must be one to four octal digits, not '0888'"},
        {"files: /x, perms: {mode: 00644}", "1:27: 'mode' must be one to four octal digits, not '00644'"},
        {"files: /x, perms: {mode: {readfile: [x]}}", "1:27: 'mode' of 'perms' cannot be a map"},
        {"files: /x, depth_search: deep", "1:27: 'depth_search' must be true or false, not 'deep'"},
        {"files: /x, depth_search: {depth: 0}", "1:35: 'depth' must be a whole number from 1 to 128, not '0'"},
        {"files: /x, depth_search: {depth: 129}", "1:35: 'depth' must be a whole number from 1 to 128, not '129'"},
        {"files: /x, copy_from: {verify: yes}", "1:24: 'copy_from' needs a 'source'"},
        {"files: /x, copy_from: {source: /y, backup: maybe}", "1:45: 'backup' must be one of: true false timestamp"},
        {"commands: /x, timeout: -1", "1:25: 'timeout' must be a whole number from 0 to 2147483647, not '-1'"},
        {"commands: /x, timeout: 2147483648",
         "1:25: 'timeout' must be a whole number from 0 to 2147483647, not '2147483648'"},
        {"commands: /x, timeout: [1]", "1:25: 'timeout' must be a whole number from 0 to 2147483647"},
        {"commands: /x, env: [LANG]", "1:22: 'LANG' is no NAME=value"},
        {"commands: /x, env: ['=C']", "1:22: '=C' is no NAME=value"},
        {"commands: /x, env: {A-B: C}", "1:22: 'A-B' is no name of an environment variable"},
        {"commands: /x, env: {A: [C]}", "1:25: an environment variable must be a text"},
        {"packages: x, policy: latest", "1:23: 'policy' must be one of: present absent"},
        {"packages: x, policy: present absent", "1:23: 'policy' must be one of: present absent"},
        {"packages: x, policy: ''", "1:23: 'policy' must be one of: present absent"},
        {"processes: x, count: {min: few}", "1:29: 'min' must be a whole number from 0 to 2147483647, not 'few'"},
        {"access: x, resource: file", "1:23: 'resource' must be one of: query literal context"},
        {"access: x, resource: query, admit_keys: SHA=0", "1:42: 'admit_keys' must be a list"},
        {"access: x, resource: query, report_data_select: [a]", "1:50: 'report_data_select' must be a map"},
        {"access: x, resource: query, report_data_select: {metatags_include: x}",
         "1:69: 'metatags_include' must be a list of texts"},
    };
    for (const Refused &row : table) { EXPECT_EQ(OfPromise(row.text), row.complaint) << row.text; }
}

TEST(PolicySchema, APromiserIsATextThatSaysSomething)
{
    const Refused table[] = {
        {"files: [/x]", "1:9: the promiser of 'files' must be a text"},
        {"reports: {a: b}", "1:11: the promiser of 'reports' must be a text"},
        {"reports: ''", "1:11: the promiser of 'reports' is empty"},
        {"commands: '  '", "1:12: the promiser of 'commands' is empty"},
        {"vars: a-b, string: x", "1:8: 'a-b' is no name of a variable"},
        {"vars: 'a[b', string: x", "1:8: 'a[b' is no name of a variable"},
        {"vars: '[b]', string: x", "1:8: '[b]' is no name of a variable"},
        {"vars: main.x, string: x", "1:8: 'main.x' is no name of a variable"},
        {"files: etc/motd", "1:9: 'etc/motd' is no absolute path"},
    };
    for (const Refused &row : table) { EXPECT_EQ(OfPromise(row.text), row.complaint) << row.text; }
}

TEST(PolicySchema, AVariableHasExactlyOneValue)
{
    EXPECT_EQ(OfPromise("vars: x"),
              "1:1: a promise of type 'vars' needs one of string, int, real, slist, ilist, rlist, data");
    EXPECT_EQ(OfPromise("vars: x, string: a, int: 1"),
              "1:22: 'int' beside 'string': a promise of type 'vars' has one of string, int, real, slist, ilist, "
              "rlist, data");
}

TEST(PolicySchema, AClassHasExactlyOneExpression)
{
    EXPECT_EQ(OfPromise("classes: x, scope: bundle"),
              "1:1: a promise of type 'classes' needs one of expression, and, or, not");
    EXPECT_EQ(OfPromise("classes: x, not: a, and: [b]"),
              "1:22: 'and' beside 'not': a promise of type 'classes' has one of expression, and, or, not");
}

TEST(PolicySchema, AnAccessPromiseSaysWhatItIsAbout)
{
    EXPECT_EQ(OfPromise("access: x, admit_keys: [a]"), "1:1: a promise of type 'access' needs a 'resource'");
    EXPECT_EQ(OfPromise("access: x, resource: literal"), "1:1: a literal needs a 'handle' under which it is published");
    EXPECT_EQ(OfPromise("access: x, resource: literal, handle: " + std::string(1024, 'h')), "accepted");
    for (const std::string &handle : {std::string(1025, 'h'), std::string("''"), std::string("\"a\\nb\"")}) {
        EXPECT_EQ(OfPromise("access: x, resource: literal, handle: " + handle),
                  "1:40: a 'handle' has 1 to 1024 bytes and no control characters");
    }
    EXPECT_EQ(OfPromise("access: x, resource: literal, handle: '$(name)'"), "accepted") << "known when it is evaluated";
    EXPECT_EQ(OfPromise("access: collect_call, resource: context"),
              "1:10: 'collect_call' is no context: there is collect_calls");
    EXPECT_EQ(OfPromise("access: '$(name)', resource: context"), "accepted");
}

TEST(PolicySchema, TruthValuesReadAsTrueAndFalse)
{
    YamlNode node = Tree("{files: /x, create: yes, delete: no, changes: {report_diffs: yes}, comment: yes}");
    ASSERT_EQ(Shown(veltrane::CheckPromise("files", &node)), "accepted");
    EXPECT_EQ(node.Find("create")->text, "true");
    EXPECT_EQ(node.Find("delete")->text, "false");
    EXPECT_EQ(node.Find("changes")->Find("report_diffs")->text, "true");
    EXPECT_EQ(node.Find("comment")->text, "yes");
}

TEST(PolicySchema, EveryControlAttributeIsTaken)
{
    for (const char *version : {"classic", "tls", "cookie", "filestream", "latest", "1", "2", "3", "4"}) {
        EXPECT_EQ(Control("common", std::string("protocol_version: ") + version), "accepted") << version;
    }
    EXPECT_EQ(Control("common", "package_inventory: [apt, my-module], lastseen_expire_after: 604800"), "accepted");
    EXPECT_EQ(Control("agent", "report_class_log: yes"), "accepted");
    EXPECT_EQ(Control("agent", "log_limit: 4096"), "accepted");
    EXPECT_EQ(Control("agent", "log_limit: 2147483647"), "accepted");
    EXPECT_EQ(Control("server", "listen: true, call_collect_interval: 0, dump_reports: no, max_connections: 1"),
              "accepted");
}

TEST(PolicySchema, AControlAttributeThatIsWrongIsRefused)
{
    const struct {
        const char *section;
        const char *text;
        const char *complaint;
    } table[] = {
        {"common", "package_inventori: [apt]",
         "1:2: unknown attribute 'package_inventori' of control section 'common'"},
        {"common", "listen: true", "1:2: unknown attribute 'listen' of control section 'common'"},
        {"common", "package_inventory: apt", "1:21: 'package_inventory' must be a list of package modules"},
        {"common", "package_inventory: ['a,b']", "1:22: 'a,b' is no name of a package module"},
        {"common", "package_inventory: ['']", "1:22: '' is no name of a package module"},
        {"common", "protocol_version: newest",
         "1:20: 'protocol_version' must be one of: classic tls cookie filestream latest 1 2 3 4"},
        {"common", "lastseen_expire_after: a week",
         "1:25: 'lastseen_expire_after' must be a whole number from 0 to 2147483647, not 'a week'"},
        {"common", "lastseen_expire_after: '$(x)'", "1:25: a control attribute holds no variables"},
        {"common", "package_inventory: ['@(x)']", "1:21: a control attribute holds no variables"},
        {"agent", "report_class_log: on", "1:20: 'report_class_log' must be true or false, not 'on'"},
        {"agent", "log_limit: 4095", "1:13: 'log_limit' must be a whole number from 4096 to 2147483647, not '4095'"},
        {"agent", "log_limit: 10M", "1:13: 'log_limit' must be a whole number from 4096 to 2147483647, not '10M'"},
        {"agent", "report_class_log: {readfile: [x]}", "1:20: a control attribute cannot be a map"},
        {"server", "max_connections: 0", "1:19: 'max_connections' must be a whole number from 1 to 65535, not '0'"},
        {"server", "max_connections: 2.5", "1:19: 'max_connections' must be a whole number from 1 to 65535, not '2.5'"},
    };
    for (const auto &row : table) { EXPECT_EQ(Control(row.section, row.text), row.complaint) << row.text; }
}

TEST(PolicySchema, AControlSectionIsAMap)
{
    YamlNode node = Tree("[a]");
    EXPECT_EQ(Shown(veltrane::CheckControlSection("agent", &node)), "1:1: control section 'agent' must be a map");
}

TEST(PolicySchema, AServiceIsAnnouncedInAFileWithAWholePath)
{
    EXPECT_EQ(Control("server", "service_announcement: /etc/services/hub.service"), "accepted");
    for (const std::string path : {"hub.service", "''", "[/a]"}) {
        EXPECT_EQ(Control("server", "service_announcement: " + path),
                  "1:24: 'service_announcement' must be an absolute path");
    }
}

}  // namespace
