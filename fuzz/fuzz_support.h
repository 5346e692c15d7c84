// What the fuzz targets share: silence, a work directory, the input as a file.
#ifndef FUZZ_FUZZ_SUPPORT_H
#define FUZZ_FUZZ_SUPPORT_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include <veltrane/known_dirs.h>
#include <veltrane/logging.h>

// The one work directory of a fuzzing process, removed at its end. Made at the first call; nothing is logged from then
// on.
inline const std::string &FuzzWorkDirectory()
{
    struct Place {
        Place()
        {
            std::string name = (std::filesystem::temp_directory_path() / "veltrane-fuzz-XXXXXX").string();
            if (mkdtemp(name.data()) == nullptr) {
                std::abort();
            }
            path = name;
            LogSetOutput(nullptr, false);
            SetWorkDir(path.c_str());
            if (!MakeWorkDirs()) {
                std::abort();
            }
        }
        ~Place()
        {
            std::error_code ignored;
            std::filesystem::remove_all(path, ignored);
        }
        std::string path;
    };
    static const Place place;
    return place.path;
}

// The input as the bytes of a file, rewritten at each call.
inline void WriteInput(const std::string &path, const uint8_t *data, size_t size)
{
    FILE *file = std::fopen(path.c_str(), "w");
    if (file == nullptr || std::fwrite(data, 1, size, file) != size || std::fclose(file) != 0) {
        std::abort();
    }
}

// The same as a file below the work directory; the path is valid to the end.
inline const std::string &InputAsFile(const uint8_t *data, size_t size)
{
    static const std::string path = FuzzWorkDirectory() + "/input";
    WriteInput(path, data, size);
    return path;
}

// The same as a file that a program has in its state directory.
inline void InputAsStateFile(const char *name, const uint8_t *data, size_t size)
{
    WriteInput(FuzzWorkDirectory() + "/state/" + name, data, size);
}

// What must hold for any input.
inline void Require(bool holds)
{
    if (!holds) {
        std::abort();
    }
}

#endif
