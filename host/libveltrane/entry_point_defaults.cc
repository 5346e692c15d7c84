// What the host does itself at each framed entry point when no plug-in answers, in the order of entry_points.def.
//
// Most of it is nothing: an agent without the plug-in evaluates policy and leaves no reports.
#include "libveltrane/entry_point_defaults.h"

#include <openssl/evp.h>

#include <cstdio>
#include <cstring>
#include <utility>

#include <veltrane/alloc.h>
#include <veltrane/crypto.h>
#include <veltrane/eval_context.h>
#include <veltrane/globals.h>
#include <veltrane/logging.h>
#include <veltrane/set.h>
#include <veltrane/string_lib.h>
#include <veltrane/writer.h>

namespace veltrane {

namespace {

// The answer of every directory look-up: a failure.
void *NoDirectory()
{
    Log(LOG_LEVEL_ERR, "Directory look-ups need the enterprise plug-in");
    return nullptr;
}

}  // namespace

void Vesk_TrackExecutionDefault(const char *) {}
void ReportPatchesDefault(PackageManager *) {}
void GenerateReportsDefault(const GenericAgentConfig *, const EvalContext *) {}
void Vesk_NoteAgentExecutionPerformanceDefault(const char *, struct timespec) {}
void EvalContextSetupHubviewLogHookDefault(EvalContext *) {}
void EvalContextLogPromiseIterationOutcomeDefault(const EvalContext *, const Promise *, PromiseResult) {}
void TrackTotalComplianceDefault(PromiseResult, const Promise *) {}
void LogTotalComplianceDefault(const char *, int) {}

// The host's own checks have already run.
void AgentDiagnosticsRunAllChecksVeskDefault(const char *, Writer *, AgentDiagnosticsRunFunction,
                                             AgentDiagnosticsResultNewFunction)
{
}

PromiseResult LogFileChangeDefault(EvalContext *, const char *file, int, const Attributes *, const Promise *,
                                   CopyRegularFileFunction, const char *, DeleteCompressedArrayFunction)
{
    Log(LOG_LEVEL_VERBOSE, "Line differences of '%s' need the enterprise plug-in", file);
    return PROMISE_RESULT_NOOP;
}

void RegisterLiteralServerDataDefault(EvalContext *, const char *handle, const Promise *)
{
    Log(LOG_LEVEL_VERBOSE, "Literal '%s' is not served: it needs the enterprise plug-in", handle);
}

int ReturnLiteralDataDefault(EvalContext *, char *, char *recv)
{
    *recv = '\0';
    return 0;
}

bool ReturnCookiesDefault(ServerConnectionState *) { return false; }
bool ReturnQueryDataDefault(ServerConnectionState *, char *, int) { return false; }
void KeepReportDataSelectAccessPromiseDefault(const Promise *) {}
void CleanReportBookFilterSetDefault() {}

int SetServerListenStateDefault(EvalContext *, size_t queue_size, char *bind_address, bool server_listen,
                                InitServerFunction InitServerPtr)
{
    return server_listen ? InitServerPtr(queue_size, bind_address) : -1;
}

bool ReceiveCollectCallDefault(ServerConnectionState *)
{
    Log(LOG_LEVEL_ERR, "Collect calls need the enterprise plug-in");
    return false;
}

void FprintAvahiVeltraneTagDefault(FILE *fp)
{
    (void)fprintf(fp, "<name replace-wildcards=\"yes\" >Veltrane %s Policy Hub on %%h </name>\n", Version());
}

void CollectCallStartDefault(int interval)
{
    if (interval > 0) {
        Log(LOG_LEVEL_VERBOSE, "Collect calls need the enterprise plug-in");
    }
}

void CollectCallStopDefault() {}
bool CollectCallHasPendingDefault() { return false; }
int CollectCallGetPendingDefault(int *) { return -1; }
void CollectCallMarkProcessedDefault() {}

bool VTTestD_ReturnQueryDataDefault(ServerConnectionState *, char *) { return false; }

void Vesk_InitializeDefault(EvalContext *) {}
const char *GetConsolePrefixDefault() { return "veltrane"; }

bool TranslatePathDefault(const char *from, char *to, size_t to_size)
{
    return StringCopy(from, to, to_size) < to_size;
}

const EVP_CIPHER *VeltraneCipherDefault(char) { return EVP_bf_cbc(); }
int VtSessionKeySizeDefault(char) { return 16; }
char VtEnterpriseOptionsDefault() { return 'c'; }

char *GetRemoteScalarDefault(EvalContext *, char *, char *, const char *, int, char *recvbuffer)
{
    Log(LOG_LEVEL_ERR, "Remote scalars need the enterprise plug-in");
    memcpy(recvbuffer, "BAD:", sizeof("BAD:"));
    return recvbuffer;
}

int RetrieveUnreliableValueDefault(char *, char *, char *buffer)
{
    *buffer = '\0';
    return 0;
}

void CacheUnreliableValueDefault(char *, char *, char *) {}

void GenericAgentSetDefaultDigestDefault(HashMethod *digest, int *digest_len)
{
    *digest = HASH_METHOD_SHA256;
    *digest_len = VT_SHA256_LEN;
}

HashMethod GetBestFileChangeHashMethodDefault() { return HASH_METHOD_SHA256; }

void GenericAgentAddEditionClassesDefault(EvalContext *ctx)
{
    EvalContextClassPutHard(ctx, "core_edition", "inventory,attribute_name=none,source=agent");
}

void GenericAgentWriteVersionDefault(Writer *w) { WriterWriteF(w, "%s\n", NameVersion()); }
void EnterpriseContextDefault(EvalContext *) {}

void Vesk_ClassHistoryEnableDefault(StringSet **list, bool enable)
{
    if (!enable) {
        StringSetDestroy(std::exchange(*list, nullptr));
    } else if (*list == nullptr) {
        *list = StringSetNew();
    }
}

void Vesk_ClassHistoryAddContextNameDefault(StringSet *list, const char *context_name)
{
    char *name = xstrdup(context_name);
    CanonifyNameInPlace(name);
    StringSetAdd(list, name);
}

size_t EnterpriseGetMaxVtHubProcessesDefault() { return 0; }
void CheckAndSetHAStateDefault(const char *, EvalContext *) {}
void ReloadHAConfigDefault() {}

bool ListHostsWithFieldDefault(EvalContext *, Rlist **, char *, char *, int)
{
    Log(LOG_LEVEL_ERR, "Listing hosts needs the enterprise plug-in on a hub");
    return false;
}

void *VtLDAPValueDefault(char *, char *, char *, char *, char *, char *) { return NoDirectory(); }
void *VtLDAPListDefault(char *, char *, char *, char *, char *, char *) { return NoDirectory(); }

void *VtLDAPArrayDefault(EvalContext *, const Bundle *, char *, char *, char *, char *, char *, char *)
{
    return NoDirectory();
}

void *VtRegLDAPDefault(EvalContext *, char *, char *, char *, char *, char *, char *, char *) { return NoDirectory(); }

}  // namespace veltrane
