// Calls at the edge of what they check: a transaction program of which one byte is set, a COMMAREA
// of one byte, a reply of one byte for a caller who has no room.
#include <gtest/gtest.h>

#include <string>

#include "support/eci_script.h"

using namespace script;
using support::asyncCall;
using support::eciCall;
using support::EciParms;
using support::slice;
using support::syncCall;
using support::toHex;
using support::TraceFile;

namespace {

class EciEdge : public ::testing::Test {
protected:
    Request requestOf(EciParms& parms)
    {
        auto call = connection.start(parms);
        Request request = connection.awaitRequest();
        connection.peer.send(ProgramReply().to(request.messageId()));
        EXPECT_RC(0, call.get());
        return request;
    }

    ScriptedConnection connection;
};

} // namespace

TEST_F(EciEdge, TransactionProgramIsNamedByItsLastByteAlone)
{
    EciParms parms = syncCall("PROG");
    parms.withTransid("TRN1");
    parms.record.eci_tpn[3] = 'X';

    Request request = requestOf(parms);

    EXPECT_EQ("0000000C", toHex(slice(request.body, 0, 4)));
    EXPECT_EQ("00000058", toHex(slice(request.body, 57, 4)));
}

TEST_F(EciEdge, CommareaOfOneByteIsTraced)
{
    TraceFile trace(4);
    EciParms parms = syncCall("PROG", text("x"));

    requestOf(parms);

    EXPECT_TRUE(trace.wrote(1561, "API.QPX_ECI_Execute() Commarea=" + shown(parms.area.data()) +
                                      " len=1 stopword=00000000"));
}

TEST_F(EciEdge, ReplyOfOneByteIsTooLongForACallerWithoutACommarea)
{
    EciParms parms = asyncCall("LATER", filled(8));
    EXPECT_RC(0, QPX_ECI_Execute(connection.token, &parms.record));
    Request request = connection.awaitRequest();
    connection.peer.send(ProgramReply().commarea(text("x")).to(request.messageId()));

    EciParms collecting = eciCall(ECI_GET_REPLY_WAIT, "", {});
    EXPECT_RC(ECI_ERR_INVALID_DATA_LENGTH, QPX_ECI_Execute(connection.token, &collecting.record));

    EXPECT_EQ(1, collecting.record.eci_commarea_length);
    EciParms again = eciCall(ECI_GET_REPLY_WAIT, "", filled(1));
    EXPECT_RC(0, QPX_ECI_Execute(connection.token, &again.record));
    EXPECT_EQ(text("x"), again.commarea());
}
