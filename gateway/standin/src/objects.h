// What stands behind the pointers of standin.h.
#ifndef STANDIN_OBJECTS_H
#define STANDIN_OBJECTS_H

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "calls.h"
#include "scripts.h"
#include "standin.h"
#include "standin/channel_changes.h"
#include "standin/gateway.h"

struct standin_gateway {
    standin::Calls calls;
    std::unique_ptr<standin::Gateway> gateway;
    std::unique_ptr<standin::Scripts> scripts; // guarded by lock
    std::vector<standin::SystemEntry> systems; // guarded by lock
    std::mutex lock;
};

struct standin_call {
    standin::CallRecord record;
    bool isDone = false;
    standin::Bytes commarea; // as a program sees it
    std::string abend;
    std::string faults;

    // Of the request that is being answered; null in a call that was read back.
    const std::string* password = nullptr;
    const std::string* newPassword = nullptr;
};

struct standin_answer {
    std::optional<standin::Bytes> commarea;
    std::int32_t code = 0;
    std::string abend;
    std::int32_t gateway = 0;
    std::optional<standin::ChannelChanges> channel; // empty: the call has none
    std::chrono::milliseconds delay{0};
    std::vector<std::string> faults;
    bool isOfProgram = false;
};

namespace standin {

// What went wrong in this thread, as standin_problem() tells it; the code is handed on.
int failure(int code, const std::string& problem);

// Whether this thread is within a function of the application's.
bool isInside();

// Makes isInside() true while it is there.
class Inside {
public:
    Inside();
    ~Inside();

    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;

private:
    const bool before_;
};

// Programs that a function of the application's answers.
std::shared_ptr<Program> programOf(const Calls& calls, standin_program function, void* context);
std::function<EsiReply(const EsiRequest&)> passwordsOf(const Calls& calls, standin_program function,
                                                       void* context);

// Fills in what is not in the record itself.
void complete(standin_call& call);

} // namespace standin

#endif
