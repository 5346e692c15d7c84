// Whether the server daemon listens.
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <veltrane/eval_context.h>
#include <veltrane/owned.h>

#include "libvtenterprise/entry_points_real.h"
#include "tests/support/log_capture.h"

namespace {

using ::testing::IsEmpty;

// What the opener of the socket was asked for.
struct Opened {
    int calls = 0;
    size_t queue_size = 0;
    std::string bind_address;
};
Opened opened;

int Open(size_t queue_size, char *bind_address)
{
    opened = {opened.calls + 1, queue_size, bind_address};
    return 42;
}

int Refuse(size_t, char *)
{
    opened.calls++;
    return -1;
}

class ListenState : public ::testing::Test {
  protected:
    ListenState() : ctx_(EvalContextNew()) { opened = Opened(); }

    int Set(bool server_listen, InitServerFunction open = Open)
    {
        std::string address = "192.0.2.1";
        return SetServerListenState__real(ctx_.get(), 7, address.data(), server_listen, open);
    }

    veltrane::EvalContextPtr ctx_;
    LogCapture log_;
};

}  // namespace

TEST_F(ListenState, AHostWhosePolicyLetsItListenOpensItsSocket)
{
    EXPECT_EQ(Set(true), 42);

    EXPECT_EQ(opened.calls, 1);
    EXPECT_EQ(opened.queue_size, 7U);
    EXPECT_EQ(opened.bind_address, "192.0.2.1");
}

TEST_F(ListenState, AnOrdinaryHostWhosePolicyForbidsItOpensNone)
{
    EvalContextClassPutHard(ctx_.get(), "debian", nullptr);

    EXPECT_EQ(Set(false), -1);

    EXPECT_EQ(opened.calls, 0);
    EXPECT_THAT(log_.lines, IsEmpty());
}

TEST_F(ListenState, APolicyServerListensWhateverPolicySays)
{
    EvalContextClassPutHard(ctx_.get(), "policy_server", nullptr);

    EXPECT_EQ(Set(false), 42);
    EXPECT_EQ(opened.queue_size, 7U);
    EXPECT_EQ(opened.bind_address, "192.0.2.1");
}

TEST_F(ListenState, AHubListensWhateverPolicySays)
{
    EvalContextClassPutHard(ctx_.get(), "am_policy_hub", nullptr);

    EXPECT_EQ(Set(false), 42);
}

TEST_F(ListenState, ASocketThatCannotBeOpenedIsNone)
{
    EXPECT_EQ(Set(true, Refuse), -1);
    EXPECT_EQ(opened.calls, 1);
}
