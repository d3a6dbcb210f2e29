// standin.h: what the answer to a call is.

#include <cstdint>
#include <stdexcept>

#include "objects.h"
#include "standin/misbehaviour.h"

using standin::Bytes;
using standin::failure;

namespace {

constexpr std::size_t kLongestAbend = 4;
constexpr int kLargestCcsid = 65535;
constexpr int kLongestDelay = 3600 * 1000;
constexpr std::size_t kLargestContainer = 32U * 1024 * 1024;

int badAnswer()
{
    return failure(STANDIN_ERR_ARGUMENT, "the answer is NULL");
}

int noChannel()
{
    return failure(STANDIN_ERR_STATE, "the call has no channel");
}

int notOfProgram()
{
    return failure(STANDIN_ERR_STATE, "this is for calls of programs only");
}

Bytes bytesOf(const void* data, std::size_t length)
{
    const auto* const first = static_cast<const std::uint8_t*>(data);
    return length == 0 ? Bytes() : Bytes(first, first + length);
}

} // namespace

int standin_answer_commarea(standin_answer* answer, const void* data, size_t length)
{
    if (answer == nullptr) return badAnswer();
    if ((data == nullptr && length > 0) || length > standin::kLargestCommarea)
        return failure(STANDIN_ERR_ARGUMENT, "the COMMAREA is NULL, or has more than 32,767 bytes");
    answer->commarea = bytesOf(data, length);
    return STANDIN_OK;
}

int standin_answer_code(standin_answer* answer, int code)
{
    if (answer == nullptr) return badAnswer();
    answer->code = code;
    answer->abend.clear();
    return STANDIN_OK;
}

int standin_answer_abend(standin_answer* answer, const char* abend)
{
    if (answer == nullptr) return badAnswer();
    const std::string code = abend == nullptr ? "" : abend;
    if (code.empty() || code.size() > kLongestAbend)
        return failure(STANDIN_ERR_ARGUMENT, "an abend code has 1 to 4 characters");
    answer->abend = code;
    return STANDIN_OK;
}

int standin_answer_gateway(standin_answer* answer, int code)
{
    if (answer == nullptr) return badAnswer();
    answer->gateway = code;
    return STANDIN_OK;
}

int standin_answer_container(standin_answer* answer, const char* name, int ccsid, const void* data,
                             size_t length)
{
    if (answer == nullptr) return badAnswer();
    if (name == nullptr || !standin::isChannelName(name))
        return failure(STANDIN_ERR_ARGUMENT, "this is no name that a container may have");
    if (ccsid < 0 || ccsid > kLargestCcsid)
        return failure(STANDIN_ERR_ARGUMENT, "the CCSID is not 0 to 65535");
    if ((data == nullptr && length > 0) || length > kLargestContainer)
        return failure(STANDIN_ERR_ARGUMENT, "the data are NULL, or more than 32 MB");
    if (!answer->channel) return noChannel();
    standin::Container container;
    container.name = name;
    container.type = ccsid == 0 ? standin::kContainerBit : standin::kContainerChar;
    container.ccsid = ccsid;
    container.data = bytesOf(data, length);
    answer->channel->put(std::move(container));
    return STANDIN_OK;
}

int standin_answer_delete_container(standin_answer* answer, const char* name)
{
    if (answer == nullptr) return badAnswer();
    if (name == nullptr) return failure(STANDIN_ERR_ARGUMENT, "the name is NULL");
    if (!answer->channel) return noChannel();
    if (!answer->channel->remove(name))
        return failure(STANDIN_ERR_NO_CALL, std::string("there is no container ") + name);
    return STANDIN_OK;
}

int standin_answer_delay(standin_answer* answer, int milliseconds)
{
    if (answer == nullptr) return badAnswer();
    if (milliseconds < 0 || milliseconds > kLongestDelay)
        return failure(STANDIN_ERR_ARGUMENT, "the delay is not 0 to an hour");
    if (!answer->isOfProgram) return notOfProgram();
    answer->delay = std::chrono::milliseconds(milliseconds);
    return STANDIN_OK;
}

int standin_answer_fault(standin_answer* answer, const char* misbehaviour)
{
    if (answer == nullptr) return badAnswer();
    if (misbehaviour == nullptr) return failure(STANDIN_ERR_ARGUMENT, "the misbehaviour is NULL");
    if (!answer->isOfProgram) return notOfProgram();
    const std::string text = misbehaviour;
    if (text.find('@') != std::string::npos)
        return failure(STANDIN_ERR_FAULT, "a misbehaviour of an answer has no selector");
    try {
        if (!standin::strikesAtAnswers(standin::parseMisbehaviour(text).misbehaviour.fault))
            return failure(STANDIN_ERR_FAULT, text + " does not strike at answers");
    } catch (const std::invalid_argument& problem) {
        return failure(STANDIN_ERR_FAULT, problem.what());
    }
    answer->faults.push_back(text);
    return STANDIN_OK;
}
