#include "support/mixed_load_gateway.h"

#include <cstdlib>
#include <stdexcept>

#include "standin/channel_changes.h"
#include "support/mixed_load_calls.h"

namespace support {

namespace {

// Answers of one connection that are collected until so many can be sent in reverse.
constexpr int reversedAtOnce = 3;

standin::Bytes wireBytes(const std::string& characters)
{
    return standin::Bytes(characters.begin(), characters.end());
}

// The data that a call carries, in its COMMAREA or in the one container of its channel.
standin::Bytes dataOf(const standin::EciRequest& request)
{
    if (!request.channel) return request.commarea;
    const std::vector<standin::Container>& containers = request.channel->containers;
    bool isQuestion = containers.size() == 1 && containers[0].name == "IN";
    return isQuestion ? containers[0].data : standin::Bytes();
}

// The number of a call, if its data agrees with its record.
int numberOf(const standin::EciRequest& request)
{
    int number = std::atoi(request.server.c_str());
    if (dataOf(request) != wireBytes(questionOf(number)))
        throw std::runtime_error("the data is not that of call " + request.server);
    return number;
}

// Takes the question away and puts the answer in its place.
standin::EciReply answer(const standin::EciRequest& request)
{
    standin::Bytes contents = wireBytes(answerOf(numberOf(request)));
    if (!request.channel) return standin::EciReply::withCommarea(request, contents);

    standin::ChannelChanges changes(*request.channel);
    standin::Container out;
    out.name = "OUT";
    out.data = contents;
    changes.remove("IN");
    changes.add(out);
    standin::EciReply reply = standin::EciReply::to(request);
    reply.channel = changes.records();
    return reply;
}

standin::EciReply abend(const standin::EciRequest& request)
{
    return standin::EciReply::abend(request, abendCodeOf(numberOf(request)));
}

} // namespace

void prepareForLoad(standin::Gateway& gateway, int connections)
{
    gateway.setReply(programOf(Kind::Plain), answer);
    gateway.setReply(programOf(Kind::Reversed), answer);
    gateway.setReply(programOf(Kind::Abends), abend);
    gateway.misbehave({standin::Fault::FlowError, 61445},
                      standin::onProgram(programOf(Kind::Refused)));
    gateway.misbehave({standin::Fault::Drop}, standin::onProgram(programOf(Kind::Drops)));
    // The first connections collect answers of their own, all later ones share.
    for (int connection = 1; connection <= connections; ++connection) {
        standin::Selector selector = standin::onConnection(connection);
        selector.program = programOf(Kind::Reversed);
        gateway.misbehave({standin::Fault::Reverse, reversedAtOnce}, selector);
    }
    gateway.misbehave({standin::Fault::Reverse, reversedAtOnce},
                      standin::onProgram(programOf(Kind::Reversed)));
}

std::vector<std::string> problemsOf(standin::Gateway& gateway, int connections, int reopened)
{
    std::vector<std::string> problems;
    auto all = static_cast<std::size_t>(connections + reopened);
    if (!gateway.awaitClosed(all)) problems.push_back("a connection is still there");
    if (gateway.connectionCount() != all)
        problems.push_back(std::to_string(gateway.connectionCount()) + " connections");
    if (gateway.closeFlowCount() != static_cast<std::size_t>(connections))
        problems.push_back(std::to_string(gateway.closeFlowCount()) + " close flows");
    for (const standin::Finding& finding : gateway.findings())
        problems.push_back("malformed: " + finding.problem);
    return problems;
}

} // namespace support
