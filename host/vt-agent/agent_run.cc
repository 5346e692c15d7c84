// One run of the agent.
//
// The order is fixed: start, lock, the ends of what only grows, plug-in, then each policy for itself: context, bundles,
// reports. The context is whole until the reports of its policy are written.
#include "vt-agent/agent_run.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <veltrane/entry_points.h>
#include <veltrane/errors.h>
#include <veltrane/eval_context.h>
#include <veltrane/file_lib.h>
#include <veltrane/generic_agent.h>
#include <veltrane/globals.h>
#include <veltrane/known_dirs.h>
#include <veltrane/logging.h>
#include <veltrane/measure.h>
#include <veltrane/net.h>
#include <veltrane/owned.h>
#include <veltrane/string_lib.h>

#include "libveltrane/evaluator.h"
#include "libveltrane/log_limits.h"
#include "libveltrane/policy_control.h"
#include "vt-agent/bootstrap.h"
#include "vt-agent/commands.h"
#include "vt-agent/diagnostics.h"
#include "vt-agent/files_promise.h"
#include "vt-agent/packages_promise.h"
#include "vt-agent/processes_promise.h"
#include "vt-agent/reports.h"

namespace veltrane {

namespace {

constexpr int kRan = 0;
constexpr int kTrouble = 1;

// The kernel lock of the one agent that may work in this directory; it goes with the process, and with it alone: a lock
// of the file would stay a moment longer with a child that was just forked when the agent was killed.
bool LockAgent()
{
    const std::string path = std::string(GetStateDir()) + "/locks/agent.lock";
    const int fd = safe_open(path.c_str(), O_RDWR | O_CREAT);
    if (fd < 0) {
        Log(LOG_LEVEL_ERR, "Could not open '%s'. (open: %s)", path.c_str(), GetErrorStr());
        return false;
    }
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;  // from 0, length 0: the whole file
    if (fcntl(fd, F_SETLK, &lock) != 0) {
        Log(LOG_LEVEL_NOTICE, "Another agent is running in this work directory");
        close(fd);
        return false;
    }
    return true;  // fd stays open to the end
}

std::string InputPath(const std::string &file)
{
    const bool as_it_stands = file[0] == '/' || StringStartsWith(file.c_str(), "./");
    return as_it_stands ? file : std::string(GetInputDir()) + "/" + file;
}

bool IsThere(const std::string &path)
{
    struct stat status {};
    return lstat(path.c_str(), &status) == 0;
}

Evaluation AgentEvaluation(PackageKeeper *packages, ChangeWatch *watch)
{
    Evaluation evaluation;
    evaluation.actuators["commands"] = KeepCommandsPromise;
    evaluation.actuators["reports"] = KeepReportsPromise;
    evaluation.actuators["packages"] = [packages](EvalContext *ctx, const Promise *expanded) {
        return KeepPackagesPromise(packages, ctx, expanded);
    };
    evaluation.actuators["processes"] = KeepProcessesPromise;
    evaluation.actuators["files"] = [watch](EvalContext *ctx, const Promise *expanded) {
        return KeepFilesPromise(watch, ctx, expanded);
    };
    evaluation.outcome = [](EvalContext *ctx, const Promise *expanded, PromiseResult result) {
        EvalContextLogPromiseIterationOutcome(ctx, expanded, result);
        TrackTotalCompliance(result, expanded);
    };
    return evaluation;
}

// The plug-in's log hook is bound once a process, but each policy has a context of its own: while this lives, messages
// are collected for that one, before and afterwards for one under which nothing is evaluated.
class CollectedMessages {
  public:
    // Once, before the first policy.
    static void SetUp() { EvalContextSetupHubviewLogHook(AtRest()); }

    explicit CollectedMessages(EvalContext *ctx) { CollectFor(ctx); }
    ~CollectedMessages() { CollectFor(AtRest()); }
    CollectedMessages(const CollectedMessages &) = delete;
    CollectedMessages &operator=(const CollectedMessages &) = delete;

  private:
    // Lives as long as the binding does: to the end of the process.
    static EvalContext *AtRest()
    {
        static EvalContext *const at_rest = EvalContextNew();
        return at_rest;
    }

    static void CollectFor(EvalContext *ctx)
    {
        LoggingPrivContext *const bound = LoggingPrivGetContext();
        if (bound != nullptr) {  // no plug-in, no binding
            bound->param = ctx;
        }
    }
};

enum class Role { kMain, kUpdate };

// Tell what became of a policy's promises and of the machine. The context is still whole.
void ReportPolicy(GenericAgentConfig *config, const EvalContext *ctx, const Policy *policy, PackageKeeper *packages,
                  struct timespec start)
{
    LogTotalCompliance(policy->release_id != nullptr ? policy->release_id : "(not specified)", 0);
    Vesk_NoteAgentExecutionPerformance(config->input_file, start);
    Vesk_TrackExecution(config->input_file);
    ReportPatches(packages->Report(ctx).get());
    GenerateReports(config, ctx);
}

// Evaluate one policy and report it; false when it cannot be read or has no main bundle.
bool RunPolicy(const AgentOptions &options, const std::string &path, Role role = Role::kMain)
{
    const struct timespec start = BeginMeasure();
    Log(LOG_LEVEL_VERBOSE, "Policy '%s'", path.c_str());
    const PolicyPtr policy = ReadPolicy(path);
    if (policy == nullptr) {
        return false;
    }
    const bool log_classes =
        options.log_classes || StringEqual(PolicyControlScalar(policy.get(), "agent", "report_class_log"), "true");
    if (role == Role::kMain) {  // another policy always follows an update
        LimitLogs(StringToLongDefaultOnError(PolicyControlScalar(policy.get(), "agent", "log_limit"), kLogLimit));
    }
    const int kept = PR_KEPT;
    const int repaired = PR_REPAIRED;
    const int not_kept = PR_NOTKEPT;

    const EvalContextPtr ctx(EvalContextNew());
    const CollectedMessages collected(ctx.get());
    EvalContextClassHistoryEnable(ctx.get(), log_classes);
    SetUpContext(ctx.get(), policy.get());
    for (const std::string &name : options.define) {
        EvalContextClassPutSoft(ctx.get(), name.c_str(), "source=command_line");
    }
    PackageKeeper packages;
    ChangeWatch watch;
    if (!EvaluateBundles(ctx.get(), policy.get(), "agent", AgentEvaluation(&packages, &watch))) {
        return false;
    }
    Log(LOG_LEVEL_VERBOSE, "Promise iterations of '%s': %d kept, %d repaired, %d not kept", path.c_str(),
        PR_KEPT - kept, PR_REPAIRED - repaired, PR_NOTKEPT - not_kept);

    std::string input_file = path;
    GenericAgentConfig config{};
    config.input_file = input_file.data();
    config.agent_specific.report_class_log = log_classes;
    std::string bootstrap = options.bootstrap;
    config.agent_specific.bootstrap_argument = bootstrap.empty() ? nullptr : bootstrap.data();
    ReportPolicy(&config, ctx.get(), policy.get(), &packages, start);
    return true;
}

// Without a policy of the user's choice, each file has its role.
bool RunRoles(const AgentOptions &options)
{
    const std::string update = InputPath("update.vt");
    const std::string failsafe = InputPath("failsafe.vt");
    const bool updated = !IsThere(update) || RunPolicy(options, update, Role::kUpdate);
    const bool ran = RunPolicy(options, InputPath("promises.vt"));
    if (!ran && IsThere(failsafe)) {
        Log(LOG_LEVEL_NOTICE, "The main policy cannot be run: running '%s'", failsafe.c_str());
        RunPolicy(options, failsafe);
    }
    return updated && ran;
}

// The policy of a bootstrap, when there is one.
bool RunBootstrapPolicy(const AgentOptions &options)
{
    const std::string failsafe = InputPath("failsafe.vt");
    if (!options.file.empty()) {
        return RunPolicy(options, InputPath(options.file));
    }
    return !IsThere(failsafe) || RunPolicy(options, failsafe);
}

bool RunAll(const AgentOptions &options)
{
    if (!options.bootstrap.empty()) {
        const std::optional<HubAddress> hub = ParseHub(options.bootstrap);
        return hub.has_value() && Bootstrap(*hub, options.hub_key) && RunBootstrapPolicy(options);
    }
    return options.file.empty() ? RunRoles(options) : RunPolicy(options, InputPath(options.file));
}

int ShowVersion(const ProgramOptions &program)
{
    if (!program.workdir.empty()) {
        SetWorkDir(program.workdir.c_str());  // where the plug-in is looked for
    }
    Writer *const writer = StringWriter();
    GenericAgentWriteVersion(writer);
    const TextPtr text(StringWriterClose(writer));
    return fputs(text.get(), stdout) >= 0 && fflush(stdout) == 0 ? kRan : kTrouble;
}

}  // namespace

int RunAgent(const AgentOptions &options)
{
    if (options.show_version) {
        return ShowVersion(options.program);
    }
    if (!StartProgram(options.program) || !LockAgent()) {
        return kTrouble;
    }
    if (!options.diagnostics) {
        RepairLogTails();
    }
    {
        const EvalContextPtr ctx(EvalContextNew());
        Vesk_Initialize(ctx.get());
    }
    if (options.diagnostics) {
        return RunDiagnostics() ? kRan : kTrouble;
    }
    CollectedMessages::SetUp();
    const bool ran = RunAll(options);
    vtnet_Shut();
    return ran ? kRan : kTrouble;
}

}  // namespace veltrane
