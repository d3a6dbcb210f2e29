// The environment and the locale of the process. The program puts its own functions before those of
// the C library, and so knows what the library asks for.
#include <dlfcn.h>
#include <stdlib.h>
#include <unistd.h>

#include <clocale>
#include <cstring>
#include <string>
#include <vector>

#include "support/connection_script.h"
#include "support/forked.h"

using namespace script;

namespace {

using Names = std::vector<std::string>;

// What the library has asked for; calls of one thread only are looked at.
Names asked;
Names askedSecurely;

bool isTheLibrarys(void* address)
{
    Dl_info info = {};
    return dladdr(address, &info) != 0 && std::strstr(info.dli_fname, "libqpxclient") != nullptr;
}

char* valueOf(const char* name)
{
    std::size_t length = std::strlen(name);
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry)
        if (std::strncmp(*entry, name, length) == 0 && (*entry)[length] == '=')
            return *entry + length + 1;
    return nullptr;
}

} // namespace

extern "C" char* getenv(const char* name) noexcept
{
    if (isTheLibrarys(__builtin_return_address(0))) asked.emplace_back(name);
    return valueOf(name);
}

extern "C" char* secure_getenv(const char* name) noexcept
{
    if (isTheLibrarys(__builtin_return_address(0))) askedSecurely.emplace_back(name);
    return valueOf(name);
}

namespace {

const Names none;

Names taken(Names* names)
{
    Names all;
    all.swap(*names);
    return all;
}

void firstCall()
{
    char* version = nullptr;
    EXPECT_RC(QPX_OK, QPX_getAPIVersion(&version));
}

void makeContainer()
{
    ECI_ChannelToken_t channel = nullptr;
    EXPECT_RC(0, ECI_createChannel("CHANNEL", &channel));
    EXPECT_RC(0, ECI_createContainer(channel, "DATA", ECI_CHAR, 0, "data", 4));
    EXPECT_RC(0, ECI_deleteChannel(&channel));
}

// A connection with a call. The open comes from a thread of its own; nothing asks meanwhile.
void useConnection()
{
    ScriptedConnection connection(30);
    support::EciParms parms = support::syncCall("PROG", text("question"));
    auto call = connection.start(parms);
    int messageId = connection.awaitRequest().messageId();
    connection.peer.send(eciReply(messageId, text("answered")));
    EXPECT_RC(QPX_OK, call.get());
    connection.closeInOrder();
}

TEST(ReadEnvironment, IsTheTraceSettingsAtTheFirstCall)
{
    EXPECT_EQ(none, askedSecurely);
    firstCall();
    EXPECT_EQ((Names{"QPX_CLIENT_TRACE_LEVEL", "QPX_CLIENT_TRACE_FILE", "QPX_CLIENT_DATA_LENGTH",
                     "QPX_CLIENT_DATA_OFFSET"}),
              taken(&askedSecurely));
    firstCall();
    EXPECT_EQ(none, askedSecurely);
    EXPECT_EQ(none, asked);
}

TEST(ReadEnvironment, IsTheApplidAtEachOpen)
{
    firstCall();
    taken(&askedSecurely);
    for (int open = 0; open < 2; ++open) {
        useConnection();
        EXPECT_EQ((Names{"QPX_APPLID", "QPX_APPLIDQUALIFIER"}), taken(&askedSecurely));
    }
    EXPECT_EQ(none, asked);
}

TEST(ReadEnvironment, IsTheLanguageAtTheFirstContainer)
{
    firstCall();
    taken(&askedSecurely);
    makeContainer();
    EXPECT_EQ(Names{"LANG"}, taken(&asked));
    makeContainer();
    EXPECT_EQ(none, asked);
    EXPECT_EQ(none, askedSecurely);
}

TEST(ReadEnvironment, IsNotChanged)
{
    Names before;
    for (char** entry = environ; *entry != nullptr; ++entry) before.emplace_back(*entry);

    useConnection();
    makeContainer();

    Names after;
    for (char** entry = environ; *entry != nullptr; ++entry) after.emplace_back(*entry);
    EXPECT_EQ(before, after);
}

// ---- Locale ------------------------------------------------------------------------------------

std::string locale()
{
    return std::setlocale(LC_ALL, nullptr);
}

TEST(ProcessLocale, IsLeftAsItIsByConnectionsAndCallsWithoutChannels)
{
    setenv("LC_ALL", "C.UTF-8", 1);
    useConnection();
    EXPECT_EQ("C", locale());

    makeContainer();
    EXPECT_NE("C", locale()); // so it would have shown
}

TEST(ProcessLocale, IsLeftAsTheProgramSetsItBehindTheFirstContainer)
{
    setenv("LC_ALL", "C.UTF-8", 1);
    makeContainer();
    std::setlocale(LC_ALL, "C");

    makeContainer();
    useConnection();

    EXPECT_EQ("C", locale());
}

TEST(ProcessLocale, IsLeftAsItIsByTheChildOfAProcessThatHasMadeItsFirstContainer)
{
    setenv("LC_ALL", "C.UTF-8", 1);
    makeContainer();
    std::setlocale(LC_ALL, "C");

    EXPECT_EQ(0, support::inChild([] {
                  makeContainer();
                  return locale() == "C" ? 0 : 1;
              }));
}

} // namespace
