// Many requests on one connection: their message ids, and the tables that come and go with them.
#include <memory>
#include <vector>

#include "standin/gateway.h"
#include "support/connection_script.h"
#include "support/trace_file.h"

using namespace script;
using support::EciParms;
using support::syncCall;
using support::TraceFile;

namespace {

class ConnectionSlots : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_RC(QPX_OK, QPX_openRemoteGatewayConnection(localHost(), gateway.port(), &token, 30));
        gateway.hold();
    }
    void TearDown() override { EXPECT_RC(QPX_OK, QPX_closeGatewayConnection(&token)); }

    // So many calls at once, each with contents of its own, all of them waiting.
    void startCalls(std::size_t count)
    {
        for (std::size_t at = 0; at < count; ++at) {
            contents.push_back(filled(30, static_cast<unsigned char>(contents.size() + 1)));
            records.push_back(std::make_unique<EciParms>(syncCall("ECHO", contents.back())));
            calls.push_back(callInThread([gwTok = token, record = &records.back()->record] {
                return QPX_ECI_Execute(gwTok, record);
            }));
            ASSERT_TRUE(gateway.awaitHeld(calls.size()));
        }
    }

    void expectAllAnswered()
    {
        for (std::size_t at = 0; at < calls.size(); ++at) {
            EXPECT_RC(QPX_OK, calls[at].get());
            EXPECT_EQ(contents[at], records[at]->commarea());
        }
    }

    std::vector<int> messageIds() const
    {
        std::vector<int> ids;
        for (const standin::ReceivedRequest& request : gateway.requests())
            ids.push_back(request.header.messageId);
        return ids;
    }

    standin::Gateway gateway;
    QPX_ConnToken_t token = nullptr;
    std::vector<Bytes> contents;
    std::vector<std::unique_ptr<EciParms>> records;
    std::vector<support::RunningCall<int>> calls;
};

TEST_F(ConnectionSlots, GiveConsecutiveMessageIdsToConcurrentRequests)
{
    startCalls(16);

    std::vector<int> expected;
    for (int id = 1; id <= 16; ++id) expected.push_back(id);
    EXPECT_EQ(expected, messageIds());
    gateway.release();
    expectAllAnswered();
}

TEST_F(ConnectionSlots, GiveMessageIdSeventeenToTheSeventeenthRequest)
{
    TraceFile trace(4);

    startCalls(17);

    EXPECT_EQ(17, messageIds().back());
    EXPECT_EQ(1, trace.timesWroteText("clapi_gwytok.slotFind() Created new slot table at "
                                      "slotP=<ptr>, first=17, last=32\n"));
    gateway.release();
    expectAllAnswered();
    EXPECT_EQ(1, trace.timesWroteText("clapi_gwytok.slotFree() Freeing slot table at "
                                      "slotP=<ptr>, first=17, last=32\n"));
}

TEST_F(ConnectionSlots, GrowOnlyForTheSeventeenthRequest)
{
    TraceFile trace(4);

    startCalls(16);

    EXPECT_FALSE(trace.wroteText("Created new slot table"));
    gateway.release();
    expectAllAnswered();
}

TEST_F(ConnectionSlots, UseAMessageIdAgainWhenItsRequestIsOver)
{
    startCalls(3);
    EXPECT_EQ(1U, gateway.releaseMessage(2));
    EXPECT_RC(QPX_OK, calls[1].get());
    EciParms next = syncCall("ECHO", text("next"));
    auto call = callInThread([&] { return QPX_ECI_Execute(token, &next.record); });
    ASSERT_TRUE(gateway.awaitHeld(3));

    EXPECT_EQ(2, messageIds().back());

    gateway.release();
    EXPECT_RC(QPX_OK, call.get());
    EXPECT_RC(QPX_OK, calls[0].get());
    EXPECT_RC(QPX_OK, calls[2].get());
}

TEST_F(ConnectionSlots, AnswerEachOfFortyRequestsInTheReversedOrder)
{
    startCalls(40);
    EXPECT_EQ(40, messageIds().back());

    EXPECT_EQ(40U, gateway.releaseReversed());

    expectAllAnswered();
}

} // namespace
