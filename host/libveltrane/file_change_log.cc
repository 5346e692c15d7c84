#include "libveltrane/file_change_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include <veltrane/file_lib.h>
#include <veltrane/known_dirs.h>
#include <veltrane/owned.h>

#include "libveltrane/file_bytes.h"

namespace veltrane {

namespace {

constexpr size_t kLongestLine = 4000;  // with its end
constexpr size_t kLongestText = 1000;

// A text without line ends, at most so many bytes of whole characters.
std::string Fitted(std::string text, size_t most)
{
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c == '\n' || c == '\r'; }, ' ');
    if (text.size() > most) {
        text.resize(most);
        text.resize(WholeCharacters(text));
    }
    return text;
}

}  // namespace

std::string FileChangeLine(time_t t, const std::string &path, FileChange change, const std::string &text)
{
    const std::string before = std::to_string(t) + ",";
    const std::string after = std::string(",") + static_cast<char>(change) + "," + Fitted(text, kLongestText) + "\n";
    return before + Fitted(path, kLongestLine - before.size() - after.size()) + after;
}

Trouble AppendFileChanges(const std::string &lines)
{
    const std::string path = std::string(GetStateDir()) + "/" + kFileChangeLogName;
    Descriptor log(safe_open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK));  // a FIFO would hold us
    struct stat before {};
    if (!log.IsOpen() || fstat(log.Get(), &before) != 0) {
        return CouldNot("open", path, "open");
    }
    if (!S_ISREG(before.st_mode)) {
        return "'" + path + "' is " + KindOf(before) + ", not a file";
    }
    if (Trouble trouble = WriteAll(log.Get(), lines, path)) {
        (void)ftruncate(log.Get(), before.st_size);  // else the next run cuts off what is left of the last line
        return trouble;
    }
    return log.Close() ? std::nullopt : CouldNot("write", path, "close");
}

}  // namespace veltrane
