// A JsonElement is jansson's json_t behind another name: the way from one to the other.
#ifndef LIBVELTRANE_JSON_TREE_H
#define LIBVELTRANE_JSON_TREE_H

#include <jansson.h>

#include <veltrane/json.h>

namespace veltrane {

inline json_t *Tree(JsonElement *json) { return reinterpret_cast<json_t *>(json); }
inline const json_t *Tree(const JsonElement *json) { return reinterpret_cast<const json_t *>(json); }
inline JsonElement *Element(json_t *tree) { return reinterpret_cast<JsonElement *>(tree); }

}  // namespace veltrane

#endif
