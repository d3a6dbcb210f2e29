// The parts of a program that are the same for all, and the programs that every Gateway has.

#include "standin/program.h"

#include <mutex>
#include <utility>

#include "programs/channel_edit.h"
#include "standin/channel_changes.h"

namespace standin {

// ----------------------------------------------------------------------------------------- Pending

template <typename Reply>
struct Pending<Reply>::State {
    std::mutex lock;
    Deliver deliver; // emptied by the first complete(); guarded by lock
};

template <typename Reply>
Pending<Reply>::Pending(Deliver deliver) : state_(std::make_shared<State>())
{
    state_->deliver = std::move(deliver);
}

template <typename Reply>
void Pending<Reply>::complete(Reply reply) const
{
    Deliver deliver;
    {
        const std::lock_guard<std::mutex> guard(state_->lock);
        deliver = std::exchange(state_->deliver, nullptr);
    }
    if (deliver) deliver(std::move(reply));
}

template class Pending<EciReply>;
template class Pending<EsiReply>;

// ----------------------------------------------------------------------------------------- Program

std::int32_t Program::begin(const UnitOfWork&)
{
    return kServerOk;
}

std::int32_t Program::resume(const UnitOfWork&)
{
    return kServerOk;
}

std::int32_t Program::commit(const UnitOfWork&)
{
    return kServerOk;
}

void Program::backout(const UnitOfWork&) {}

void FirstProgram::connectionEnded(int) {}

// ---------------------------------------------------------------------------------------- programs

namespace {

class FunctionProgram final : public Program {
public:
    explicit FunctionProgram(ReplyFunction reply) : reply_(std::move(reply)) {}

    std::optional<EciReply> call(const ProgramCall& call) override { return reply_(call.request); }

private:
    ReplyFunction reply_;
};

EciReply echo(const EciRequest& request)
{
    EciReply reply = EciReply::withCommarea(request, request.commareaAsSeenByProgram());
    if (request.channel) reply.channel = ChannelChanges(*request.channel).records();
    return reply;
}

EciReply endAbnormally(const EciRequest& request)
{
    constexpr std::size_t kCodeLength = 4;
    if (request.commarea.size() < kCodeLength) return EciReply::abend(request, "AZZZ");
    const auto first = request.commarea.begin();
    return EciReply::abend(request, std::string(first, first + kCodeLength));
}

EciReply echoChannel(const EciRequest& request)
{
    if (!request.channel) return EciReply::abend(request, kNoChannel);
    EciReply reply = EciReply::to(request);
    reply.channel = ChannelChanges(*request.channel).records();
    return reply;
}

EciReply editChannelOf(const EciRequest& request)
{
    if (!request.channel) return EciReply::abend(request, kNoChannel);
    EciReply reply = EciReply::to(request);
    reply.channel = editChannel(*request.channel);
    return reply;
}

} // namespace

std::shared_ptr<Program> makeProgram(ReplyFunction reply)
{
    return std::make_shared<FunctionProgram>(std::move(reply));
}

std::shared_ptr<Program> makeEcho()
{
    return makeProgram(echo);
}

std::shared_ptr<Program> makeAbend()
{
    return makeProgram(endAbnormally);
}

std::shared_ptr<Program> makeChannelEcho()
{
    return makeProgram(echoChannel);
}

std::shared_ptr<Program> makeChannelEdit()
{
    return makeProgram(editChannelOf);
}

} // namespace standin
