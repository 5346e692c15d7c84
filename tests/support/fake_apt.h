// Package programs of a test's own: dpkg-query and apt-get as scripts that show what files of the test say.
#ifndef TESTS_SUPPORT_FAKE_APT_H
#define TESTS_SUPPORT_FAKE_APT_H

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "libveltrane/apt_module.h"
#include "support/work_dir.h"

// A directory with
//   installed   what dpkg-query prints
//   updates     what a simulated upgrade prints
//   simulated   what a simulated installation prints
//   change      the shell commands of an installation or removal
//   calls       the arguments of each call of apt-get, a line a call
// which a test writes, or whose scripts it replaces.
class FakeApt {
  public:
    FakeApt()
    {
        Script("dpkg-query", "cat installed\n");
        Script("apt-get",
               "printf '%s\\n' \"$*\" >>calls\n"
               "case \"$*\" in\n"
               "-s*dist-upgrade) cat updates ;;\n"
               "-s*) cat simulated ;;\n"
               "*) . ./change ;;\n"
               "esac\n");
        for (const char *name : {"updates", "simulated", "change", "calls", "status"}) { Write(name, ""); }
        Installed({"bash 5.2.15-2+b8 amd64", "dpkg 1.21.22 amd64", "tzdata 2024a-0+deb12u1 all"});
        std::filesystem::create_directory(Path("lists"));
        Write("lists/archive_main_binary-amd64_Packages", "");
    }

    std::string Path(const std::string &name) const { return (directory.path / name).string(); }
    void Write(const std::string &name, const std::string &bytes) const { WriteFile(Path(name), bytes); }
    std::string Read(const std::string &name) const { return ReadFile(Path(name)); }

    // A shell script that stands in for a program and runs in this directory.
    void Script(const std::string &name, const std::string &commands) const
    {
        Write(name, "#!/bin/sh\ncd '" + directory.path.string() + "'\n" + commands);
        std::filesystem::permissions(Path(name), std::filesystem::perms::owner_all);
    }

    // What dpkg-query lists as installed, each "name version architecture".
    void Installed(const std::vector<std::string> &packages) const { Write("installed", Lines(packages)); }

    // The same, as soon as apt-get is asked to change something.
    void AfterChange(const std::vector<std::string> &packages) const
    {
        Write("after", Lines(packages));
        Write("change", "cp after installed\n");
    }

    veltrane::AptSettings Settings() const
    {
        veltrane::AptSettings settings;
        settings.dpkg_query = Path("dpkg-query");
        settings.apt_get = Path("apt-get");
        settings.package_lists = Path("lists");
        settings.package_status = Path("status");
        return settings;
    }

    TemporaryDirectory directory;

  private:
    static std::string Lines(const std::vector<std::string> &packages)
    {
        std::string lines;
        for (const std::string &package : packages) {
            std::istringstream words(package);
            std::string name;
            std::string version;
            std::string architecture;
            words >> name >> version >> architecture;
            lines += "installed\t" + name + "\t" + version + "\t" + architecture + "\n";
        }
        return lines;
    }
};

#endif
