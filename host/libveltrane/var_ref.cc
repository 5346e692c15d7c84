// Names of variables, taken apart: "ns:scope.lval[i][j]".
//
// Indices are split off first, from the end, so what stands in brackets never counts as a namespace or a scope.
#include <veltrane/var_ref.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include <veltrane/alloc.h>
#include <veltrane/policy.h>
#include <veltrane/string_lib.h>

namespace {

// Where the bracket opens that the last byte of name closes; npos when that byte closes none.
size_t OpeningBracket(std::string_view name)
{
    if (!name.ends_with(']')) {
        return std::string_view::npos;
    }
    size_t open = 0;
    for (size_t i = name.size(); i-- > 0;) {
        if (name[i] == ']') {
            open++;
        } else if (name[i] == '[' && --open == 0) {
            return i;
        }
    }
    return std::string_view::npos;
}

// Cuts the trailing [..] off name and returns what they hold, in order. A name never becomes empty.
std::vector<std::string_view> SplitIndices(std::string_view *name)
{
    std::vector<std::string_view> indices;
    for (size_t open = OpeningBracket(*name); open != std::string_view::npos && open > 0;
         open = OpeningBracket(*name)) {
        indices.push_back(name->substr(open + 1, name->size() - open - 2));
        name->remove_suffix(name->size() - open);
    }
    std::reverse(indices.begin(), indices.end());
    return indices;
}

char *Copy(std::string_view text) { return xstrndup(text.data(), text.size()); }

VarRef *NewRef(char *ns, char *scope, std::string_view lval, const std::vector<std::string_view> &indices)
{
    VarRef *ref = static_cast<VarRef *>(xcalloc(1, sizeof(VarRef)));
    ref->ns = ns;
    ref->scope = scope;
    ref->lval = Copy(lval);
    ref->num_indices = indices.size();
    if (!indices.empty()) {
        ref->indices = static_cast<char **>(xcalloc(indices.size(), sizeof(char *)));
        std::transform(indices.begin(), indices.end(), ref->indices, Copy);
    }
    return ref;
}

VarRef *ParseQualified(const char *qualified_name, const char *default_ns, const char *default_scope)
{
    std::string_view name = qualified_name;
    const std::vector<std::string_view> indices = SplitIndices(&name);

    char *ns = nullptr;
    char *scope = nullptr;
    const size_t colon = name.find_first_of(":.");
    if (colon != std::string_view::npos && colon > 0 && name[colon] == ':') {
        ns = Copy(name.substr(0, colon));
        name.remove_prefix(colon + 1);
    }
    const size_t dot = name.find('.');
    if (dot != std::string_view::npos && dot > 0) {
        scope = Copy(name.substr(0, dot));
        name.remove_prefix(dot + 1);
    }
    return NewRef(ns != nullptr ? ns : SafeStringDuplicate(default_ns),
                  scope != nullptr ? scope : SafeStringDuplicate(default_scope), name, indices);
}

}  // namespace

VarRef *VarRefParse(const char *qualified_name) { return ParseQualified(qualified_name, nullptr, nullptr); }

VarRef *VarRefParseFromScope(const char *name, const char *scope)
{
    std::string_view lval = name;
    const std::vector<std::string_view> indices = SplitIndices(&lval);
    return NewRef(nullptr, SafeStringDuplicate(scope), lval, indices);
}

VarRef *VarRefParseFromBundle(const char *qualified_name, const Bundle *bundle)
{
    return ParseQualified(qualified_name, bundle->ns, bundle->name);
}

void VarRefDestroy(VarRef *ref)
{
    if (ref == nullptr) {
        return;
    }
    for (size_t i = 0; i < ref->num_indices; i++) { free(ref->indices[i]); }
    free(ref->indices);
    free(ref->lval);
    free(ref->scope);
    free(ref->ns);
    free(ref);
}
