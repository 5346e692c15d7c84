// Attributes of an expanded promise.
#include "libveltrane/promise_attributes.h"

#include <veltrane/json.h>
#include <veltrane/rlist.h>
#include <veltrane/string_lib.h>

#include "libveltrane/json_private.h"

namespace veltrane {

Attributes CommonAttributes(const Promise *expanded)
{
    Attributes attr{};
    const Constraint *classes = PromiseGetConstraint(expanded, "classes");
    if (classes != nullptr && classes->rval.type == RVAL_TYPE_CONTAINER) {
        attr.classes = static_cast<const JsonElement *>(classes->rval.item);
    }
    return attr;
}

const char *AttributeText(const Promise *expanded, const char *attribute)
{
    const Constraint *constraint = PromiseGetConstraint(expanded, attribute);
    return constraint != nullptr ? RvalScalarValue(constraint->rval) : nullptr;
}

std::vector<std::string> AttributeTexts(const Promise *expanded, const char *attribute)
{
    std::vector<std::string> texts;
    if (const char *text = AttributeText(expanded, attribute)) {
        texts.emplace_back(text);
    }
    for (const Rlist *node = PromiseGetConstraintAsList(expanded, attribute); node != nullptr; node = node->next) {
        texts.emplace_back(RlistScalarValue(node));
    }
    return texts;
}

bool AttributeIsTrue(const Promise *expanded, const char *attribute)
{
    const char *text = AttributeText(expanded, attribute);
    return StringEqual(text, "true") || StringEqual(text, "yes");
}

std::vector<std::string> AttributeSettings(const Promise *expanded, const char *attribute)
{
    const Constraint *constraint = PromiseGetConstraint(expanded, attribute);
    if (constraint == nullptr || constraint->rval.type != RVAL_TYPE_CONTAINER) {
        return AttributeTexts(expanded, attribute);
    }
    std::vector<std::string> settings;
    for (const JsonMember &member : JsonMembers(static_cast<const JsonElement *>(constraint->rval.item))) {
        if (const char *text = JsonPrimitiveGetAsString(member.value); text != nullptr) {
            settings.push_back(std::string(member.key) + "=" + text);
        }
    }
    return settings;
}

}  // namespace veltrane
