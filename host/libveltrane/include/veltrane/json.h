// JSON trees.
//
// Objects keep their members in the order of appending, numbers their integer or real nature. What we write is
// valid JSON for every reader: a text that goes in and is not UTF-8 (promisers and log messages may hold anything)
// has each bad byte replaced by U+FFFD; what is read must be valid UTF-8.
#ifndef VELTRANE_JSON_H
#define VELTRANE_JSON_H

#include <veltrane/types.h>

VT_BEGIN_DECLS

typedef enum { JSON_ELEMENT_TYPE_CONTAINER = 1, JSON_ELEMENT_TYPE_PRIMITIVE = 2 } JsonElementType;
typedef enum {
    JSON_CONTAINER_TYPE_NONE = 0,
    JSON_CONTAINER_TYPE_OBJECT = 3,
    JSON_CONTAINER_TYPE_ARRAY = 4
} JsonContainerType;
typedef enum {
    JSON_PRIMITIVE_TYPE_NONE = 0,
    JSON_PRIMITIVE_TYPE_STRING = 5,
    JSON_PRIMITIVE_TYPE_INTEGER = 6,
    JSON_PRIMITIVE_TYPE_REAL = 7,
    JSON_PRIMITIVE_TYPE_BOOL = 8,
    JSON_PRIMITIVE_TYPE_NULL = 9
} JsonPrimitiveType;
typedef enum {
    JSON_PARSE_OK = 0,
    JSON_PARSE_ERROR_NO_DATA = 1,
    JSON_PARSE_ERROR_SYNTAX = 2,
    JSON_PARSE_ERROR_TRAILING = 3,
    JSON_PARSE_ERROR_DEPTH = 4,
    JSON_PARSE_ERROR_ZERO_BYTE = 5,
    JSON_PARSE_ERROR_UTF8 = 6
} JsonParseError;

// the whole text is one value with white space around it; *ret_json new. Refused: NULL or only white space, rubbish
// after the value, more than 512 levels, "\u0000", bytes that are not UTF-8, an integer beyond 64 bits (a syntax
// error)
JsonParseError JsonParse(const char *text, JsonElement **ret_json);

// static
const char *JsonParseErrorToString(JsonParseError error);

// with everything inside; never an element that is part of another
void JsonDestroy(JsonElement *json);

JsonElementType JsonGetElementType(const JsonElement *json);

// NONE for a primitive
JsonContainerType JsonGetContainerType(const JsonElement *json);

// NONE for a container; INTEGER: written without . or e and fits 64 bits
JsonPrimitiveType JsonGetPrimitiveType(const JsonElement *json);

// members or items
size_t JsonLength(const JsonElement *container);

// lent, or NULL: absent, or not an object. The next three are NULL also when the member is not a string primitive,
// not an array, not an object.
JsonElement *JsonObjectGet(const JsonElement *object, const char *key);
const char *JsonObjectGetAsString(const JsonElement *object, const char *key);
JsonElement *JsonObjectGetAsArray(const JsonElement *object, const char *key);
JsonElement *JsonObjectGetAsObject(const JsonElement *object, const char *key);

// lent; NULL beyond the end
JsonElement *JsonArrayGet(const JsonElement *array, size_t i);

// 64 bits; 0 unless the type is INTEGER
long JsonPrimitiveGetAsInteger(const JsonElement *primitive);

// lent; NULL unless the type is STRING
const char *JsonPrimitiveGetAsString(const JsonElement *primitive);

// new, empty; capacity is a hint
JsonElement *JsonObjectCreate(size_t capacity);

// new, empty
JsonElement *JsonArrayCreate(size_t capacity);

// copied; NULL is written as null. A key already there gets the new value in its old place, here and below.
void JsonObjectAppendString(JsonElement *object, const char *key, const char *value);

// int on purpose: the low 32 bits are what the files hold
void JsonObjectAppendInteger(JsonElement *object, const char *key, int value);

// takes over array
void JsonObjectAppendArray(JsonElement *object, const char *key, JsonElement *array);

// takes over value
void JsonObjectAppendObject(JsonElement *object, const char *key, JsonElement *value);

// copied
void JsonArrayAppendString(JsonElement *array, const char *value);

// no blanks, no line end. Escaped: " and \, bytes below 0x20 as \b \f \n \r \t or \u00xx; everything else as it is,
// "/" and bytes from 0x7F up included
void JsonWriteCompact(Writer *writer, const JsonElement *json);

VT_END_DECLS

#endif
