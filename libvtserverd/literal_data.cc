#include "libvtserverd/literal_data.h"

#include <algorithm>
#include <cinttypes>
#include <cstring>
#include <ctime>

#include <veltrane/logging.h>
#include <veltrane/net.h>
#include <veltrane/owned.h>
#include <veltrane/policy.h>
#include <veltrane/records.h>
#include <veltrane/rval.h>

#include "libvtenterprise/entry_points_real.h"
#include "libvtenterprise/time_difference.h"

namespace {

using veltrane::DBHandlePtr;
using veltrane::VarRefPtr;

constexpr char kScope[] = "remote_access";
constexpr char kTags[] = "vte_internal,source=agent";
constexpr time_t kScalarLifetime = 900;  // seconds
constexpr size_t kLongestValue = VT_BUFSIZE - 1;

// Somebody else's record: its text may lack its zero.
void CopyScalar(const PersistentScalar &scalar, char *buffer)
{
    const size_t length = std::min(strnlen(scalar.rval, sizeof(scalar.rval)), kLongestValue);
    memcpy(buffer, scalar.rval, length);
    buffer[length] = '\0';
    buffer[kLongestValue] = '\0';
}

// A value that fills the buffer gets no zero: the caller's buffer ends in one.
void CopyLiteral(const char *value, char *recv)
{
    const size_t length = strnlen(value, kLongestValue);
    memcpy(recv, value, length);
    if (length < kLongestValue) {
        recv[length] = '\0';
    }
}

}  // namespace

void RegisterLiteralServerData__real(EvalContext *ctx, const char *handle, const Promise *pp) noexcept
{
    const VarRefPtr ref(VarRefParseFromScope(handle, kScope));
    (void)EvalContextVariablePut(ctx, ref.get(), pp->promiser, VT_DATA_TYPE_STRING, kTags);  // a text is always taken
}

bool Vesk_GetPersistentScalar(const char *handle, char *buffer) noexcept
{
    buffer[0] = '\0';
    const time_t now = time(nullptr);
    DBHandle *opened = nullptr;
    if (!OpenDB(&opened, dbid_scalars)) {
        Log(LOG_LEVEL_VERBOSE, "Unable to open db while looking for persistent scalar");
        return false;
    }
    const DBHandlePtr db(opened);
    PersistentScalar scalar = {};
    if (!ReadDB(db.get(), handle, &scalar, sizeof(scalar))) {
        Log(LOG_LEVEL_VERBOSE, "Persistent scalar was not found, so looking for default");
        return false;
    }
    const time_t age = TimeDifference(now, scalar.time);
    if (age > kScalarLifetime) {
        (void)DeleteDB(db.get(), handle);  // one that stays is refused again
        Log(LOG_LEVEL_VERBOSE, "Persistent scalar timed out (%jd too late), so looking for default",
            static_cast<intmax_t>(age));
        return false;
    }
    CopyScalar(scalar, buffer);
    return true;
}

int ReturnLiteralData__real(EvalContext *ctx, char *handle, char *recv) noexcept
{
    const VarRefPtr ref(VarRefParseFromScope(handle, kScope));
    if (Vesk_GetPersistentScalar(handle, recv)) {
        Log(LOG_LEVEL_VERBOSE, "Found a persistent scalar with handle '%s' authorized for remote access '%s'", handle,
            recv);
        return 1;
    }
    DataType type = VT_DATA_TYPE_NONE;
    const void *value = EvalContextVariableGet(ctx, ref.get(), &type);
    if (type == VT_DATA_TYPE_NONE) {
        return 0;
    }
    if (DataTypeToRvalType(type) != RVAL_TYPE_SCALAR) {  // an empty list has no value, and is none of ours either
        Log(LOG_LEVEL_VERBOSE, "Found nothing with handle '%s' authorized for remote access", handle);
        return 0;
    }
    CopyLiteral(static_cast<const char *>(value), recv);
    Log(LOG_LEVEL_VERBOSE, "Found a literal string with handle %s authorized for remote access '%.*s'", handle,
        static_cast<int>(kLongestValue), recv);
    return 1;
}
