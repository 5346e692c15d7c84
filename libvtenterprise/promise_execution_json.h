// The JSON form of a promise execution, as the promise log files carry it: one object whose members stand in a fixed
// order, every text a string (absent is ""), the line an integer, and the three lists arrays.
//
// A record keeps its lists as the text of a JSON array; here they become arrays, and arrays become text again. Nothing
// logs: what is not of this form is NULL, and the caller knows where it came from.
#ifndef LIBVTENTERPRISE_PROMISE_EXECUTION_JSON_H
#define LIBVTENTERPRISE_PROMISE_EXECUTION_JSON_H

#include <veltrane/json.h>

#include "libvtenterprise/enterprise_install.h"
#include "libvtenterprise/export.h"

// New object. NULL when one of the three list texts is present and no JSON array. Of the line number the low 32 bits
// are written.
VT_EXPORT JsonElement *HubPromiseExecutionToJson(const HubPromiseExecution *data) noexcept;

// New record; json stays the caller's. NULL when a required member is missing or of another type, or when the outcome
// is none of "KEPT", "REPAIRED" and "NOTKEPT". Not required are the line (0 when it is no integer), the policy file's
// hash and the tags. An empty string is absent.
VT_EXPORT HubPromiseExecution *HubPromiseExecutionFromJson(JsonElement *json) noexcept;

// The array that a text holds: new; NULL when it is no JSON or no array. What the array holds is not looked at.
VT_EXPORT JsonElement *JsonArrayOfStringsFromJsonString(const char *json_array_string) noexcept;

// The member's text, lent; NULL unless it is there and a string.
VT_EXPORT const char *JsonObjectGetString(const JsonElement *json, const char *key) noexcept;

// The member, lent; NULL unless it is there and an array.
VT_EXPORT JsonElement *JsonObjectGetArray(const JsonElement *json, const char *key) noexcept;

#endif
