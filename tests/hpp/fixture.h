// What the tests of qpxclient.hpp have in common: a Gateway in the process, a connection to it, and
// results looked at.
#ifndef HPP_FIXTURE_H
#define HPP_FIXTURE_H

#include <gtest/gtest.h>

#include <string>

#include "qpxclient.hpp"
#include "standin/gateway.h"
#include "support/expect_rc.h"

namespace hpp {

// The data of a call as text, and the other way round.
inline std::string text(const standin::Bytes& bytes)
{
    return std::string(bytes.begin(), bytes.end());
}
inline standin::Bytes bytes(const std::string& text)
{
    return standin::Bytes(text.begin(), text.end());
}

class WithGateway : public ::testing::Test {
protected:
    qpx::Connection connect() { return qpx::Connection::open("127.0.0.1", gateway.port()).value(); }

    // The request that came last.
    standin::EciRequest lastRequest()
    {
        auto request = gateway.lastRequest();
        EXPECT_TRUE(request && request->eci);
        return request && request->eci ? *request->eci : standin::EciRequest();
    }

    standin::Gateway gateway;
};

class WithConnection : public WithGateway {
protected:
    qpx::Connection connection = connect();
    const qpx::Call echo{"ECHO"};
};

} // namespace hpp

#define EXPECT_FAILURE(expected, expression) EXPECT_RC((expected), (expression).code())

#endif
