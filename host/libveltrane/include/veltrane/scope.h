// The scopes that the host itself fills.
#ifndef VELTRANE_SCOPE_H
#define VELTRANE_SCOPE_H

#include <veltrane/types.h>

VT_BEGIN_DECLS

typedef enum {
    SPECIAL_SCOPE_CONST = 0,
    SPECIAL_SCOPE_EDIT = 1,
    SPECIAL_SCOPE_MATCH = 2,
    SPECIAL_SCOPE_MON = 3,
    SPECIAL_SCOPE_SYS = 4,
    SPECIAL_SCOPE_THIS = 5,
    SPECIAL_SCOPE_BODY = 6,
    SPECIAL_SCOPE_DEF = 7,
    SPECIAL_SCOPE_NONE = 8
} SpecialScope;

// static "const", "edit", "match", "mon", "sys", "this", "body", "def"; NULL for 8
const char *SpecialScopeToString(SpecialScope scope);

VT_END_DECLS

#endif
