// A channel of the test's own, and what it holds, as the modules see it.
#ifndef UNIT_FLOW_CHANNEL_FIXTURE_H
#define UNIT_FLOW_CHANNEL_FIXTURE_H

#include <string>
#include <vector>

#include "clapi_channel.h"
#include "support/channel_bytes.h"
#include "unit/socketbuffer_fixture.h"

namespace unit {

// One container as a test makes it.
struct Contents {
    std::string name;
    ECI_CONTAINER_TYPE type;
    int ccsid;
    support::Bytes data;
};

inline Contents bits(const std::string& name, const support::Bytes& data)
{
    return Contents{name, ECI_BIT, 0, data};
}
inline Contents chars(const std::string& name, int ccsid, const support::Bytes& data)
{
    return Contents{name, ECI_CHAR, ccsid, data};
}

// A channel with these containers, in the order in which they are browsed and written.
class LocalChannel {
public:
    LocalChannel(const std::string& name, int ccsid, const std::vector<Contents>& containers)
    {
        EXPECT_RC(0, ECI_createChannel(name.c_str(), &token));
        for (auto one = containers.rbegin(); one != containers.rend(); ++one)
            EXPECT_RC(0, ECI_createContainer(token, one->name.c_str(), one->type, one->ccsid,
                                             one->data.data(), one->data.size()));
        token->ccsid = ccsid;
    }
    ~LocalChannel()
    {
        if (token != nullptr) ECI_deleteChannel(&token);
    }
    LocalChannel(const LocalChannel&) = delete;
    LocalChannel& operator=(const LocalChannel&) = delete;

    // The container of that place, the first is 0; null behind the last.
    ECI_Container_t* at(int place) const
    {
        ECI_Container_t* container = token->firstCont;
        for (; place > 0 && container != nullptr; --place) container = container->nextCont;
        return container;
    }

    // "NAME type ccsid data", in order; the name up to its first NUL.
    std::vector<std::string> contents() const
    {
        std::vector<std::string> all;
        for (const ECI_Container_t* one = token->firstCont; one != nullptr; one = one->nextCont)
            all.push_back(nameOf(one) + " " + std::to_string(one->type) + " " +
                          std::to_string(one->ccsid) + " " + support::toHex(dataOf(one)));
        return all;
    }

    // The names alone, with a blank between them.
    std::string names() const
    {
        std::string all;
        for (const ECI_Container_t* one = token->firstCont; one != nullptr; one = one->nextCont)
            all += (all.empty() ? "" : " ") + nameOf(one);
        return all;
    }

    static std::string nameOf(const ECI_Container_t* container)
    {
        return std::string(container->name, strnlen(container->name, 16));
    }

    static support::Bytes dataOf(const ECI_Container_t* container)
    {
        return support::Bytes(container->dataPtr, container->dataPtr + container->dataLength);
    }

    support::Bytes name() const { return support::Bytes(token->name, token->name + 16); }

    // The count is that of the list, every record is a container, and browsing stands inside.
    void expectConsistent() const
    {
        int walked = 0;
        bool cursorFound = token->currentCont == nullptr;
        for (const ECI_Container_t* one = token->firstCont; one != nullptr; one = one->nextCont) {
            walked += 1;
            ASSERT_LE(walked, 100000) << "the list has no end";
            EXPECT_EQ("QPXCONTA", std::string(one->eyecatcher, 8));
            EXPECT_EQ(one->dataLength == 0, one->dataPtr == nullptr) << nameOf(one);
            if (one == token->currentCont) cursorFound = true;
        }
        EXPECT_EQ(walked, token->numContainers.load());
        EXPECT_TRUE(cursorFound);
        EXPECT_EQ("QPXCHANN", std::string(token->eyecatcher, 8));
    }

    ECI_ChannelToken_t token = nullptr;
};

using Names = std::vector<std::string>;

} // namespace unit

#endif
