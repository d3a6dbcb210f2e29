// Random sequences of calls on channels and containers, and of changes that replies make to them,
// against a model of lists. Freed records come back at their old addresses, and now and then there
// is no memory for an index.
//
// Input: one operation after another.
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "clapi_channel.h"
#include "clapi_rc.h"
#include "clapi_socketcomms.h"
#include "input.h"
#include "qpxclient_eci.h"
#include "wire.h"
#include "world.h"

namespace {

constexpr std::size_t CHANNELS = 4;
constexpr std::size_t MOST_CONTAINERS = 300;

struct Container {
    std::string name; // up to its end
    int type;
    int ccsid;
    std::string data;
};

// The newest container is the first.
struct Channel {
    std::string name;
    int ccsid = CCSID_UNKNOWN;
    std::deque<Container> containers;
    int current = -1; // where browsing stands; -1 for before the first

    int find(const std::string& wanted) const
    {
        for (std::size_t i = 0; i < containers.size(); ++i)
            if (containers[i].name == wanted) return static_cast<int>(i);
        return -1;
    }
    void add(const Container& container)
    {
        containers.push_front(container);
        if (current >= 0) current += 1;
    }
    void remove(int at)
    {
        containers.erase(containers.begin() + at);
        if (current >= at) current -= 1;
    }
};

using Input = InputBytes;

std::string nameOf(std::uint32_t number)
{
    static const char* const ODD[] = {"SIXTEENLETTERSOK",  "SIXTEENLETTERSOL",
                                      "SEVENTEENLETTERSX", "",
                                      "not allowed",       "FIFTEENLETTERSO"};
    if (number >= 250) return ODD[number - 250];
    return "C" + std::to_string(number % 90);
}

bool isName(const std::string& name)
{
    return !name.empty() && name.size() <= 16 && name.find(' ') == std::string::npos;
}

std::string dataOf(std::uint32_t length, std::uint32_t seed)
{
    std::string data(length, '\0');
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(seed + i);
    return data;
}

class Calls {
public:
    Calls(const std::uint8_t* data, std::size_t size) : input_(data, size)
    {
        world::begin();
        world::rules.reusesBlocks = true;
        blocksBefore_ = world::liveBlocks();
    }

    void run()
    {
        for (int operations = 0; !input_.isOver() && operations < 60; ++operations) step();
        for (std::size_t i = 0; i < CHANNELS; ++i) compare(i);
        world::rules.noTables = false;
        FUZZ_CHECK(ECI_deleteAllChannels() == ECI_NO_ERROR, "the channels stay");
        if (world::liveBlocks() != blocksBefore_) world::showBlocks(0);
        FUZZ_CHECK(world::liveBlocks() == blocksBefore_, "%ld blocks are left over",
                   world::liveBlocks() - blocksBefore_);
        FUZZ_CHECK(world::heldLocks() == 0, "%d locks are held", world::heldLocks());
    }

private:
    void step()
    {
        std::uint32_t operation = input_.byte() % 20;
        std::size_t which = input_.byte() % CHANNELS;
        switch (operation) {
        case 0: create(which); break;
        case 1: drop(which); break;
        case 2: dropAll(); break;
        case 3: addSome(which, 1); break;
        case 4: addSome(which, 1 + static_cast<int>(input_.byte() % 80)); break;
        case 5: removeSome(which, 1); break;
        case 6: removeSome(which, 1 + static_cast<int>(input_.byte() % 80)); break;
        case 7: replace(which); break;
        case 8: describe(which); break;
        case 9: read(which); break;
        case 10: browse(which, true); break;
        case 11:
        case 12: browse(which, false); break;
        case 13:
        case 14: reply(which); break;
        case 15: useStale(which); break;
        case 16: world::rules.noTables = input_.byte() % 2 == 1; break;
        case 17: crowd(); break;
        case 18: fork(); break;
        default: compare(which); break;
        }
    }

    Channel& model(std::size_t which) { return models_[which]; }

    void expect(int rc, int expected, const char* call)
    {
        FUZZ_CHECK(rc == expected, "%s gives %d, not %d", call, rc, expected);
    }

    // Mostly the name of a container that is there.
    std::string nameIn(std::size_t which, std::uint32_t number)
    {
        const std::deque<Container>& all = models_[which].containers;
        return number < 160 && !all.empty() ? all[number % all.size()].name : nameOf(number);
    }

    // What a call on a channel gives, or that there is none.
    int orNone(std::size_t which, int rc) const
    {
        return handles_[which] != nullptr ? rc : ECI_ERR_INVALID_CHANNEL;
    }

    void create(std::size_t which)
    {
        if (handles_[which] != nullptr) return;
        std::string name = nameOf(input_.byte());
        int rc = ECI_createChannel(name.c_str(), &handles_[which]);
        expect(rc, isName(name) ? ECI_NO_ERROR : ECI_ERR_INVALID_NAME, "creating a channel");
        models_[which] = Channel{};
        models_[which].name = name;
    }

    void drop(std::size_t which)
    {
        if (handles_[which] != nullptr) stale_[which] = handles_[which];
        int expected = orNone(which, ECI_NO_ERROR);
        expect(ECI_deleteChannel(&handles_[which]), expected, "deleting");
        FUZZ_CHECK(handles_[which] == nullptr, "the handle stays");
    }

    void dropAll()
    {
        expect(ECI_deleteAllChannels(), ECI_NO_ERROR, "deleting all");
        for (std::size_t i = 0; i < CHANNELS; ++i) {
            if (handles_[i] != nullptr) stale_[i] = handles_[i];
            handles_[i] = nullptr;
        }
    }

    // From here on this is the child of a fork, which has the channels, and has lost their indexes.
    void fork()
    {
        for (const ECI_Channel_t* channel : handles_)
            if (channel != nullptr && channel->index != nullptr) blocksBefore_ += 1;
        clapiChannelsForkPrepare();
        clapiChannelsForkChild();
    }

    // More channels than the set of them begins with.
    void crowd()
    {
        std::vector<ECI_ChannelToken_t> many(200 + input_.byte(), nullptr);
        std::size_t stride = 1 + input_.byte() % 7;
        for (ECI_ChannelToken_t& one : many)
            expect(ECI_createChannel("CROWD", &one), ECI_NO_ERROR, "creating many channels");
        for (std::size_t from = 0; from < stride; ++from)
            for (std::size_t i = from; i < many.size(); i += stride)
                expect(ECI_deleteChannel(&many[i]), ECI_NO_ERROR, "deleting many channels");
    }

    // The handle of a channel that is no more, unless its address is that of another.
    void useStale(std::size_t which)
    {
        ECI_ChannelToken_t handle = stale_[which];
        for (ECI_ChannelToken_t one : handles_)
            if (one == handle) return;
        std::uint32_t way = input_.byte();
        if (way % 4 == 3) handle = reinterpret_cast<ECI_ChannelToken_t>(std::uintptr_t{way * 16});
        char name[ECI_NAME_SIZE];
        ECI_CONTAINER_INFO info;
        int rc = 0;
        if (way % 4 == 0)
            rc = ECI_getChannelName(handle, name);
        else if (way % 4 == 1)
            rc = ECI_createContainer(handle, "C", ECI_BIT, 0, nullptr, 0);
        else if (way % 4 == 2)
            rc = ECI_deleteChannel(&handle);
        else
            rc = ECI_getFirstContainer(handle, &info);
        expect(rc, ECI_ERR_INVALID_CHANNEL, "a handle of no channel");
    }

    void addSome(std::size_t which, int count)
    {
        std::uint32_t first = input_.byte();
        std::uint32_t kind = input_.byte();
        bool isLong = kind >= 253 && count == 1;
        std::string data = dataOf(isLong ? (kind - 252) * 400000 : kind % 20, first);
        for (int i = 0; i < count; ++i)
            add(which, first + static_cast<std::uint32_t>(i), kind, data);
    }

    void add(std::size_t which, std::uint32_t number, std::uint32_t kind, const std::string& data)
    {
        std::string name = nameOf(number % 256);
        int type = kind % 16 == 15 ? 3 : (kind & 1U) != 0 ? ECI_CHAR : ECI_BIT;
        int given = (kind & 2U) != 0 ? 1208 : 0;
        int expected = ECI_NO_ERROR;
        Channel& channel = model(which);
        if (handles_[which] == nullptr)
            expected = ECI_ERR_INVALID_CHANNEL;
        else if (type == 3)
            expected = ECI_ERR_INVALID_TYPE;
        else if (!isName(name))
            expected = ECI_ERR_INVALID_NAME;
        else if (channel.find(name) >= 0)
            expected = ECI_ERR_CONTAINER_EXISTS;
        ECI_CONTAINER_TYPE passed;
        std::memcpy(&passed, &type, sizeof passed);
        int rc = ECI_createContainer(handles_[which], name.c_str(), passed, given, data.data(),
                                     data.size());
        expect(rc, expected, "adding a container");
        if (rc != ECI_NO_ERROR) return;
        int ccsid = 0;
        if (type == ECI_CHAR) {
            if (channel.ccsid == CCSID_UNKNOWN) channel.ccsid = given != 0 ? given : 819;
            ccsid = given != 0 ? given : channel.ccsid;
        }
        channel.add({name, type, ccsid, data});
    }

    void removeSome(std::size_t which, int count)
    {
        std::uint32_t first = input_.byte();
        for (int i = 0; i < count; ++i) {
            std::string name = nameIn(which, (first + static_cast<std::uint32_t>(i)) % 256);
            Channel& channel = model(which);
            int at = channel.find(name);
            int expected = at >= 0 ? ECI_NO_ERROR : ECI_ERR_CONTAINER_NOTFOUND;
            if (handles_[which] == nullptr)
                expected = ECI_ERR_INVALID_CHANNEL;
            else if (!isName(name))
                expected = ECI_ERR_INVALID_NAME;
            expect(ECI_deleteContainer(handles_[which], name.c_str()), expected, "removing");
            if (expected == ECI_NO_ERROR) channel.remove(at);
        }
    }

    // What a call gives that is for one container; *at is where that is.
    int wanted(std::size_t which, const std::string& name, int* at)
    {
        if (handles_[which] == nullptr) return ECI_ERR_INVALID_CHANNEL;
        if (!isName(name)) return ECI_ERR_INVALID_NAME;
        *at = model(which).find(name);
        return *at >= 0 ? ECI_NO_ERROR : ECI_ERR_CONTAINER_NOTFOUND;
    }

    void replace(std::size_t which)
    {
        std::string name = nameIn(which, input_.byte());
        std::uint32_t length = input_.byte();
        std::string data = dataOf(length >= 253 ? (length - 252) * 400000 : length % 30, length);
        int at = 0;
        int expected = wanted(which, name, &at);
        int rc = ECI_setContainerData(handles_[which], name.c_str(), data.data(), data.size());
        expect(rc, expected, "replacing data");
        if (rc == ECI_NO_ERROR) model(which).containers[static_cast<std::size_t>(at)].data = data;
    }

    void expectInfo(const ECI_CONTAINER_INFO& info, const Container& container)
    {
        char name[ECI_NAME_SIZE];
        std::memcpy(name, info.name, sizeof name);
        FUZZ_CHECK(container.name == name, "info of \"%s\", not \"%s\"", name,
                   container.name.c_str());
        int type;
        std::memcpy(&type, reinterpret_cast<const char*>(&info) + sizeof name, sizeof type);
        FUZZ_CHECK(type == container.type, "type %d, not %d", type, container.type);
        int ccsid = container.type == ECI_CHAR ? container.ccsid : 0;
        FUZZ_CHECK(info.ccsid == ccsid, "ccsid %d, not %d", info.ccsid, ccsid);
        FUZZ_CHECK(info.dataLength == container.data.size(), "%zu bytes, not %zu", info.dataLength,
                   container.data.size());
    }

    void describe(std::size_t which)
    {
        std::string name = nameIn(which, input_.byte());
        int at = 0;
        int expected = wanted(which, name, &at);
        ECI_CONTAINER_INFO info;
        int rc = ECI_getContainerInfo(handles_[which], name.c_str(), &info);
        expect(rc, expected, "describing");
        if (rc == ECI_NO_ERROR)
            expectInfo(info, model(which).containers[static_cast<std::size_t>(at)]);
    }

    void read(std::size_t which)
    {
        std::string name = nameIn(which, input_.byte());
        std::size_t offset = input_.byte();
        if (offset >= 250) offset = static_cast<std::size_t>(-1) - (offset - 250);
        std::size_t length = input_.byte();
        std::vector<char> buffer(length + 1);
        int at = 0;
        int expected = wanted(which, name, &at);
        std::size_t count = 12345;
        int rc = ECI_getContainerData(handles_[which], name.c_str(), buffer.data(), length, offset,
                                      &count);
        expect(rc, expected, "reading data");
        if (rc != ECI_NO_ERROR) return;
        const std::string& data = model(which).containers[static_cast<std::size_t>(at)].data;
        std::string part = offset < data.size() ? data.substr(offset, length) : std::string();
        FUZZ_CHECK(std::string(buffer.data(), count) == part, "other data is read");
    }

    void browse(std::size_t which, bool first)
    {
        Channel& channel = model(which);
        int expected = orNone(which, ECI_NO_ERROR);
        int next = first || channel.current < 0 ? 0 : channel.current + 1;
        bool isEnd = next >= static_cast<int>(channel.containers.size());
        if (expected == ECI_NO_ERROR) {
            if (isEnd) expected = ECI_ERR_ENDOFCONTAINERS;
            channel.current = isEnd ? -1 : next;
        }
        ECI_CONTAINER_INFO info;
        int rc = first ? ECI_getFirstContainer(handles_[which], &info)
                       : ECI_getNextContainer(handles_[which], &info);
        expect(rc, expected, "browsing");
        if (rc == ECI_NO_ERROR)
            expectInfo(info, channel.containers[static_cast<std::size_t>(next)]);
    }

    // A name as it is on the wire, with something behind its end.
    static std::string nameField(const std::string& name, std::uint32_t filler)
    {
        std::string field = name.substr(0, 16);
        if (field.size() < 16) field.push_back('\0');
        field.resize(16, static_cast<char>(filler));
        return field;
    }

    // The changes of a reply: what of them is whole is made.
    void reply(std::size_t which)
    {
        Channel& channel = model(which);
        if (handles_[which] == nullptr || channel.containers.size() > MOST_CONTAINERS) return;
        std::string section = nameField(nameOf(input_.byte()), 0);
        std::uint32_t count = input_.byte() % 40;
        std::uint32_t style = input_.byte();
        wire::put32(section, 300 + count);
        wire::put32(section, style == 255 ? 0x80000000 : style == 254 ? 0x7FFFFFFF : count);
        std::uint32_t name = input_.byte();
        std::vector<std::size_t> lengthsAt;
        for (std::uint32_t i = 0; i < count; ++i) {
            // With one style the records are alike but for their names.
            std::uint32_t code = style % 2 == 0 ? 1 + style / 2 % 4 : input_.byte() % 8;
            if (style % 2 == 1) name = input_.byte();
            std::uint32_t length = style % 2 == 1 ? input_.byte() % 24 : i;
            section += nameField(nameIn(which, (name + i) % 253), style);
            wire::put8(section, code);
            wire::put16(section, 0);
            wire::put8(section, style % 2 == 1 ? length : 1);
            wire::put32(section, 1208);
            lengthsAt.push_back(section.size());
            wire::put32(section, length);
            if (code == 1 || code == 3) section += dataOf(length, code);
        }
        std::uint32_t damage = input_.byte();
        world::Chance chance(input_.byte());
        if (damage >= 200 && damage < 225) section.resize(section.size() * (damage - 200) / 25);
        if (damage >= 225 && !lengthsAt.empty())
            wire::set32(section, lengthsAt[damage % lengthsAt.size()], wire::oddLength(chance, 4));
        apply(&channel, which, section);
        compare(which);
    }

    void apply(Channel* channel, std::size_t which, const std::string& section)
    {
        std::vector<char> bytes(section.begin(), section.end());
        ArrivingBytes arrived = {bytes.data(), bytes.size(), bytes.size()};
        bool broken = false;
        int rc = clapiApplyChannelSection(&arrived, handles_[which], &broken);
        bool shouldBreak = false;
        int expected = applyToModel(channel, section, &shouldBreak);
        FUZZ_CHECK(rc == expected && broken == shouldBreak,
                   "a section of %zu bytes gives %d, broken %d, not %d, %d", section.size(), rc,
                   broken, expected, shouldBreak);
    }

    static int applyToModel(Channel* channel, const std::string& section, bool* broken)
    {
        *broken = section.size() < 24;
        if (*broken) return QPX_OK;
        channel->name = section.substr(0, 16).c_str();
        channel->ccsid = static_cast<int>(wire::get32(section, 16));
        int records = static_cast<int>(wire::get32(section, 20));
        std::size_t at = 24;
        for (int i = 0; i < records; ++i) {
            *broken = section.size() - at < 28;
            if (*broken) return QPX_OK;
            Container change;
            change.name = section.substr(at, 16).c_str();
            int code = section[at + 16];
            change.type = static_cast<unsigned char>(section[at + 19]);
            change.ccsid = static_cast<int>(wire::get32(section, at + 20));
            std::size_t length = wire::get32(section, at + 24);
            at += 28;
            int place = channel->find(change.name);
            if (code == 2) {
                if (place < 0) return QPX_ERR_SYSTEM_ERROR;
                channel->remove(place);
            }
            if (code != 1 && code != 3) continue;
            *broken = length > section.size() - at;
            if (*broken) return QPX_ERR_SYSTEM_ERROR;
            if (code == 3 && place < 0) return QPX_ERR_SYSTEM_ERROR;
            change.data = section.substr(at, length);
            at += length;
            if (code == 1)
                channel->add(change);
            else
                channel->containers[static_cast<std::size_t>(place)] = change;
        }
        return QPX_OK;
    }

    // The whole of a channel.
    void compare(std::size_t which)
    {
        const ECI_Channel_t* channel = handles_[which];
        if (channel == nullptr) return;
        const Channel& expected = models_[which];
        FUZZ_CHECK(expected.name == std::string(channel->name, strnlen(channel->name, 16)),
                   "a channel has another name");
        FUZZ_CHECK(channel->ccsid == expected.ccsid, "ccsid %d, not %d", channel->ccsid.load(),
                   expected.ccsid);
        FUZZ_CHECK(static_cast<std::size_t>(channel->numContainers) == expected.containers.size(),
                   "%d containers, not %zu", channel->numContainers.load(),
                   expected.containers.size());
        const ECI_Container_t* container = channel->firstCont;
        const ECI_Container_t* before = nullptr;
        std::map<std::string, const ECI_Container_t*> newest;
        for (const Container& one : expected.containers) {
            FUZZ_CHECK(container != nullptr && container->previousCont == before,
                       "the list is not linked");
            FUZZ_CHECK(one.name == std::string(container->name, strnlen(container->name, 16)),
                       "another container");
            FUZZ_CHECK(one.type == container->type, "another type");
            FUZZ_CHECK(one.data.size() == container->dataLength &&
                           one.data.compare(0, std::string::npos,
                                            container->dataPtr != nullptr ? container->dataPtr : "",
                                            container->dataLength) == 0,
                       "other data");
            newest.emplace(one.name, container);
            FUZZ_CHECK(clapiFindContainer(channel, container->name) == newest[one.name],
                       "not the newest of the name is found");
            before = container;
            container = container->nextCont;
        }
        FUZZ_CHECK(container == nullptr, "there are more containers");
    }

    Input input_;
    long blocksBefore_ = 0;
    ECI_ChannelToken_t handles_[CHANNELS] = {};
    ECI_ChannelToken_t stale_[CHANNELS] = {};
    Channel models_[CHANNELS];
};

} // namespace

extern "C" int LLVMFuzzerInitialize(int* count, char*** arguments)
{
    static_cast<void>(count);
    static_cast<void>(arguments);
    unsetenv("LANG");
    // The first container settles the code page of the process.
    ECI_ChannelToken_t channel = nullptr;
    ECI_createChannel("CHANNEL", &channel);
    ECI_createContainer(channel, "C", ECI_CHAR, 0, nullptr, 0);
    ECI_deleteChannel(&channel);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Calls(data, size).run();
    return 0;
}

#ifdef FUZZ_PLANTED
// The planted mistake: a reply that takes a container away from a long list loses others from the
// index.
extern "C" bool
__real__Z20clapiUnlinkContainerP14_ECI_Channel_tP16_ECI_Container_t(ECI_Channel_t* channel,
                                                                    ECI_Container_t* container);
extern "C" bool
__wrap__Z20clapiUnlinkContainerP14_ECI_Channel_tP16_ECI_Container_t(ECI_Channel_t* channel,
                                                                    ECI_Container_t* container)
{
    bool wasCurrent = __real__Z20clapiUnlinkContainerP14_ECI_Channel_tP16_ECI_Container_t(
        channel, container);
    if (channel->index != nullptr && channel->numContainers > 20) channel->index[0] = nullptr;
    return wasCurrent;
}
#endif
