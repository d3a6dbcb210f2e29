// Programs that a function of the application's answers.

#include <algorithm>
#include <utility>

#include "objects.h"

namespace standin {

namespace {

// The reply as the function wants it.
EciReply replyOf(const EciRequest& request, standin_answer& answer)
{
    EciReply reply;
    if (!answer.abend.empty()) {
        reply = EciReply::abend(request, answer.abend);
    } else if (answer.code != 0) {
        reply = EciReply::serverError(request, answer.code);
    } else if (answer.commarea) {
        reply = EciReply::withCommarea(request, std::move(*answer.commarea));
    } else {
        reply = EciReply::to(request);
    }
    if (reply.vornRc == 0 && answer.channel) reply.channel = answer.channel->records();
    reply.gatewayRc = answer.gateway;
    reply.delay = answer.delay;
    reply.faults = std::move(answer.faults);
    return reply;
}

// The call that has come last is the one that is being answered: both happen on one thread.
standin_call callThatCame(const Calls& calls)
{
    standin_call call;
    if (const KeptCallPtr kept = calls.last()) call.record = kept->record;
    return call;
}

class FunctionOfC final : public Program {
public:
    FunctionOfC(const Calls& calls, standin_program function, void* context)
        : calls_(calls), function_(function), context_(context)
    {
    }

    std::optional<EciReply> call(const ProgramCall& called) override
    {
        standin_call call = callThatCame(calls_);
        call.password = &called.request.password;
        complete(call);
        standin_answer answer;
        answer.isOfProgram = true;
        if (called.request.channel) answer.channel.emplace(*called.request.channel);
        {
            const Inside inside;
            function_(&call, &answer, context_);
        }
        return replyOf(called.request, answer);
    }

private:
    const Calls& calls_;
    const standin_program function_;
    void* const context_;
};

} // namespace

std::shared_ptr<Program> programOf(const Calls& calls, standin_program function, void* context)
{
    return std::make_shared<FunctionOfC>(calls, function, context);
}

std::function<EsiReply(const EsiRequest&)> passwordsOf(const Calls& calls, standin_program function,
                                                       void* context)
{
    return [&calls, function, context](const EsiRequest& request) {
        standin_call call = callThatCame(calls);
        call.password = &request.currentPassword;
        call.newPassword = &request.newPassword;
        complete(call);
        standin_answer answer;
        {
            const Inside inside;
            function(&call, &answer, context);
        }
        EsiReply reply;
        reply.vornRc = answer.abend.empty() ? answer.code : kServerAbend;
        reply.gatewayRc = answer.gateway;
        return reply;
    };
}

void complete(standin_call& call)
{
    CallRecord& record = call.record;
    if (record.eci) call.commarea = record.eci->commareaAsSeenByProgram();
    if (record.eciReply && record.eciReply->vornRc == kServerAbend)
        call.abend.assign(record.eciReply->abendCode.begin(), record.eciReply->abendCode.end());
    for (const std::string& fault : record.faults)
        call.faults += (call.faults.empty() ? "" : " ") + fault;
    if (!record.eciReply || !record.eciReply->channel) return;
    // What is unchanged does not travel.
    for (Container& container : record.eciReply->channel->containers) {
        if (container.change == Change::Unchanged) container.data.clear();
    }
}

} // namespace standin
