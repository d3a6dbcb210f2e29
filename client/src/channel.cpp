// qpx channel - a call of a server program with a channel of containers.

#include <cstdlib>
#include <iostream>

#include <nlohmann/json.hpp>

#include "bytes.h"
#include "calling.h"
#include "command.h"
#include "connection.h"

namespace qpx {

namespace {

const char* const kFooter = R"(
Containers, each NAME=VALUE:
  NAME=TEXT         characters in UTF-8, CCSID 1208
  NAME,37=TEXT      characters that are converted to that code page
  NAME,37=@FILE     characters that are in that code page already
  NAME=@FILE        bytes as they are in a file, @- is standard input
  NAME,hex=00FF     bytes as hexadecimal digits

Examples:
  qpx channel CHANECHO GREETING=Hello PICTURE=@picture.png
  qpx channel ORDERS ORDER.HEADER,819=@header.txt ORDER.LINES=@lines.bin
  qpx channel ORDERS ORDER.HEADER,819=@header.txt ORDER.LINES=@lines.bin \
      --get INVOICE)";

constexpr int kUtf8 = 1208;
constexpr std::size_t kLargestContainer = 2147483647;

struct ChannelOptions {
    CallingOptions calling;
    std::string program;
    std::string name = "QPX";
    std::string form = "auto";
    std::vector<std::string> items;
    std::optional<std::string> get;
};

struct Container {
    std::string name;
    ECI_CONTAINER_TYPE type = ECI_BIT;
    int ccsid = 0;
    std::string data;
};

// ---- What goes out ------------------------------------------------------------------------------

Container containerFrom(const std::string& item)
{
    const std::size_t mark = item.find('=');
    if (mark == std::string::npos) throw Failure(kUsage, item + ": not NAME=VALUE");
    const std::string value = item.substr(mark + 1);
    const std::size_t comma = item.substr(0, mark).find(',');
    Container container;
    container.name = item.substr(0, std::min(comma, mark));
    const std::string type = comma == std::string::npos ? ""
                                                        : item.substr(comma + 1, mark - comma - 1);
    const bool fromFile = value.compare(0, 1, "@") == 0;

    if (type == "hex") {
        container.data = fromHex(value, container.name);
        return container;
    }
    if (!type.empty())
        container.ccsid = numberFrom(type, 1, 65535, container.name + ": a code page");
    else if (!fromFile)
        container.ccsid = kUtf8;
    container.type = container.ccsid == 0 ? ECI_BIT : ECI_CHAR;
    if (fromFile)
        container.data = readFile(value.substr(1), kLargestContainer, "a container");
    else
        container.data = toCodePage(value, container.ccsid == kUtf8 ? 0 : container.ccsid);
    return container;
}

// ---- The channel --------------------------------------------------------------------------------

void check(int rc, const std::string& step)
{
    if (rc != ECI_NO_ERROR) throw CallFailure(Phase::Channel, step, rc);
}

class Channel {
public:
    explicit Channel(const std::string& name)
    {
        check(ECI_createChannel(name.c_str(), &token_), "channel " + name);
    }

    ~Channel() { ECI_deleteChannel(&token_); }

    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;

    ECI_ChannelToken_t token() const { return token_; }

    void add(const Container& container)
    {
        check(ECI_createContainer(token_, container.name.c_str(), container.type, container.ccsid,
                                  container.data.data(), container.data.size()),
              "container " + container.name);
    }

    // All of them, the newest first.
    std::vector<Container> containers() const
    {
        std::vector<Container> list;
        ECI_CONTAINER_INFO info = {};
        int rc = ECI_getFirstContainer(token_, &info);
        for (; rc == ECI_NO_ERROR; rc = ECI_getNextContainer(token_, &info))
            list.push_back(read(info));
        if (rc != ECI_ERR_ENDOFCONTAINERS) check(rc, "browse");
        return list;
    }

    Container get(const std::string& name) const
    {
        ECI_CONTAINER_INFO info = {};
        check(ECI_getContainerInfo(token_, name.c_str(), &info), "container " + name);
        return read(info);
    }

private:
    Container read(const ECI_CONTAINER_INFO& info) const
    {
        Container container;
        container.name = info.name;
        container.type = info.type;
        container.ccsid = info.ccsid;
        container.data.resize(info.dataLength);
        check(ECI_getContainerData(token_, info.name, container.data.data(), container.data.size(),
                                   0, nullptr),
              "container " + container.name);
        return container;
    }

    ECI_ChannelToken_t token_ = nullptr;
};

// ---- What comes back ----------------------------------------------------------------------------

// Text in UTF-8 is shown as it is.
int shownCcsid(const Container& container)
{
    return container.ccsid == kUtf8 ? 0 : container.ccsid;
}

Json asJson(const Container& container)
{
    Json json = {{"name", container.name}, {"type", container.type == ECI_CHAR ? "char" : "bit"}};
    if (container.type == ECI_CHAR) json["ccsid"] = container.ccsid;
    json.update(bytesAsJson(container.data, shownCcsid(container)));
    return json;
}

void show(const Settings& settings, const Container& container, Form form)
{
    std::cout << bold(settings, container.name) << ": "
              << (container.type == ECI_CHAR ? "characters in " + std::to_string(container.ccsid)
                                             : std::string("binary"))
              << ", " << container.data.size() << " bytes\n"
              << shown(container.data, shownCcsid(container), form);
}

void show(const Settings& settings, const ChannelOptions& options, const Channel& channel)
{
    const Form form = formFrom(options.form);

    if (settings.json) {
        Json containers = Json::array();
        for (const Container& container :
             options.get ? std::vector<Container>{channel.get(*options.get)} : channel.containers())
            containers.push_back(asJson(container));
        print({{"program", options.program},
               {"code", 0},
               {"name", nameOf(0)},
               {"channel", options.name},
               {"containers", containers}});
    } else if (options.get) {
        const Container container = channel.get(*options.get);
        std::cout << shown(container.data, shownCcsid(container), form);
    } else {
        for (const Container& container : channel.containers()) show(settings, container, form);
    }
}

ExitCode runChannel(const Settings& settings, const ChannelOptions& options)
{
    checkProgram(options.program);
    formFrom(options.form);
    Channel channel(options.name);
    for (const std::string& item : options.items) channel.add(containerFrom(item));
    const Caller caller(settings, options.calling);
    Connection gateway(settings);
    QPX_ECI_PARMS record = caller.record(options.program);
    record.channel = channel.token();
    execute(gateway.token(), record, options.program);
    show(settings, options, channel);
    gateway.close();
    return kDone;
}

} // namespace

void declareChannel(CLI::App& app, Command& chosen)
{
    CLI::App* command = nullptr;
    auto options = addCommand(app, command, "channel", "Calls a server program with a channel",
                              chosen, runChannel);
    command->footer(kFooter);
    command->add_option("program", options->program, "The server program, at most 8 characters")
        ->option_text("PROGRAM")
        ->required();
    command->add_option("containers", options->items, "The containers, see below")
        ->option_text("NAME=VALUE ...");
    command->add_option("--channel", options->name, "The name of the channel (QPX)")
        ->option_text("NAME");
    command->add_option("--get", options->get, "Show the data of this container alone")
        ->option_text("NAME");
    command->add_option("--as", options->form, "How data are shown: auto, text, hex, dump or raw")
        ->option_text("FORM");
    declareCalling(*command, options->calling);
}

} // namespace qpx
