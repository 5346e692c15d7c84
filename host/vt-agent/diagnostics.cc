// The host's checks of its installation, and the untracked indexes kept over those of the plug-in.
#include "vt-agent/diagnostics.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <optional>
#include <string>

#include <veltrane/dbm_api.h>
#include <veltrane/diagnostics.h>
#include <veltrane/dir.h>
#include <veltrane/entry_points.h>
#include <veltrane/errors.h>
#include <veltrane/file_lib.h>
#include <veltrane/known_dirs.h>
#include <veltrane/logging.h>
#include <veltrane/owned.h>
#include <veltrane/string_lib.h>
#include <veltrane/writer.h>

#include "libveltrane/evaluator.h"
#include "libveltrane/keys.h"
#include "libveltrane/replace_file.h"
#include "libveltrane/safe_path.h"

namespace veltrane {

namespace {

constexpr size_t kIndexLimit = size_t{1} << 30;  // bytes; an index is about the state of one host

// "" is success.
AgentDiagnosticsResult ResultOf(const std::string &reason)
{
    return AgentDiagnosticsResultNew(reason.empty(), SafeStringDuplicate(reason.c_str()));
}

bool IsThere(const std::string &path)
{
    struct stat status {};
    return lstat(path.c_str(), &status) == 0;
}

AgentDiagnosticsResult CheckWorkDirectory(const char *workdir) { return ResultOf(WhyUnsafe(workdir)); }

AgentDiagnosticsResult CheckPolicy(const char *)
{
    const std::string path = std::string(GetInputDir()) + "/promises.vt";
    return ResultOf(ReadPolicy(path) != nullptr ? "" : "'" + path + "' is missing, or not as it must be");
}

// The pair is made by the first program that needs it; looking must not do that.
AgentDiagnosticsResult CheckKeys(const char *workdir)
{
    std::string reason;
    if (IsThere(std::string(workdir) + "/keys/host.priv")) {
        (void)OwnKey(&reason);
    }
    return ResultOf(reason);
}

// A database that is not there is made when something is put into it.
AgentDiagnosticsResult CheckDatabases(const char *)
{
    for (const dbid id :
         {dbid_performance, dbid_lastseen, dbid_scalars, dbid_cache, dbid_agent_execution, dbid_cookies}) {
        const TextPtr path(DBIdToPath(id));
        DBHandle *opened = nullptr;
        if (IsThere(path.get()) && !OpenDB(&opened, id)) {
            return ResultOf("'" + std::string(path.get()) + "': " + GetErrorStr());
        }
        const DBHandlePtr db(opened);
    }
    return ResultOf("");
}

const AgentDiagnosticCheck kChecks[] = {
    {"Work directory is safe from other users", CheckWorkDirectory},
    {"Key pair is in order", CheckKeys},
    {"Policy can be read", CheckPolicy},
    {"Databases can be opened", CheckDatabases},
    {nullptr, nullptr},
};

// The untracked indexes, which say what filters hide from the hub, by their paths.
class UntrackedIndexes {
  public:
    UntrackedIndexes() : before_(Read()) {}

    // Put back what has changed since. What a server daemon wrote meanwhile stays behind what was there: of two entries
    // with one key the later counts. False after error lines for what could not be put back.
    bool PutBack() const
    {
        bool is_done = true;
        for (const auto &[path, bytes] : Read()) {
            const auto found = before_.find(path);
            if (found == before_.end()) {
                is_done = (!bytes.empty() || Drop(path)) && is_done;
            } else if (bytes != found->second) {
                is_done = Write(path, found->second + bytes) && is_done;
            }
        }
        return is_done;
    }

  private:
    using Files = std::map<std::string, std::string>;

    static Files Read()
    {
        Files files;
        const std::string directory = std::string(GetStateDir()) + "/untracked";
        const DirPtr dir(DirOpen(directory.c_str()));
        while (const struct dirent *entry = dir != nullptr ? DirRead(dir.get()) : nullptr) {
            const std::string path = directory + "/" + entry->d_name;
            if (path.ends_with(".idx")) {
                const WriterPtr bytes(FileRead(path.c_str(), kIndexLimit, nullptr));
                if (bytes != nullptr) {
                    files[path].assign(StringWriterData(bytes.get()), StringWriterLength(bytes.get()));
                }
            }
        }
        return files;
    }

    static bool Drop(const std::string &path)
    {
        return unlink(path.c_str()) == 0 || Failed(CouldNot("remove", path, "unlink"));
    }

    static bool Write(const std::string &path, const std::string &bytes)
    {
        const Trouble trouble = ReplaceFile(path, bytes, 0600);
        return !trouble || Failed(trouble);
    }

    static bool Failed(const Trouble &trouble)
    {
        Log(LOG_LEVEL_ERR, "An untracked index is not as it was before the diagnostics: %s", trouble->c_str());
        return false;
    }

    const Files before_;
};

}  // namespace

bool RunDiagnostics()
{
    Writer *const writer = StringWriter();
    AgentDiagnosticsRun(GetWorkDir(), kChecks, writer);

    const UntrackedIndexes indexes;
    AgentDiagnosticsRunAllChecksVesk(GetWorkDir(), writer, AgentDiagnosticsRun, AgentDiagnosticsResultNew);
    const bool are_back = indexes.PutBack();

    const TextPtr lines(StringWriterClose(writer));
    return fputs(lines.get(), stdout) >= 0 && fflush(stdout) == 0 && are_back;
}

}  // namespace veltrane
