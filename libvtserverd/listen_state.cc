// Whether the server daemon listens: as policy says, but a hub or policy server always does, for its hosts could not
// reach it to fetch a policy that says otherwise.
#include <veltrane/eval_context.h>

#include "libvtenterprise/entry_points_real.h"

int SetServerListenState__real(EvalContext *ctx, size_t queue_size, char *bind_address, bool server_listen,
                               InitServerFunction InitServerPtr) noexcept
{
    if (!server_listen && CheckClassExpression(ctx, "am_policy_hub") != EXPRESSION_VALUE_TRUE &&
        CheckClassExpression(ctx, "policy_server") != EXPRESSION_VALUE_TRUE) {
        return -1;
    }
    return InitServerPtr(queue_size, bind_address);
}
