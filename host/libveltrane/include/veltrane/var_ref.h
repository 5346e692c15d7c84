// Names of variables, taken apart.
#ifndef VELTRANE_VAR_REF_H
#define VELTRANE_VAR_REF_H

#include <veltrane/types.h>

VT_BEGIN_DECLS

struct VarRef_ {
    char *ns;        // NULL = none said
    char *scope;     // NULL = none said
    char *lval;      // name without indices, never NULL
    char **indices;  // num_indices texts, NULL when there are none
    size_t num_indices;
};

// new; "ns:scope.lval[i][j]", each lead optional
VarRef *VarRefParse(const char *qualified_name);

// new; the name stays inside scope: ':' and '.' in it are part of lval, only trailing [..] are split off
VarRef *VarRefParseFromScope(const char *name, const char *scope);

// new; like VarRefParse, ns and scope default to the bundle's
VarRef *VarRefParseFromBundle(const char *qualified_name, const Bundle *bundle);
void VarRefDestroy(VarRef *ref);

VT_END_DECLS

#endif
