// Times as texts. Any number is a time here, for any number can come from a peer: a year that has no four digits gives
// question marks instead of more bytes than the buffer has.
#include <veltrane/time_lib.h>

#include <cstdio>
#include <cstring>

namespace {

constexpr size_t kTextSize = 26;  // with its line feed and its zero
constexpr char kNoTime[] = "??? ??? ?? ??:??:?? ????\n";
static_assert(sizeof(kNoTime) == kTextSize);

}  // namespace

char *rpl_ctime(const time_t *t)
{
    static thread_local char storage[kTextSize];
    return vt_strtimestamp_local(*t, storage);
}

char *vt_strtimestamp_local(time_t t, char buffer[26])
{
    struct tm when;
    if (localtime_r(&t, &when) == nullptr || when.tm_year < 1000 - 1900 || when.tm_year > 9999 - 1900) {
        memcpy(buffer, kNoTime, kTextSize);
        return buffer;
    }
    strftime(buffer, kTextSize, "%a %b %e %H:%M:%S %Y\n", &when);
    return buffer;
}
