#include "scenario/player.h"

#include <cstdio>
#include <utility>

#include "log/log_text.h"

namespace scenario {

using standin::LogLevel;

namespace {

std::string secondsOf(Time time)
{
    char text[48];
    const long long microseconds = time.count();
    std::snprintf(text, sizeof text, "%lld.%03lld s", microseconds / 1000000,
                  microseconds / 1000 % 1000);
    return text;
}

} // namespace

Player::Player(Scenario scenario, standin::LogSink log)
    : scenario_(std::move(scenario)), log_(std::move(log)), chance_(scenario_.seed)
{
}

void Player::start(standin::Gateway& gateway)
{
    gateway_ = &gateway;
    beginRound();
    goOn();
}

void Player::beginRound()
{
    roundBegan_ = now_;
    ++rounds_;
    const std::vector<Time> times = timesOf(scenario_, chance_);
    for (std::size_t i = 0; i < times.size(); ++i) {
        const Step& step = scenario_.steps[i];
        events_.emplace(roundBegan_ + times[i], [this, &step] { play(step); });
    }
    if (scenario_.every && (!scenario_.times || rounds_ < *scenario_.times))
        events_.emplace(roundBegan_ + *scenario_.every, [this] { beginRound(); });
}

// Does what is to happen now, and comes again for the next, which is the last thing that it does:
// from then on everything is the Gateway's thread's.
void Player::goOn()
{
    while (!events_.empty() && events_.begin()->first <= now_) {
        const std::function<void()> event = std::move(events_.begin()->second);
        events_.erase(events_.begin());
        event();
    }
    if (events_.empty()) return log_(LogLevel::Info, "scenario: is over");
    const Time next = events_.begin()->first;
    gateway_->after(next - now_, [this, next] {
        now_ = next;
        goOn();
    });
}

void Player::tell(const std::string& what) const
{
    log_(LogLevel::Info, "scenario: " + secondsOf(now_) + ": " + what);
}

void Player::play(const Step& step)
{
    if (step.endsAll) {
        tell("all misbehaviours end");
        gateway_->behave();
    }
    for (const standin::Fault fault : step.ends) {
        tell(std::string(standin::nameOf(fault)) + " ends");
        gateway_->behave(fault);
    }
    for (const Beginning& beginning : step.begins) begin(beginning);
    for (const Action& action : step.actions) act(action);
}

void Player::begin(const Beginning& beginning)
{
    const std::string text = log_text::printable(beginning.text);
    tell(text + (beginning.lasting ? " for " + secondsOf(*beginning.lasting) : ""));
    const std::uint64_t number = gateway_->misbehave(beginning.misbehaviour.misbehaviour,
                                                     beginning.misbehaviour.selector);
    if (!beginning.lasting) return;
    events_.emplace(now_ + *beginning.lasting, [this, number, text] {
        if (gateway_->behave(number)) tell(text + " ends");
    });
}

void Player::act(const Action& action)
{
    const bool isForOne = action.connection != 0;
    tell(action.text + (isForOne ? " connection " + std::to_string(action.connection) : ""));
    switch (action.deed) {
    case Deed::Drop: gateway_->dropConnection(action.connection); break;
    case Deed::Reset: gateway_->resetConnection(action.connection); break;
    case Deed::HalfClose: gateway_->halfCloseConnection(action.connection); break;
    case Deed::Close: gateway_->sendClose(action.connection); break;
    case Deed::Ping: gateway_->sendPing(action.connection); break;
    case Deed::Release: gateway_->release(); break;
    }
}

} // namespace scenario
