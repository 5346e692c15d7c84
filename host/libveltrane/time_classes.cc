// The classes that tell the time.
#include "libveltrane/time_classes.h"

#include <cstdio>

#include <veltrane/eval_context.h>
#include <veltrane/item_lib.h>

namespace veltrane {

namespace {

constexpr const char *kTags = "time_based,source=agent";

std::string Numbered(const char *prefix, int number, int digits)
{
    char text[32];
    snprintf(text, sizeof(text), "%s%0*d", prefix, digits, number);
    return text;
}

}  // namespace

std::vector<std::string> TimeClassNames(const struct tm &time)
{
    const std::string hour = Numbered("Hr", time.tm_hour, 2);
    const std::string quarter = "Q" + std::to_string(time.tm_min / 15 + 1);
    const int five = time.tm_min / 5 * 5;
    const int year = time.tm_year + 1900;
    return {
        hour,
        Numbered("Min", time.tm_min, 2),
        Numbered("Min", five, 2) + Numbered("_", (five + 5) % 60, 2),
        quarter,
        hour + "_" + quarter,
        "Day" + std::to_string(time.tm_mday),
        MONTH_TEXT[time.tm_mon],
        "Yr" + std::to_string(year),
        "Lcycle_" + std::to_string(year % 3),
        DAY_TEXT[(time.tm_wday + 6) % 7],  // the table begins with Monday
        SHIFT_TEXT[time.tm_hour / 6],
    };
}

void PutTimeClasses(EvalContext *ctx, time_t now)
{
    struct tm local {};
    struct tm utc {};
    if (localtime_r(&now, &local) == nullptr || gmtime_r(&now, &utc) == nullptr) {
        return;  // a year beyond what struct tm holds
    }
    for (const std::string &name : TimeClassNames(local)) { EvalContextClassPutHard(ctx, name.c_str(), kTags); }
    for (const std::string &name : TimeClassNames(utc)) {
        EvalContextClassPutHard(ctx, ("GMT_" + name).c_str(), kTags);
    }
}

}  // namespace veltrane
