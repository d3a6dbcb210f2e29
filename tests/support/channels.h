// Channels as tests make and read them.
//
//     Channel channel;
//     channel.addBit("CUSTOMER", "4711");
//     EXPECT_EQ("CUSTOMER", channel.first());
//     EXPECT_EQ("-54", channel.next());
//
// Works with the library's exported calls only.
#ifndef SUPPORT_CHANNELS_H
#define SUPPORT_CHANNELS_H

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "qpxclient_eci.h"
#include "support/expect_rc.h"
#include "support/trace_file.h"
#include "support/trace_reads.h"

namespace support {

// A channel that is deleted with the object.
class Channel {
public:
    explicit Channel(const char* name = "ORDER")
    {
        if (ECI_createChannel(name, &token) != 0) throw std::runtime_error("no channel");
    }
    ~Channel()
    {
        if (token != nullptr) ECI_deleteChannel(&token);
    }
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;

    void addBit(const char* name, const std::string& data = "") const
    {
        add(name, ECI_BIT, 0, data);
    }
    void addChar(const char* name, int ccsid, const std::string& data = "") const
    {
        add(name, ECI_CHAR, ccsid, data);
    }

    // The container that browsing comes to: its name, or the return code as text.
    std::string first() const
    {
        ECI_CONTAINER_INFO info;
        int rc = ECI_getFirstContainer(token, &info);
        return rc == 0 ? std::string(info.name) : std::to_string(rc);
    }
    std::string next() const
    {
        ECI_CONTAINER_INFO info;
        int rc = ECI_getNextContainer(token, &info);
        return rc == 0 ? std::string(info.name) : std::to_string(rc);
    }

    // All containers from the first on; browsing begins anew afterwards.
    std::vector<std::string> names() const
    {
        std::vector<std::string> all;
        for (std::string name = first(); name != "-54"; name = next()) all.push_back(name);
        return all;
    }

    ECI_CONTAINER_INFO info(const char* name) const
    {
        ECI_CONTAINER_INFO info;
        int rc = ECI_getContainerInfo(token, name, &info);
        if (rc != 0) throw std::runtime_error("no information: " + rcName(rc));
        return info;
    }

    std::string data(const char* name) const
    {
        std::string all(info(name).dataLength + 1, '?');
        std::size_t count = 0;
        int rc = ECI_getContainerData(token, name, &all[0], all.size(), 0, &count);
        if (rc != 0) throw std::runtime_error("no data: " + rcName(rc));
        all.resize(count);
        return all;
    }

    ECI_ChannelToken_t token = nullptr;

private:
    void add(const char* name, ECI_CONTAINER_TYPE type, int ccsid, const std::string& data) const
    {
        int rc = ECI_createContainer(token, name, type, ccsid, data.data(), data.size());
        if (rc != 0) throw std::runtime_error("no container: " + rcName(rc));
    }
};

// ECI_createContainer as a C program may call it: with any number for a type.
inline int createOfType(int type, ECI_ChannelToken_t chanTok, const char* name, const void* data,
                        std::size_t length)
{
    using WithNumber = int (*)(ECI_ChannelToken_t, const char*, int, int, const void*, std::size_t);
    auto create = reinterpret_cast<WithNumber>(&ECI_createContainer);
    return create(chanTok, name, type, 0, data, length);
}

// The local code page is worked out, so that the trace of later calls does not show it.
inline void settleCodePage()
{
    ECI_createContainer(nullptr, "X", ECI_BIT, 0, nullptr, 0);
}

} // namespace support

#endif
