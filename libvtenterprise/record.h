// What all report records share, written once: a record is plain numbers, borrowed pointers and a list of owned texts.
//
// An absent text is NULL in a record and an empty field in CSV; an empty field is read back as absent. The exported
// operations of a record are one line each over this template, so that what is special about it stands out.
#ifndef LIBVTENTERPRISE_RECORD_H
#define LIBVTENTERPRISE_RECORD_H

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdlib>

#include <veltrane/alloc.h>
#include <veltrane/csv.h>
#include <veltrane/seq.h>
#include <veltrane/string_lib.h>

template <typename R, char *R::*...texts>
struct Record {
    // new, every field zero or absent
    static R *New() { return static_cast<R *>(xcalloc(1, sizeof(R))); }

    // new, deep in its texts; numbers and borrowed pointers are shared; NULL for NULL
    static R *Dup(const R *record)
    {
        if (record == nullptr) {
            return nullptr;
        }
        R *copy = static_cast<R *>(xmemdup(record, sizeof(R)));
        ((copy->*texts = SafeStringDuplicate(record->*texts)), ...);
        return copy;
    }

    static void Delete(R *record)
    {
        if (record == nullptr) {
            return;
        }
        (free(record->*texts), ...);
        free(record);
    }
};

// One text field of a record: absent is empty.
inline void WriteText(CsvWriter *c, const char *text) { CsvWriterField(c, text != nullptr ? text : ""); }

// One field with a whole number in decimal. Rows are written by the million, and this is a good deal cheaper than a
// formatted field.
template <typename Number>
void WriteNumber(CsvWriter *c, Number number)
{
    char text[24];  // a sign, 20 digits and the zero
    *std::to_chars(text, text + sizeof(text) - 1, number).ptr = '\0';
    CsvWriterField(c, text);
}

// The fields that were read: none for an absent list.
inline size_t FieldCount(const Seq *attr) { return attr != nullptr ? SeqLength(attr) : 0; }

// The text of a field as it was read, lent by attr.
inline const char *FieldAt(const Seq *attr, size_t i) { return static_cast<const char *>(SeqAt(attr, i)); }

// A text as a record keeps it, lent: NULL when it is empty.
inline const char *AbsentIfEmpty(const char *text) { return text != nullptr && text[0] != '\0' ? text : nullptr; }

// The text of a field as a record keeps it: new; an empty field is absent.
inline char *TextAt(const Seq *attr, size_t i) { return SafeStringDuplicate(AbsentIfEmpty(FieldAt(attr, i))); }

// The line number of a field, 0 when it is none. Nor is a negative number: kept as it is, it would be written as a huge
// one that never reads back.
inline size_t LineNumberAt(const Seq *attr, size_t i)
{
    return static_cast<size_t>(std::max(StringToLongDefaultOnError(FieldAt(attr, i), 0), 0L));
}

#endif
