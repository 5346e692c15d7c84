// Attributes of an expanded promise, in the shapes that the work on it wants.
#ifndef HOST_LIBVELTRANE_PROMISE_ATTRIBUTES_H
#define HOST_LIBVELTRANE_PROMISE_ATTRIBUTES_H

#include <string>
#include <vector>

#include <veltrane/attributes.h>
#include <veltrane/policy.h>

namespace veltrane {

// The attributes that all types share, as the Record functions take them. Borrowed from the promise.
Attributes CommonAttributes(const Promise *expanded);

// The text of an attribute, lent; NULL when it is absent or no text.
const char *AttributeText(const Promise *expanded, const char *attribute);

// The texts of an attribute that is a text or a list; none when it is absent.
std::vector<std::string> AttributeTexts(const Promise *expanded, const char *attribute);

// Whether an attribute says true, or yes.
bool AttributeIsTrue(const Promise *expanded, const char *attribute);

// The settings "NAME=value" of an attribute that is a list of them or a map from NAME to value.
std::vector<std::string> AttributeSettings(const Promise *expanded, const char *attribute);

}  // namespace veltrane

#endif
