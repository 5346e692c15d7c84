// From the texts of a test to the library's lists, and back.
#ifndef TESTS_SUPPORT_TEXTS_H
#define TESTS_SUPPORT_TEXTS_H

#include <string>
#include <vector>

#include <veltrane/owned.h>
#include <veltrane/rlist.h>
#include <veltrane/seq.h>

using Texts = std::vector<std::string>;

// The texts that a Seq holds; an empty slot reads "(empty)". None for NULL.
inline Texts SeqTexts(const Seq *seq)
{
    Texts texts;
    for (size_t i = 0; seq != nullptr && i < SeqLength(seq); ++i) {
        const char *text = static_cast<const char *>(SeqAt(seq, i));
        texts.emplace_back(text != nullptr ? text : "(empty)");
    }
    return texts;
}

// A new list of scalars.
inline veltrane::RlistPtr RlistOf(const Texts &texts)
{
    Rlist *list = nullptr;
    for (const std::string &text : texts) { RlistAppendScalar(&list, text.c_str()); }
    return veltrane::RlistPtr(list);
}

// The same as a value, for whoever takes it over.
inline Rval ListRval(const Texts &texts) { return {RlistOf(texts).release(), RVAL_TYPE_LIST}; }

#endif
