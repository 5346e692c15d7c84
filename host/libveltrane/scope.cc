// The names of the scopes that the host itself fills.
#include <veltrane/scope.h>

const char *SpecialScopeToString(SpecialScope scope)
{
    switch (scope) {
        case SPECIAL_SCOPE_CONST:
            return "const";
        case SPECIAL_SCOPE_EDIT:
            return "edit";
        case SPECIAL_SCOPE_MATCH:
            return "match";
        case SPECIAL_SCOPE_MON:
            return "mon";
        case SPECIAL_SCOPE_SYS:
            return "sys";
        case SPECIAL_SCOPE_THIS:
            return "this";
        case SPECIAL_SCOPE_BODY:
            return "body";
        case SPECIAL_SCOPE_DEF:
            return "def";
        case SPECIAL_SCOPE_NONE:
            break;
    }
    return nullptr;
}
