// Values of policy variables and attributes.
#include <veltrane/rval.h>

#include <cstdlib>
#include <cstring>

#include <veltrane/alloc.h>
#include <veltrane/json.h>
#include <veltrane/rlist.h>
#include <veltrane/writer.h>

#include "libveltrane/json_private.h"

namespace {

Rlist *CopyList(const Rlist *list)
{
    Rlist *copy = nullptr;
    Rlist **end = &copy;
    for (; list != nullptr; list = list->next) {
        *end = static_cast<Rlist *>(xcalloc(1, sizeof(Rlist)));
        (*end)->val = RvalCopy(list->val);
        end = &(*end)->next;
    }
    return copy;
}

void WriteQuoted(Writer *writer, const char *text)
{
    WriterWriteChar(writer, '"');
    for (;;) {
        const size_t plain = strcspn(text, "\"\\");
        WriterWriteLen(writer, text, plain);
        text += plain;
        if (*text == '\0') {
            break;
        }
        WriterWriteChar(writer, '\\');
        WriterWriteChar(writer, *text++);
    }
    WriterWriteChar(writer, '"');
}

void WriteList(Writer *writer, const Rlist *list)
{
    WriterWriteChar(writer, '{');
    for (const Rlist *node = list; node != nullptr; node = node->next) {
        if (node != list) {
            WriterWriteChar(writer, ',');
        }
        if (const char *scalar = RvalScalarValue(node->val)) {
            WriteQuoted(writer, scalar);
        } else {
            RvalWriteRaw(writer, node->val);
        }
    }
    WriterWriteChar(writer, '}');
}

}  // namespace

RvalType DataTypeToRvalType(DataType type)
{
    switch (type) {
        case VT_DATA_TYPE_STRING:
        case VT_DATA_TYPE_INT:
        case VT_DATA_TYPE_REAL:
            return RVAL_TYPE_SCALAR;
        case VT_DATA_TYPE_STRING_LIST:
        case VT_DATA_TYPE_INT_LIST:
        case VT_DATA_TYPE_REAL_LIST:
            return RVAL_TYPE_LIST;
        case VT_DATA_TYPE_CONTAINER:
            return RVAL_TYPE_CONTAINER;
        case VT_DATA_TYPE_NONE:
            break;
    }
    return RVAL_TYPE_NONE;
}

Rval RvalNew(const void *item, RvalType type)
{
    if (item == nullptr) {
        return {nullptr, type};
    }
    switch (type) {
        case RVAL_TYPE_SCALAR:
            return {xstrdup(static_cast<const char *>(item)), type};
        case RVAL_TYPE_LIST:
            return {CopyList(static_cast<const Rlist *>(item)), type};
        case RVAL_TYPE_CONTAINER:
            return {veltrane::JsonDeepCopy(static_cast<const JsonElement *>(item)), type};
        case RVAL_TYPE_NONE:
            break;
    }
    return {const_cast<void *>(item), type};  // a record that the value does not own
}

Rval RvalCopy(Rval rval) { return RvalNew(rval.item, rval.type); }

void RvalDestroy(Rval rval)
{
    switch (rval.type) {
        case RVAL_TYPE_SCALAR:
            free(rval.item);
            break;
        case RVAL_TYPE_LIST:
            RlistDestroy(static_cast<Rlist *>(rval.item));
            break;
        case RVAL_TYPE_CONTAINER:
            JsonDestroy(static_cast<JsonElement *>(rval.item));
            break;
        case RVAL_TYPE_NONE:
            break;
    }
}

const char *RvalScalarValue(Rval rval)
{
    return rval.type == RVAL_TYPE_SCALAR ? static_cast<const char *>(rval.item) : nullptr;
}

Rlist *RvalRlistValue(Rval rval) { return rval.type == RVAL_TYPE_LIST ? static_cast<Rlist *>(rval.item) : nullptr; }

void RvalWriteRaw(Writer *writer, Rval rval)
{
    if (rval.item == nullptr) {
        return;
    }
    switch (rval.type) {
        case RVAL_TYPE_SCALAR:
            WriterWrite(writer, static_cast<const char *>(rval.item));
            break;
        case RVAL_TYPE_LIST:
            WriteList(writer, static_cast<const Rlist *>(rval.item));
            break;
        case RVAL_TYPE_CONTAINER:
            JsonWriteCompact(writer, static_cast<const JsonElement *>(rval.item));
            break;
        case RVAL_TYPE_NONE:
            break;
    }
}
