// What the library's own sources may do with JSON trees beyond the public header.
#ifndef LIBVELTRANE_JSON_PRIVATE_H
#define LIBVELTRANE_JSON_PRIVATE_H

#include <string>
#include <vector>

#include <veltrane/json.h>

namespace veltrane {

// new deep copy; NULL for NULL
JsonElement *JsonDeepCopy(const JsonElement *json);

// A member of an object; both are lent by it.
struct JsonMember {
    const char *key;
    const JsonElement *value;
};

// In the order of appending; empty for anything but an object, NULL included.
std::vector<JsonMember> JsonMembers(const JsonElement *object);

// The text of a string, any other value as JSON writes it.
std::string JsonPlainText(const JsonElement *json);

// new string element
JsonElement *JsonString(const std::string &text);

// takes over value, of any kind
void JsonObjectPut(JsonElement *object, const char *key, JsonElement *value);

// takes over item, of any kind
void JsonArrayAppend(JsonElement *array, JsonElement *item);

// takes over items, an array: each of its items follows those of array
void JsonArrayExtend(JsonElement *array, JsonElement *items);

}  // namespace veltrane

#endif
