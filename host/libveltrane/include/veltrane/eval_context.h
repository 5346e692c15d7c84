// The evaluation context: classes, variables, and the stack of what is being evaluated.
#ifndef VELTRANE_EVAL_CONTEXT_H
#define VELTRANE_EVAL_CONTEXT_H

#include <veltrane/logging.h>
#include <veltrane/rval.h>
#include <veltrane/scope.h>
#include <veltrane/types.h>

VT_BEGIN_DECLS

// new, empty: no classes, no variables, empty stack
EvalContext *EvalContextNew(void);
void EvalContextDestroy(EvalContext *ctx);

// Classes. A name may be "ns:name"; the name is canonified. Putting a class again replaces its tags. Tags are
// comma-separated, NULL = none.
void EvalContextClassPutHard(EvalContext *ctx, const char *name, const char *tags);
void EvalContextClassPutSoft(EvalContext *ctx, const char *name, const char *tags);

// false when it was not defined
bool EvalContextClassRemove(EvalContext *ctx, const char *name);

// The whole name, then each prefix cut at an underscore from the right, never the empty one: vesk_3_27_0, vesk_3_27,
// vesk_3, vesk, all with the given tags. A class already defined keeps the tags it has.
void CreateHardClassesFromCanonification(EvalContext *ctx, const char *canonified, const char *tags);

// Borrowed: canonified names of all classes now defined; NULL unless the class history is enabled.
const StringSet *EvalContextAllClassesGet(const EvalContext *ctx);

// Enabling runs Vesk_ClassHistoryEnable on that set, then adds the classes already defined.
void EvalContextClassHistoryEnable(EvalContext *ctx, bool enable);
typedef enum { EXPRESSION_VALUE_ERROR = -1, EXPRESSION_VALUE_FALSE = 0, EXPRESSION_VALUE_TRUE = 1 } ExpressionValue;

// names with . & | ! ( ); malformed or empty = ERROR
ExpressionValue CheckClassExpression(const EvalContext *ctx, const char *expression);

// Variables. value is const char *, Rlist * or JsonElement * as type says, and is copied; a NULL value counts as ""
// or an empty list.
bool EvalContextVariablePut(EvalContext *ctx, const VarRef *ref, const void *value, DataType type, const char *tags);

// Both puts: true when stored (a later put replaces), false for a bad ref or type
bool EvalContextVariablePutSpecial(EvalContext *ctx, SpecialScope scope, const char *lval, const void *value,
                                   DataType type, const char *tags);

// borrowed; NULL when unknown (*ret_type = VT_DATA_TYPE_NONE); ret_type may be NULL
const void *EvalContextVariableGet(const EvalContext *ctx, const VarRef *ref, DataType *ret_type);
typedef enum {
    COMMON_CONTROL_PROTOCOL_VERSION = 0,
    COMMON_CONTROL_PACKAGE_INVENTORY = 1,
    COMMON_CONTROL_LASTSEEN_EXPIRE_AFTER = 2,
    COMMON_CONTROL_MAX = 3
} CommonControl;

// borrowed text of the control body's attribute; NULL when policy does not set it
const char *EvalContextVariableControlCommonGet(const EvalContext *ctx, CommonControl lval);
void EvalContextVariableControlCommonPut(EvalContext *ctx, CommonControl lval, const char *value);

// borrowed scalars: the names of the default inventory's package modules; NULL = none
Rlist *GetDefaultInventoryFromContext(const EvalContext *ctx);

// Stack: bundle, section, promise, iteration, in that nesting; pushed and popped by the evaluator (and by tests)
void EvalContextStackPushBundle(EvalContext *ctx, const Bundle *bundle);
void EvalContextStackPushSection(EvalContext *ctx, const BundleSection *section);
void EvalContextStackPushPromise(EvalContext *ctx, const Promise *pp);

// starts with an empty message ring
void EvalContextStackPushIteration(EvalContext *ctx, const Promise *expanded, size_t index);
void EvalContextStackPop(EvalContext *ctx);

// new: "/<ns>/<bundle>/<promise type>/'<promiser>'[<index>]" per nesting; "" at rest
char *EvalContextStackPath(const EvalContext *ctx);

// new: promisees of every promise on the stack; an empty set, never NULL
StringSet *EvalContextStackPromisees(const EvalContext *ctx);

// borrowed: messages of the iteration on top, oldest first; NULL outside one
RingBuffer *EvalContextStackCurrentMessages(const EvalContext *ctx);

// param is the EvalContext; keeps a copy of the message in that ring
void HubviewLogHook(LoggingPrivContext *log_ctx, LogLevel level, const char *message);

// critical log, then exit(255); ctx may be NULL; never returns
void FatalError(const EvalContext *ctx, const char *format, ...) VT_PRINTF(2, 3);

VT_END_DECLS

#endif
