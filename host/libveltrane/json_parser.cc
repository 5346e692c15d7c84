// Reading JSON with jansson, inside the limits that json.h gives: what jansson would take and we do not (more levels),
// or would not tell apart (bytes that are not UTF-8), is looked for first.
#include <cstring>

#include "libveltrane/json_tree.h"
#include "libveltrane/utf8.h"

namespace {

constexpr int kMostLevels = 512;

// Whether containers stand in each other more than kMostLevels deep. Brackets inside strings do not count.
bool IsTooDeep(const char *text)
{
    int level = 0;
    bool in_string = false;
    for (const char *c = text; *c != '\0'; ++c) {
        if (in_string) {
            if (*c == '\\' && c[1] != '\0') {
                ++c;
            } else if (*c == '"') {
                in_string = false;
            }
        } else if (*c == '"') {
            in_string = true;
        } else if (*c == '[' || *c == '{') {
            if (++level > kMostLevels) {
                return true;
            }
        } else if (*c == ']' || *c == '}') {
            --level;
        }
    }
    return false;
}

JsonParseError FromJansson(const json_error_t &error)
{
    switch (json_error_code(&error)) {
        case json_error_end_of_input_expected:
            return JSON_PARSE_ERROR_TRAILING;
        case json_error_null_character:
        case json_error_null_byte_in_key:
            return JSON_PARSE_ERROR_ZERO_BYTE;
        case json_error_invalid_utf8:
            return JSON_PARSE_ERROR_UTF8;
        case json_error_stack_overflow:
            return JSON_PARSE_ERROR_DEPTH;
        default:
            return JSON_PARSE_ERROR_SYNTAX;
    }
}

}  // namespace

JsonParseError JsonParse(const char *text, JsonElement **ret_json)
{
    if (text == nullptr || text[strspn(text, " \t\r\n")] == '\0') {
        return JSON_PARSE_ERROR_NO_DATA;
    }
    const size_t length = strlen(text);
    if (veltrane::ValidUtf8Length(text, length) < length) {
        return JSON_PARSE_ERROR_UTF8;
    }
    if (IsTooDeep(text)) {
        return JSON_PARSE_ERROR_DEPTH;
    }
    json_error_t error;
    json_t *json = json_loadb(text, length, JSON_DECODE_ANY, &error);
    if (json == nullptr) {
        return FromJansson(error);
    }
    *ret_json = veltrane::Element(json);
    return JSON_PARSE_OK;
}

const char *JsonParseErrorToString(JsonParseError error)
{
    switch (error) {
        case JSON_PARSE_OK:
            return "Success";
        case JSON_PARSE_ERROR_NO_DATA:
            return "No JSON data";
        case JSON_PARSE_ERROR_SYNTAX:
            return "Malformed JSON";
        case JSON_PARSE_ERROR_TRAILING:
            return "Data after the end of the JSON value";
        case JSON_PARSE_ERROR_DEPTH:
            return "JSON nested too deeply";
        case JSON_PARSE_ERROR_ZERO_BYTE:
            return "Zero byte in a JSON string";
        case JSON_PARSE_ERROR_UTF8:
            return "JSON that is not UTF-8";
    }
    return "Unknown JSON parse error";
}
