// Classes of an evaluation context, and the walk over them.
#ifndef VELTRANE_CLASS_H
#define VELTRANE_CLASS_H

#include <veltrane/types.h>

VT_BEGIN_DECLS

struct Class_ {
    char *ns;         // NULL = default namespace
    char *name;       // canonified, without namespace
    StringSet *tags;  // never NULL in a context of ours (put without tags gives an empty set)
    bool is_soft;     // false = hard class
};

// new; "name" when ns is NULL or "default", else "ns:name"
char *ClassRefToString(const char *ns, const char *name);

// new; classes of the whole run, not those local to a bundle; ns NULL = all
ClassTableIterator *EvalContextClassTableIteratorNewGlobal(const EvalContext *ctx, const char *ns, bool is_hard,
                                                           bool is_soft);

// borrowed; NULL at the end; ascending by ns, name
Class *ClassTableIteratorNext(ClassTableIterator *iterator);
void ClassTableIteratorDestroy(ClassTableIterator *iterator);

VT_END_DECLS

#endif
