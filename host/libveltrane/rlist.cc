// Policy lists.
#include <veltrane/rlist.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include <veltrane/alloc.h>
#include <veltrane/errors.h>

namespace {

Rlist *NewScalarNode(const char *bytes, size_t length)
{
    Rlist *node = static_cast<Rlist *>(xcalloc(1, sizeof(Rlist)));
    node->val = {xstrndup(bytes, length), RVAL_TYPE_SCALAR};
    return node;
}

}  // namespace

Rlist *RlistFromSplitString(const char *text, char separator)
{
    if (text == nullptr || *text == '\0') {
        return nullptr;
    }
    Rlist *list = nullptr;
    Rlist **end = &list;
    std::string piece;
    for (;; text++) {
        if (*text == '\0' || *text == separator) {
            *end = NewScalarNode(piece.data(), piece.size());
            end = &(*end)->next;
            piece.clear();
            if (*text == '\0') {
                return list;
            }
            continue;
        }
        if (text[0] == '\\' && text[1] == separator && separator != '\0') {
            text++;
        }
        piece += *text;
    }
}

Rlist *RlistAppendScalar(Rlist **list, const char *scalar)
{
    while (*list != nullptr) { list = &(*list)->next; }
    *list = NewScalarNode(scalar, strlen(scalar));
    return *list;
}

char *RlistScalarValue(const Rlist *node)
{
    if (node->val.type != RVAL_TYPE_SCALAR) {
        ProgrammingError("A list node of type %d read as a scalar", static_cast<int>(node->val.type));
    }
    return static_cast<char *>(node->val.item);
}

size_t RlistLen(const Rlist *list)
{
    size_t length = 0;
    for (; list != nullptr; list = list->next) { length++; }
    return length;
}

void RlistDestroy(Rlist *list)
{
    while (list != nullptr) {
        Rlist *next = list->next;
        RvalDestroy(list->val);
        free(list);
        list = next;
    }
}
