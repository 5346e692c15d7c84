// Variables of an evaluation context, and the walk over them.
#ifndef VELTRANE_VARIABLE_H
#define VELTRANE_VARIABLE_H

#include <veltrane/rval.h>
#include <veltrane/types.h>

VT_BEGIN_DECLS

// borrowed, never NULL; its ns is NULL for the default namespace
const VarRef *VariableGetRef(const Variable *variable);
DataType VariableGetType(const Variable *variable);

// false: borrowed, do not destroy; true: new
Rval VariableGetRval(const Variable *variable, bool copy);

// borrowed; NULL when it was put without tags
const StringSet *VariableGetTags(const Variable *variable);

// new; NULL matches all; the context must not change meanwhile
VariableTableIterator *EvalContextVariableTableIteratorNew(const EvalContext *ctx, const char *ns, const char *scope,
                                                           const char *lval);

// borrowed; NULL at the end; ascending by ns, scope, lval, indices
Variable *VariableTableIteratorNext(VariableTableIterator *iterator);
void VariableTableIteratorDestroy(VariableTableIterator *iterator);

VT_END_DECLS

#endif
