#include "libveltrane/query_border.h"

#include <algorithm>
#include <charconv>

namespace veltrane {

namespace {

// Not among them: "collect_call", which would end the process, and "error", which is no query.
constexpr std::string_view kTypes[] = {"delta", "rebase", "full"};

bool IsType(std::string_view text)
{
    for (const std::string_view type : kTypes) {
        if (text == type) {
            return true;
        }
    }
    return false;
}

// Digits only, so no sign, no blank and nothing negative; false when it exceeds 63 bits.
bool ParseTime(std::string_view text, int64_t *ret_time)
{
    if (text.empty() || text.find_first_not_of("0123456789") != std::string_view::npos) {
        return false;
    }
    int64_t value = 0;
    if (std::from_chars(text.data(), text.data() + text.size(), value).ec != std::errc()) {
        return false;
    }
    *ret_time = value;
    return true;
}

// The text up to the next blank, which is taken off as well; all of it when there is none.
std::string_view TakeField(std::string_view *text)
{
    const size_t blank = text->find(' ');
    const std::string_view field = text->substr(0, blank);
    text->remove_prefix(blank == std::string_view::npos ? text->size() : blank + 1);
    return field;
}

}  // namespace

std::optional<ReportQuery> ParseReportQuery(std::string_view menu, time_t now, std::string *ret_why)
{
    ReportQuery query{};
    const std::string_view type = TakeField(&menu);
    if (!IsType(type)) {
        *ret_why = "its type is none of delta, rebase and full";
        return std::nullopt;
    }
    query.type = type;
    const std::string_view from = TakeField(&menu);
    // What is left is the last field, so a further blank makes it no number.
    if (!ParseTime(from, &query.from) || !ParseTime(menu, &query.peer_time)) {
        *ret_why = "it needs a type and two times in seconds, with single blanks between";
        return std::nullopt;
    }
    if (query.from > now && query.from - now > kMostSecondsAhead) {
        *ret_why = "its window begins more than an hour ahead of this host's clock";
        return std::nullopt;
    }
    return query;
}

bool IsHandle(std::string_view text)
{
    return !text.empty() && text.size() <= kLongestHandle && std::none_of(text.begin(), text.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte < ' ' || byte == 0x7f;
    });
}

}  // namespace veltrane
