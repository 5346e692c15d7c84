// A work directory of a test's own, gone when the test ends.
#ifndef TESTS_SUPPORT_WORK_DIR_H
#define TESTS_SUPPORT_WORK_DIR_H

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

#include <veltrane/known_dirs.h>

// An empty directory below the system's temporary one, removed with all it holds.
class TemporaryDirectory {
  public:
    TemporaryDirectory()
    {
        std::string name = (std::filesystem::temp_directory_path() / "veltrane-test-XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr) {
            throw std::runtime_error("no temporary directory");
        }
        path = name;
    }
    ~TemporaryDirectory()
    {
        std::error_code ignored;  // a test may have taken its permissions away; what can go, goes
        std::filesystem::remove_all(path, ignored);
    }
    TemporaryDirectory(const TemporaryDirectory &) = delete;
    TemporaryDirectory &operator=(const TemporaryDirectory &) = delete;

    std::filesystem::path path;
};

// The same as the host's work directory, with the directories that a program makes at its start.
class WorkDirectory : public TemporaryDirectory {
  public:
    WorkDirectory()
    {
        SetWorkDir(path.c_str());
        if (!MakeWorkDirs()) {
            throw std::runtime_error("no work directories");
        }
    }

    std::filesystem::path State(const std::string &name) const { return path / "state" / name; }
};

inline void WriteFile(const std::filesystem::path &path, const std::string &bytes)
{
    std::ofstream(path, std::ios::binary) << bytes;
}

// The bytes of a file; empty when there is none.
inline std::string ReadFile(const std::filesystem::path &path)
{
    std::ostringstream bytes;
    bytes << std::ifstream(path, std::ios::binary).rdbuf();
    return bytes.str();
}

#endif
