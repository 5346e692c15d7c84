// Variables in the texts of a policy.
#include "libveltrane/expansion.h"

#include <cstring>

#include <veltrane/errors.h>
#include <veltrane/string_lib.h>

#include "libveltrane/json_private.h"
#include "libveltrane/policy_functions.h"

namespace veltrane {

namespace {

// References inside references, and function calls inside function calls, nest no deeper.
constexpr int kDeepestNesting = 16;

// What a name stands for.
struct Found {
    enum class Kind { kNothing, kText, kList, kContainer };

    Kind kind = Kind::kNothing;
    std::string text;
    std::vector<std::string> items;
    const JsonElement *container = nullptr;  // lent by the context
};

bool IsArray(const JsonElement *json)
{
    return json != nullptr && JsonGetContainerType(json) == JSON_CONTAINER_TYPE_ARRAY;
}

// The items of an array as texts, behind those that are there.
void AppendItems(const JsonElement *array, std::vector<std::string> *texts)
{
    for (size_t i = 0; i < JsonLength(array); ++i) { texts->push_back(JsonPlainText(JsonArrayGet(array, i))); }
}

Found FromJson(const JsonElement *json)
{
    Found found;
    found.container = json;
    if (json == nullptr) {
        return found;
    }
    if (IsArray(json)) {
        found.kind = Found::Kind::kList;
        AppendItems(json, &found.items);
    } else if (JsonGetElementType(json) == JSON_ELEMENT_TYPE_CONTAINER) {
        found.kind = Found::Kind::kContainer;
    } else if (JsonGetPrimitiveType(json) != JSON_PRIMITIVE_TYPE_NULL) {
        found.kind = Found::Kind::kText;
        found.text = JsonPlainText(json);
    }
    return found;
}

// What stands in a container under the indices of a reference.
Found InsideContainer(const JsonElement *json, const VarRef *ref)
{
    for (size_t i = 0; i < ref->num_indices && json != nullptr; ++i) {
        long position = 0;
        if (JsonGetContainerType(json) == JSON_CONTAINER_TYPE_OBJECT) {
            json = JsonObjectGet(json, ref->indices[i]);
        } else if (JsonGetContainerType(json) == JSON_CONTAINER_TYPE_ARRAY &&
                   StringToLong(ref->indices[i], &position) == 0 && position >= 0) {
            json = JsonArrayGet(json, static_cast<size_t>(position));
        } else {
            json = nullptr;
        }
    }
    return json != nullptr ? FromJson(json) : Found();
}

Found FromValue(const void *value, DataType type)
{
    Found found;
    switch (DataTypeToRvalType(type)) {
        case RVAL_TYPE_SCALAR:
            found.kind = Found::Kind::kText;
            found.text = static_cast<const char *>(value);
            break;
        case RVAL_TYPE_LIST:
            found.kind = Found::Kind::kList;
            for (const Rlist *node = static_cast<const Rlist *>(value); node != nullptr; node = node->next) {
                found.items.emplace_back(RlistScalarValue(node));
            }
            break;
        case RVAL_TYPE_CONTAINER:
            return FromJson(static_cast<const JsonElement *>(value));
        case RVAL_TYPE_NONE:
            break;
    }
    return found;
}

Found LookUp(const Scope &scope, const std::string &name)
{
    const auto bound = scope.bindings.find(name);
    if (bound != scope.bindings.end()) {
        Found found;
        found.kind = Found::Kind::kText;
        found.text = bound->second;
        return found;
    }
    const VarRefPtr ref(VarRefParseFromBundle(name.c_str(), PromiseGetBundle(scope.promise)));
    DataType type = VT_DATA_TYPE_NONE;
    const void *value = EvalContextVariableGet(scope.ctx, ref.get(), &type);
    if (type != VT_DATA_TYPE_NONE || ref->num_indices == 0) {
        return FromValue(value, type);
    }
    const VarRefPtr whole(
        VarRefParseFromBundle(name.substr(0, name.find('[')).c_str(), PromiseGetBundle(scope.promise)));
    value = EvalContextVariableGet(scope.ctx, whole.get(), &type);
    return type == VT_DATA_TYPE_CONTAINER ? InsideContainer(static_cast<const JsonElement *>(value), ref.get())
                                          : Found();
}

// Where the parenthesis closes that opened before position from; npos when it does not.
size_t ClosingParenthesis(std::string_view text, size_t from)
{
    int open = 1;
    for (size_t i = from; i < text.size(); ++i) {
        if (text[i] == '(') {
            ++open;
        } else if (text[i] == ')' && --open == 0) {
            return i;
        }
    }
    return std::string_view::npos;
}

// Cut the next reference out of text: what stands before it, and what stands in its parentheses. false at the end.
struct Reference {
    std::string_view before;
    std::string_view inside;
};

bool NextReference(std::string_view *text, Reference *reference)
{
    const size_t start = text->find("$(");
    const size_t end = start == std::string_view::npos ? start : ClosingParenthesis(*text, start + 2);
    if (end == std::string_view::npos) {
        return false;
    }
    reference->before = text->substr(0, start);
    reference->inside = text->substr(start + 2, end - start - 2);
    text->remove_prefix(end + 1);
    return true;
}

std::optional<std::string> ExpandNested(const Scope &scope, std::string_view text, int depth, Shortfall *shortfall)
{
    std::string expanded;
    Reference reference;
    while (NextReference(&text, &reference)) {
        expanded += reference.before;
        if (depth == kDeepestNesting) {
            shortfall->missing = reference.inside;
            return std::nullopt;
        }
        const std::optional<std::string> name = ExpandNested(scope, reference.inside, depth + 1, shortfall);
        if (!name.has_value()) {
            return std::nullopt;
        }
        const Found found = LookUp(scope, *name);
        if (found.kind != Found::Kind::kText) {
            shortfall->missing = *name;
            return std::nullopt;
        }
        expanded += found.text;
    }
    return expanded.append(text);
}

std::optional<IteratedList> FirstListOf(const Scope &scope, std::string_view text, int depth)
{
    Reference reference;
    while (depth < kDeepestNesting && NextReference(&text, &reference)) {
        std::optional<IteratedList> inner = FirstListOf(scope, reference.inside, depth + 1);
        if (inner.has_value()) {
            return inner;
        }
        Shortfall ignored;  // told when the promise is expanded
        const std::optional<std::string> name = ExpandNested(scope, reference.inside, depth + 1, &ignored);
        Found found = name.has_value() ? LookUp(scope, *name) : Found();
        if (found.kind == Found::Kind::kList) {
            return IteratedList{*name, std::move(found.items)};
        }
    }
    return std::nullopt;
}

// The name in a text that is "@(name)" and nothing else.
std::optional<std::string_view> WholeReference(std::string_view text)
{
    if (text.size() < 4 || !text.starts_with("@(") || ClosingParenthesis(text, 2) != text.size() - 1) {
        return std::nullopt;
    }
    return text.substr(2, text.size() - 3);
}

// The way from a value of the policy to what it says now. A result that is nothing means that shortfall says why.
class Expander {
  public:
    // ret_tags  takes the tags of what functions answer, unless it is NULL
    Expander(const Scope &scope, Shortfall *shortfall, std::vector<std::string> *ret_tags)
        : scope_(scope), shortfall_(shortfall), tags_(ret_tags)
    {
    }

    std::optional<OwnedRval> Expand(const Rval &rval)
    {
        switch (rval.type) {
            case RVAL_TYPE_SCALAR:
                return ExpandScalar(static_cast<const char *>(rval.item));
            case RVAL_TYPE_LIST:
                return ExpandList(static_cast<const Rlist *>(rval.item));
            case RVAL_TYPE_CONTAINER:
                return ExpandContainer(static_cast<const JsonElement *>(rval.item));
            case RVAL_TYPE_NONE:
                break;
        }
        return OwnedRval();
    }

  private:
    static OwnedRval Scalar(const std::string &text) { return OwnedRval(RvalNew(text.c_str(), RVAL_TYPE_SCALAR)); }

    static OwnedRval List(const std::vector<std::string> &items)
    {
        Rlist *list = nullptr;
        for (const std::string &item : items) { RlistAppendScalar(&list, item.c_str()); }
        return OwnedRval(Rval{list, RVAL_TYPE_LIST});
    }

    std::optional<OwnedRval> ExpandScalar(std::string_view text)
    {
        const std::optional<std::string_view> whole = WholeReference(text);
        if (whole.has_value()) {
            return ExpandWhole(*whole);
        }
        const std::optional<std::string> expanded = ExpandText(scope_, text, shortfall_);
        return expanded.has_value() ? std::optional(Scalar(*expanded)) : std::nullopt;
    }

    std::optional<OwnedRval> ExpandWhole(std::string_view inside)
    {
        const std::optional<std::string> name = ExpandText(scope_, inside, shortfall_);
        if (!name.has_value()) {
            return std::nullopt;
        }
        const Found found = LookUp(scope_, *name);
        if (found.container != nullptr) {
            return OwnedRval(RvalNew(found.container, RVAL_TYPE_CONTAINER));
        }
        switch (found.kind) {
            case Found::Kind::kText:
                return Scalar(found.text);
            case Found::Kind::kList:
                return List(found.items);
            default:
                shortfall_->missing = *name;
                return std::nullopt;
        }
    }

    std::optional<OwnedRval> ExpandList(const Rlist *list)
    {
        std::vector<std::string> items;
        for (const Rlist *node = list; node != nullptr; node = node->next) {
            const std::optional<OwnedRval> value = Expand(node->val);
            if (!value.has_value()) {
                return std::nullopt;
            }
            AppendTexts(value->Get(), &items);
        }
        return List(items);
    }

    // What a value is inside a list: a scalar is one item, a list as many as it has.
    static void AppendTexts(const Rval &value, std::vector<std::string> *items)
    {
        if (value.type == RVAL_TYPE_SCALAR) {
            items->emplace_back(static_cast<const char *>(value.item));
        } else if (value.type == RVAL_TYPE_LIST) {
            for (const Rlist *node = RvalRlistValue(value); node != nullptr; node = node->next) {
                items->emplace_back(RlistScalarValue(node));
            }
        } else if (value.type == RVAL_TYPE_CONTAINER) {
            const JsonElement *json = static_cast<const JsonElement *>(value.item);
            if (IsArray(json)) {
                AppendItems(json, items);
            } else {
                items->push_back(JsonPlainText(json));
            }
        }
    }

    std::optional<OwnedRval> ExpandContainer(const JsonElement *json)
    {
        if (IsCall(json)) {
            return Call(json);
        }
        JsonPtr expanded = ExpandTree(json);
        if (expanded == nullptr) {
            return std::nullopt;
        }
        return OwnedRval(Rval{expanded.release(), RVAL_TYPE_CONTAINER});
    }

    static bool IsCall(const JsonElement *json)
    {
        if (JsonLength(json) != 1) {
            return false;
        }
        const std::vector<JsonMember> members = JsonMembers(json);
        return !members.empty() && IsArray(members[0].value) && IsPolicyFunction(members[0].key);
    }

    std::optional<OwnedRval> Call(const JsonElement *json)
    {
        const JsonMember member = JsonMembers(json).front();
        FunctionCall call{scope_.ctx, scope_.promise, member.key, {}};
        if (++depth_ > kDeepestNesting) {
            Log(LOG_LEVEL_ERR, "Function '%s' is called too deep inside other calls", call.name.c_str());
            shortfall_->function_failed = true;
            return std::nullopt;
        }
        for (size_t i = 0; i < JsonLength(member.value); ++i) {
            const std::optional<OwnedRval> value = ExpandItem(JsonArrayGet(member.value, i));
            if (!value.has_value()) {
                return std::nullopt;
            }
            AppendTexts(value->Get(), &call.arguments);
        }
        --depth_;
        Answer answer = CallPolicyFunction(call);
        if (!answer.ok) {
            shortfall_->function_failed = true;
            return std::nullopt;
        }
        if (tags_ != nullptr) {
            tags_->insert(tags_->end(), answer.tags.begin(), answer.tags.end());
        }
        return std::move(answer.value);
    }

    // One value inside a container: a text or a call may turn into a list.
    std::optional<OwnedRval> ExpandItem(const JsonElement *json)
    {
        const char *const text = JsonPrimitiveGetAsString(json);
        return text != nullptr ? ExpandScalar(text) : ExpandContainer(json);
    }

    static JsonPtr ToTree(OwnedRval value)
    {
        if (value.Get().type == RVAL_TYPE_SCALAR) {
            return JsonPtr(JsonString(static_cast<const char *>(value.Get().item)));
        }
        if (value.Get().type == RVAL_TYPE_CONTAINER) {
            return JsonPtr(static_cast<JsonElement *>(value.Release().item));
        }
        JsonPtr array(JsonArrayCreate(0));
        std::vector<std::string> items;
        AppendTexts(value.Get(), &items);
        for (const std::string &item : items) { JsonArrayAppend(array.get(), JsonString(item)); }
        return array;
    }

    JsonPtr ExpandTree(const JsonElement *json)
    {
        if (JsonGetContainerType(json) == JSON_CONTAINER_TYPE_OBJECT) {
            return ExpandObject(json);
        }
        if (IsArray(json)) {
            return ExpandArray(json);
        }
        if (const char *text = JsonPrimitiveGetAsString(json); text != nullptr) {
            std::optional<OwnedRval> value = ExpandScalar(text);
            return value.has_value() ? ToTree(std::move(*value)) : nullptr;
        }
        return JsonPtr(JsonDeepCopy(json));
    }

    JsonPtr ExpandMember(const JsonElement *json)
    {
        if (!IsCall(json)) {
            return ExpandTree(json);
        }
        std::optional<OwnedRval> value = Call(json);
        return value.has_value() ? ToTree(std::move(*value)) : nullptr;
    }

    JsonPtr ExpandObject(const JsonElement *json)
    {
        JsonPtr object(JsonObjectCreate(JsonLength(json)));
        for (const JsonMember &member : JsonMembers(json)) {
            JsonPtr expanded = ExpandMember(member.value);
            if (expanded == nullptr) {
                return nullptr;
            }
            JsonObjectPut(object.get(), member.key, expanded.release());
        }
        return object;
    }

    JsonPtr ExpandArray(const JsonElement *json)
    {
        JsonPtr array(JsonArrayCreate(JsonLength(json)));
        for (size_t i = 0; i < JsonLength(json); ++i) {
            const JsonElement *const item = JsonArrayGet(json, i);
            JsonPtr expanded = ExpandMember(item);
            if (expanded == nullptr) {
                return nullptr;
            }
            if (IsArray(expanded.get()) && !IsArray(item)) {  // "@(list)", or a call that gave a list
                JsonArrayExtend(array.get(), expanded.release());
            } else {
                JsonArrayAppend(array.get(), expanded.release());
            }
        }
        return array;
    }

    const Scope &scope_;
    Shortfall *shortfall_;
    std::vector<std::string> *tags_;
    int depth_ = 0;
};

void CollectFromTree(const JsonElement *json, std::vector<std::string> *texts)
{
    if (const char *text = JsonPrimitiveGetAsString(json); text != nullptr) {
        if (strstr(text, "$(") != nullptr) {
            texts->emplace_back(text);
        }
        return;
    }
    if (IsArray(json)) {
        for (size_t i = 0; i < JsonLength(json); ++i) { CollectFromTree(JsonArrayGet(json, i), texts); }
    }
    for (const JsonMember &member : JsonMembers(json)) { CollectFromTree(member.value, texts); }
}

}  // namespace

std::optional<std::string> ExpandText(const Scope &scope, std::string_view text, Shortfall *shortfall)
{
    return ExpandNested(scope, text, 0, shortfall);
}

std::optional<OwnedRval> ExpandRval(const Scope &scope, const Rval &rval, Shortfall *shortfall,
                                    std::vector<std::string> *ret_tags)
{
    return Expander(scope, shortfall, ret_tags).Expand(rval);
}

void CollectReferences(const Rval &rval, std::vector<std::string> *texts)
{
    if (rval.type == RVAL_TYPE_SCALAR && strstr(static_cast<const char *>(rval.item), "$(") != nullptr) {
        texts->emplace_back(static_cast<const char *>(rval.item));
    } else if (rval.type == RVAL_TYPE_LIST) {
        for (const Rlist *node = RvalRlistValue(rval); node != nullptr; node = node->next) {
            CollectReferences(node->val, texts);
        }
    } else if (rval.type == RVAL_TYPE_CONTAINER) {
        CollectFromTree(static_cast<const JsonElement *>(rval.item), texts);
    }
}

std::optional<IteratedList> FirstUnboundList(const Scope &scope, const std::vector<std::string> &texts)
{
    for (const std::string &text : texts) {
        std::optional<IteratedList> list = FirstListOf(scope, text, 0);
        if (list.has_value()) {
            return list;
        }
    }
    return std::nullopt;
}

}  // namespace veltrane
