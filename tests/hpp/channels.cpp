// Channels as values.
#include "fixture.h"

using namespace hpp;

namespace {

class Channels : public WithConnection {
protected:
    qpx::Channel channel = qpx::Channel::create("ORDER").value();
};

} // namespace

TEST_F(Channels, HoldWhatIsPutIntoThem)
{
    ASSERT_TRUE(channel.addText("TEXT", "Gr\xC3\xBC\xC3\x9F"));
    ASSERT_TRUE(channel.addBytes("BYTES", std::string_view("\0\1\2", 3)));
    EXPECT_EQ("ORDER", channel.name().value());
    EXPECT_EQ("Gr\xC3\xBC\xC3\x9F", channel.data("TEXT").value());
    EXPECT_EQ(std::string("\0\1\2", 3), channel.data("BYTES").value());
    const auto all = channel.containers().value();
    ASSERT_EQ(2u, all.size());
    EXPECT_EQ("BYTES", all[0].name);
    EXPECT_FALSE(all[0].isText);
    EXPECT_EQ("TEXT", all[1].name);
    EXPECT_TRUE(all[1].isText);
    EXPECT_EQ(1208, all[1].ccsid);
    EXPECT_EQ(6u, all[1].size);
}

TEST_F(Channels, TakeNamesThatAreNotTerminated)
{
    const std::string_view longer = "NAMESAKE";
    ASSERT_TRUE(channel.addBytes(longer.substr(0, 4), "x"));
    EXPECT_EQ("NAME", channel.containers().value().at(0).name);
}

TEST_F(Channels, ReplaceAndEraseContainers)
{
    ASSERT_TRUE(channel.addText("TEXT", "old", 819));
    ASSERT_TRUE(channel.replace("TEXT", "newer"));
    EXPECT_EQ("newer", channel.data("TEXT").value());
    EXPECT_EQ(819, channel.info("TEXT").value().ccsid);
    ASSERT_TRUE(channel.erase("TEXT"));
    EXPECT_FAILURE(ECI_ERR_CONTAINER_NOTFOUND, channel.data("TEXT"));
    EXPECT_TRUE(channel.containers().value().empty());
}

TEST_F(Channels, ReadAContainerWithoutData)
{
    ASSERT_TRUE(channel.addBytes("EMPTY", ""));
    EXPECT_EQ("", channel.data("EMPTY").value());
}

TEST_F(Channels, AreDeletedWhenTheirValueGoes)
{
    ECI_ChannelToken_t token = nullptr;
    {
        qpx::Channel other = qpx::Channel::create("OTHER").value();
        token = other.native();
    }
    char name[ECI_NAME_SIZE];
    EXPECT_RC(ECI_ERR_INVALID_CHANNEL, ECI_getChannelName(token, name));
}

TEST_F(Channels, ThatWereMovedFromAreRefused)
{
    qpx::Channel moved = std::move(channel);
    EXPECT_FAILURE(ECI_ERR_INVALID_CHANNEL, channel.name());
    EXPECT_FAILURE(ECI_ERR_INVALID_CHANNEL, connection.call(qpx::Call("CHANECHO"), channel));
    EXPECT_FAILURE(ECI_ERR_INVALID_CHANNEL,
                   connection.start(qpx::Call("CHANECHO"), std::move(channel)));
    EXPECT_EQ("ORDER", moved.name().value());
}

TEST_F(Channels, ComeBackFromACallAsTheProgramHasLeftThem)
{
    gateway.setReply("GREET", [](const standin::EciRequest& request) {
        standin::EciReply reply = standin::EciReply::to(request);
        standin::ChannelChanges changes(*request.channel);
        changes.replaceData("NAME", bytes("Hello"));
        reply.channel = changes.records();
        return reply;
    });
    ASSERT_TRUE(channel.addBytes("NAME", "FRED"));
    ASSERT_TRUE(connection.call(qpx::Call("GREET"), channel));
    EXPECT_EQ("Hello", channel.data("NAME").value());
}
