// standin.h: what a call was.

#include "objects.h"

using standin::Bytes;
using standin::CallRecord;
using standin::Channel;
using standin::Container;
using standin::EciReply;
using standin::EciRequest;

namespace {

const EciRequest* eciOf(const standin_call* call)
{
    return call != nullptr && call->record.eci ? &*call->record.eci : nullptr;
}

const EciReply* replyOf(const standin_call* call)
{
    return call != nullptr && call->isDone && call->record.eciReply ? &*call->record.eciReply
                                                                    : nullptr;
}

const Channel* channelOf(const standin_call* call)
{
    const EciRequest* const request = eciOf(call);
    return request != nullptr && request->channel ? &*request->channel : nullptr;
}

const Channel* answerChannelOf(const standin_call* call)
{
    const EciReply* const reply = replyOf(call);
    return reply != nullptr && reply->channel ? &*reply->channel : nullptr;
}

const void* bytesOf(const Bytes* bytes, std::size_t* length)
{
    const std::size_t size = bytes == nullptr ? 0 : bytes->size();
    if (length != nullptr) *length = size;
    return size == 0 ? nullptr : bytes->data();
}

void fill(standin_container* container, const Container& from)
{
    container->name = from.name.c_str();
    container->data = bytesOf(&from.data, &container->length);
    container->ccsid = from.type == standin::kContainerChar ? from.ccsid : 0;
    container->change = static_cast<int>(from.change);
}

int containerAt(const Channel* channel, std::size_t place, standin_container* container)
{
    if (container == nullptr)
        return standin::failure(STANDIN_ERR_ARGUMENT, "the container to be filled is NULL");
    if (channel == nullptr || place >= channel->containers.size())
        return standin::failure(STANDIN_ERR_NO_CALL, "there are not so many containers");
    fill(container, channel->containers[place]);
    return STANDIN_OK;
}

const char* textOf(const std::string* text)
{
    return text == nullptr ? "" : text->c_str();
}

} // namespace

int standin_call_type(const standin_call* call)
{
    if (call == nullptr) return 0;
    const CallRecord& record = call->record;
    if (record.eci) {
        return record.eci->callType == standin::kCallListSystems ? STANDIN_CALL_LIST
                                                                 : STANDIN_CALL_PROGRAM;
    }
    if (!record.esi) return STANDIN_CALL_MALFORMED;
    return record.esi->callType == standin::kEsiChange ? STANDIN_CALL_CHANGE : STANDIN_CALL_VERIFY;
}

int standin_call_connection(const standin_call* call)
{
    return call == nullptr ? 0 : call->record.connection;
}

int standin_call_message(const standin_call* call)
{
    return call == nullptr ? 0 : call->record.header.messageId;
}

const char* standin_call_program(const standin_call* call)
{
    const EciRequest* const request = eciOf(call);
    return textOf(request == nullptr ? nullptr : &request->program);
}

const char* standin_call_transaction(const standin_call* call)
{
    const EciRequest* const request = eciOf(call);
    return textOf(request == nullptr ? nullptr : &request->transid);
}

const char* standin_call_server(const standin_call* call)
{
    if (const EciRequest* const request = eciOf(call)) return request->server.c_str();
    return textOf(call != nullptr && call->record.esi ? &call->record.esi->server : nullptr);
}

const char* standin_call_user(const standin_call* call)
{
    if (const EciRequest* const request = eciOf(call)) return request->userId.c_str();
    return textOf(call != nullptr && call->record.esi ? &call->record.esi->userId : nullptr);
}

const char* standin_call_password(const standin_call* call)
{
    return textOf(call == nullptr ? nullptr : call->password);
}

const char* standin_call_new_password(const standin_call* call)
{
    return textOf(call == nullptr ? nullptr : call->newPassword);
}

int standin_call_mode(const standin_call* call)
{
    const EciRequest* const request = eciOf(call);
    return request == nullptr ? 0 : request->extendMode;
}

int standin_call_unit(const standin_call* call)
{
    const EciRequest* const request = eciOf(call);
    return request == nullptr ? 0 : request->luwToken;
}

const void* standin_call_commarea(const standin_call* call, size_t* length)
{
    return bytesOf(call == nullptr ? nullptr : &call->commarea, length);
}

const char* standin_call_channel(const standin_call* call)
{
    const Channel* const channel = channelOf(call);
    return textOf(channel == nullptr ? nullptr : &channel->name);
}

size_t standin_call_containers(const standin_call* call)
{
    const Channel* const channel = channelOf(call);
    return channel == nullptr ? 0 : channel->containers.size();
}

int standin_call_container(const standin_call* call, size_t place, standin_container* container)
{
    return containerAt(channelOf(call), place, container);
}

int standin_call_find_container(const standin_call* call, const char* name,
                                standin_container* container)
{
    const Channel* const channel = channelOf(call);
    if (name == nullptr || container == nullptr)
        return standin::failure(STANDIN_ERR_ARGUMENT, "the name or the container is NULL");
    if (channel != nullptr) {
        for (const Container& one : channel->containers) {
            if (one.name != name) continue;
            fill(container, one);
            return STANDIN_OK;
        }
    }
    return standin::failure(STANDIN_ERR_NO_CALL, std::string("there is no container ") + name);
}

const char* standin_call_problem(const standin_call* call)
{
    return textOf(call == nullptr ? nullptr : &call->record.problem);
}

int standin_call_is_done(const standin_call* call)
{
    return call != nullptr && call->isDone ? 1 : 0;
}

size_t standin_call_sent(const standin_call* call)
{
    return call == nullptr ? 0 : call->record.bytes;
}

int standin_call_code(const standin_call* call)
{
    if (const EciReply* const reply = replyOf(call)) return reply->vornRc;
    const bool hasPasswordReply = call != nullptr && call->isDone && call->record.esiReply;
    return hasPasswordReply ? call->record.esiReply->vornRc : 0;
}

const char* standin_call_abend(const standin_call* call)
{
    return textOf(replyOf(call) == nullptr ? nullptr : &call->abend);
}

int standin_call_gateway(const standin_call* call)
{
    return call == nullptr ? 0 : call->record.gatewayRc;
}

const void* standin_call_answer_commarea(const standin_call* call, size_t* length)
{
    const EciReply* const reply = replyOf(call);
    return bytesOf(reply == nullptr ? nullptr : &reply->commarea, length);
}

size_t standin_call_answer_containers(const standin_call* call)
{
    const Channel* const channel = answerChannelOf(call);
    return channel == nullptr ? 0 : channel->containers.size();
}

int standin_call_answer_container(const standin_call* call, size_t place,
                                  standin_container* container)
{
    return containerAt(answerChannelOf(call), place, container);
}

const char* standin_call_faults(const standin_call* call)
{
    return textOf(call == nullptr ? nullptr : &call->faults);
}

long standin_call_microseconds(const standin_call* call)
{
    return call == nullptr ? 0 : static_cast<long>(call->record.took.count());
}
