// The plug-in's identity: versions, edition classes and variables, the console's prefix, and the place where built-in
// paths meet the configured work directory. Nothing here keeps state.
#include "libvtenterprise/vtenterprise.h"

#include <cstdio>
#include <cstring>

#include <veltrane/eval_context.h>
#include <veltrane/globals.h>
#include <veltrane/known_dirs.h>
#include <veltrane/logging.h>
#include <veltrane/string_lib.h>
#include <veltrane/writer.h>

#include "libvtenterprise/entry_points_real.h"

#define VT_ENTERPRISE_VERSION "3.27.0"

namespace {

constexpr char kBuiltInWorkDir[] = "/var/veltrane";
constexpr char kInventoryTags[] = "inventory,attribute_name=none,source=agent";

void PutVersionVariable(EvalContext *ctx, const char *name, const char *tags)
{
    // A name and a type of ours are never refused.
    (void)EvalContextVariablePutSpecial(ctx, SPECIAL_SCOPE_SYS, name, Vesk_Version(), VT_DATA_TYPE_STRING, tags);
}

void PutVersionClasses(EvalContext *ctx, const char *edition)
{
    char name[4096];
    snprintf(name, sizeof(name), "%s_%s", edition, CanonifyName(Vesk_Version()));
    CreateHardClassesFromCanonification(ctx, name, kInventoryTags);
}

}  // namespace

const char *Vesk_Version() { return VT_ENTERPRISE_VERSION; }

const char *Vesk_NameVersion() { return "Veltrane Enterprise " VT_ENTERPRISE_VERSION; }

const char *Vesk_LongState(char c)
{
    switch (c) {
        case 'c':
            return "Compliant";
        case 'r':
            return "Repaired";
        default:
            return "Not Compliant";
    }
}

void EnterpriseModuleTrick() {}

// This edition has no FIPS support: a host started in FIPS mode must stop at once rather than run without it.
void Vesk_Initialize__real(EvalContext *ctx) noexcept
{
    if (FIPS_MODE) {
        FatalError(ctx, "This software version has not been built with FIPS mode support");
    }
}

void GenericAgentAddEditionClasses__real(EvalContext *ctx) noexcept
{
    EvalContextClassPutHard(ctx, "vesk_edition", "source=agent");
    EvalContextClassPutHard(ctx, "enterprise_edition", kInventoryTags);
}

// The variable of the code name is kept for old policy alone, hence "deprecated"; its classes stay in the inventory
// like the others.
void EnterpriseContext__real(EvalContext *ctx) noexcept
{
    PutVersionVariable(ctx, "vesk_version", "deprecated,source=agent");
    PutVersionVariable(ctx, "enterprise_version", "source=agent");
    PutVersionClasses(ctx, "vesk");
    PutVersionClasses(ctx, "enterprise");
}

void GenericAgentWriteVersion__real(Writer *w) noexcept
{
    WriterWriteF(w, "%s\n", NameVersion());
    WriterWriteF(w, "%s\n", Vesk_NameVersion());
}

const char *GetConsolePrefix__real() noexcept { return "enterprise"; }

// A plain prefix test without a separator, by long habit: /var/veltrane2/x becomes the work directory and "2/x".
bool TranslatePath__real(const char *from, char *to, size_t to_size) noexcept
{
    size_t length;
    if (StringStartsWith(from, kBuiltInWorkDir)) {
        length = static_cast<size_t>(snprintf(to, to_size, "%s%s", GetWorkDir(), from + strlen(kBuiltInWorkDir)));
    } else {
        length = StringCopy(from, to, to_size);
    }
    if (length < to_size) {
        return true;
    }
    Log(LOG_LEVEL_ERR, "File name was too long and got truncated: '%s'", to_size > 0 ? to : "");
    return false;
}
