// The built library against the one list of what it exports: nothing missing, nothing beside it.
#include <dlfcn.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <functional>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::Contains;
using testing::IsEmpty;

namespace {

const std::string kPlugin = VT_TEST_LIB_DIR "/veltrane-enterprise.so";
const std::string kHostLibrary = VT_TEST_LIB_DIR "/libveltrane.so";
const std::string kList = VT_TEST_SOURCE_DIR "/../enterprise-plugin/exported_names.txt";

std::vector<std::string> ListedNames()
{
    std::vector<std::string> names;
    std::ifstream list(kList);
    for (std::string line; std::getline(list, line);) {
        if (!line.empty() && line[0] != '#') {
            names.push_back(line);
        }
    }
    return names;
}

std::vector<std::string> EntryPoints()
{
    return {
#define VT_ENTRY(R, returns, Name, parameters, arguments) #Name,
#include <veltrane/entry_points.def>
    };
}

// The dynamic symbols that a library defines.
std::set<std::string> DefinedNames(const std::string &library)
{
    struct Closer {
        void operator()(FILE *p) const { pclose(p); }
    };
    const std::unique_ptr<FILE, Closer> nm(
        popen(("nm -D --defined-only --format=posix '" + library + "'").c_str(), "r"));
    std::set<std::string> names;
    char line[4096];
    while (nm != nullptr && fgets(line, sizeof(line), nm.get()) != nullptr) {
        std::string name;
        std::istringstream(line) >> name;
        names.insert(name.substr(0, name.find('@')));
    }
    return names;
}

std::set<std::string> Without(std::set<std::string> names, const std::set<std::string> &others)
{
    for (const std::string &other : others) { names.erase(other); }
    return names;
}

// What the tools add to a library by themselves, not we: the linker's marks, a sanitizer's shadows of our tables.
bool IsOfTheTools(const std::string &name)
{
    return name == "_init" || name == "_fini" || name == "_edata" || name == "_end" || name == "__bss_start" ||
           name.rfind("__odr_asan", 0) == 0;
}

std::set<std::string> ExportedNames()
{
    std::set<std::string> names;
    for (const std::string &name : DefinedNames(kPlugin)) {
        if (!IsOfTheTools(name)) {
            names.insert(name);
        }
    }
    return names;
}

std::set<std::string> ExpectedNames()
{
    const std::vector<std::string> listed = ListedNames();
    std::set<std::string> names(listed.begin(), listed.end());
    for (const std::string &name : EntryPoints()) {
        names.insert(name + "__wrapper");
        names.insert(name + "__real");
    }
    return names;
}

}  // namespace

TEST(ExportedNames, TheListIsInByteOrderAndNamesEachOnce)
{
    const std::vector<std::string> names = ListedNames();
    ASSERT_THAT(names, Contains("GetExtensionLibraryVersion"));
    EXPECT_EQ(std::adjacent_find(names.begin(), names.end(), std::greater_equal<std::string>()), names.end());
}

TEST(ExportedNames, EveryListedNameIsExported) { EXPECT_THAT(Without(ExpectedNames(), ExportedNames()), IsEmpty()); }

TEST(ExportedNames, EveryExportedNameIsListed) { EXPECT_THAT(Without(ExportedNames(), ExpectedNames()), IsEmpty()); }

TEST(ExportedNames, NoNameOfTheHostLibraryIsExported)
{
    const std::set<std::string> of_the_host = DefinedNames(kHostLibrary);
    ASSERT_THAT(of_the_host, Contains("StringEqual"));
    std::set<std::string> both;
    for (const std::string &name : ExportedNames()) {
        if (of_the_host.count(name) != 0) {
            both.insert(name);
        }
    }
    EXPECT_THAT(both, IsEmpty());
}

TEST(ExportedNames, NoEntryPointIsExportedUnderItsPlainName)
{
    const std::set<std::string> exported = ExportedNames();
    for (const std::string &name : EntryPoints()) { EXPECT_EQ(exported.count(name), 0u) << name; }
}

TEST(ExportedNames, TheLibraryLoadsAndTellsItsVersion)
{
    void *plugin = dlopen(kPlugin.c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(plugin, nullptr) << dlerror();
    const auto version = reinterpret_cast<const char *(*)()>(dlsym(plugin, "GetExtensionLibraryVersion"));
    ASSERT_NE(version, nullptr);
    EXPECT_STREQ(version(), "3.27.0");
    dlclose(plugin);
}
