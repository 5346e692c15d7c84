// JSON trees, built and looked at; reading is json_parser.cc, writing json_writer.cc.
//
// Invariants: every text in a tree is UTF-8 (what goes in is cleaned here, what is read is refused otherwise), and no
// tree that was read is deeper than 512 levels, so walking a tree by recursion is safe.
#include <veltrane/json.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include <veltrane/alloc.h>
#include <veltrane/errors.h>
#include <veltrane/owned.h>

#include "libveltrane/json_private.h"
#include "libveltrane/json_tree.h"
#include "libveltrane/utf8.h"

using veltrane::Element;
using veltrane::Tree;

namespace {

// The library's memory never runs out (alloc.h); results of jansson are therefore not looked at for that.
[[maybe_unused]] const bool memory_is_ours = [] {
    json_set_alloc_funcs(xmalloc, free);
    return true;
}();

json_t *NewString(const char *text, size_t length)
{
    if (veltrane::ValidUtf8Length(text, length) == length) {
        return json_stringn_nocheck(text, length);
    }
    const std::string clean = veltrane::CleanUtf8(text, length);
    return json_stringn_nocheck(clean.data(), clean.size());
}

json_t *NewStringOrNull(const char *text) { return text != nullptr ? NewString(text, strlen(text)) : json_null(); }

// Puts value, which is taken over, under key.
void Put(JsonElement *object, const char *key, json_t *value)
{
    const size_t length = strlen(key);
    const int failed = veltrane::ValidUtf8Length(key, length) == length
                           ? json_object_set_new_nocheck(Tree(object), key, value)
                           : json_object_set_new_nocheck(Tree(object), veltrane::CleanUtf8(key, length).c_str(), value);
    if (failed != 0) {
        ProgrammingError("Member '%s' put into a JSON element that is no object", key);
    }
}

// Puts item, which is taken over, behind the others.
void Append(JsonElement *array, json_t *item)
{
    if (json_array_append_new(Tree(array), item) != 0) {
        ProgrammingError("A value appended to a JSON element that is no array");
    }
}

const json_t *Member(const JsonElement *object, const char *key)
{
    const json_t *member = json_object_get(Tree(object), key);
    if (member == nullptr) {
        const size_t length = strlen(key);
        if (veltrane::ValidUtf8Length(key, length) < length) {  // it went in cleaned, so that is its name
            member = json_object_get(Tree(object), veltrane::CleanUtf8(key, length).c_str());
        }
    }
    return member;
}

}  // namespace

namespace veltrane {

JsonElement *JsonDeepCopy(const JsonElement *json) { return Element(json_deep_copy(Tree(json))); }

std::vector<JsonMember> JsonMembers(const JsonElement *object)
{
    std::vector<JsonMember> members;
    const char *key = nullptr;
    json_t *value = nullptr;
    json_object_foreach(const_cast<json_t *>(Tree(object)), key, value)  // jansson's walk wants it so; nothing changes
    {
        members.push_back({key, Element(value)});
    }
    return members;
}

std::string JsonPlainText(const JsonElement *json)
{
    if (const char *text = JsonPrimitiveGetAsString(json); text != nullptr) {
        return text;
    }
    const WriterPtr writer(StringWriter());
    JsonWriteCompact(writer.get(), json);
    return StringWriterData(writer.get());
}

JsonElement *JsonString(const std::string &text) { return Element(NewString(text.data(), text.size())); }

void JsonObjectPut(JsonElement *object, const char *key, JsonElement *value) { Put(object, key, Tree(value)); }

void JsonArrayAppend(JsonElement *array, JsonElement *item) { Append(array, Tree(item)); }

void JsonArrayExtend(JsonElement *array, JsonElement *items)
{
    if (json_array_extend(Tree(array), Tree(items)) != 0) {
        ProgrammingError("A JSON array extended by what is none, or the other way round");
    }
    json_decref(Tree(items));
}

}  // namespace veltrane

void JsonDestroy(JsonElement *json) { json_decref(Tree(json)); }

JsonElementType JsonGetElementType(const JsonElement *json)
{
    return JsonGetContainerType(json) != JSON_CONTAINER_TYPE_NONE ? JSON_ELEMENT_TYPE_CONTAINER
                                                                  : JSON_ELEMENT_TYPE_PRIMITIVE;
}

JsonContainerType JsonGetContainerType(const JsonElement *json)
{
    switch (json_typeof(Tree(json))) {
        case JSON_OBJECT:
            return JSON_CONTAINER_TYPE_OBJECT;
        case JSON_ARRAY:
            return JSON_CONTAINER_TYPE_ARRAY;
        default:
            return JSON_CONTAINER_TYPE_NONE;
    }
}

JsonPrimitiveType JsonGetPrimitiveType(const JsonElement *json)
{
    switch (json_typeof(Tree(json))) {
        case JSON_STRING:
            return JSON_PRIMITIVE_TYPE_STRING;
        case JSON_INTEGER:
            return JSON_PRIMITIVE_TYPE_INTEGER;
        case JSON_REAL:
            return JSON_PRIMITIVE_TYPE_REAL;
        case JSON_TRUE:
        case JSON_FALSE:
            return JSON_PRIMITIVE_TYPE_BOOL;
        case JSON_NULL:
            return JSON_PRIMITIVE_TYPE_NULL;
        default:
            return JSON_PRIMITIVE_TYPE_NONE;
    }
}

size_t JsonLength(const JsonElement *container)
{
    const json_t *json = Tree(container);
    return json_is_object(json) ? json_object_size(json) : json_array_size(json);
}

JsonElement *JsonObjectGet(const JsonElement *object, const char *key)
{
    return Element(const_cast<json_t *>(Member(object, key)));
}

const char *JsonObjectGetAsString(const JsonElement *object, const char *key)
{
    return json_string_value(Member(object, key));
}

JsonElement *JsonObjectGetAsArray(const JsonElement *object, const char *key)
{
    JsonElement *member = JsonObjectGet(object, key);
    return json_is_array(Tree(member)) ? member : nullptr;
}

JsonElement *JsonObjectGetAsObject(const JsonElement *object, const char *key)
{
    JsonElement *member = JsonObjectGet(object, key);
    return json_is_object(Tree(member)) ? member : nullptr;
}

JsonElement *JsonArrayGet(const JsonElement *array, size_t i) { return Element(json_array_get(Tree(array), i)); }

long JsonPrimitiveGetAsInteger(const JsonElement *primitive) { return json_integer_value(Tree(primitive)); }

const char *JsonPrimitiveGetAsString(const JsonElement *primitive) { return json_string_value(Tree(primitive)); }

JsonElement *JsonObjectCreate(size_t) { return Element(json_object()); }

JsonElement *JsonArrayCreate(size_t) { return Element(json_array()); }

void JsonObjectAppendString(JsonElement *object, const char *key, const char *value)
{
    Put(object, key, NewStringOrNull(value));
}

void JsonObjectAppendInteger(JsonElement *object, const char *key, int value) { Put(object, key, json_integer(value)); }

void JsonObjectAppendArray(JsonElement *object, const char *key, JsonElement *array) { Put(object, key, Tree(array)); }

void JsonObjectAppendObject(JsonElement *object, const char *key, JsonElement *value) { Put(object, key, Tree(value)); }

void JsonArrayAppendString(JsonElement *array, const char *value) { Append(array, NewStringOrNull(value)); }
