// Plays a scenario on a Gateway, by its clock.
//
// Thread: start() any, all else happens on the Gateway's own. The Gateway ends before the player.
#ifndef GATEWAY_PLAYER_H
#define GATEWAY_PLAYER_H

#include <cstdint>
#include <functional>
#include <map>
#include <random>
#include <string>

#include "scenario/scenario.h"
#include "standin/gateway.h"
#include "standin/log.h"

namespace scenario {

class Player {
public:
    Player(Scenario scenario, standin::LogSink log);

    Player(const Player&) = delete;
    Player& operator=(const Player&) = delete;

    std::uint64_t seed() const { return scenario_.seed; }

    // What comes at once has happened when it returns.
    void start(standin::Gateway& gateway);

private:
    void beginRound();
    void play(const Step& step);
    void begin(const Beginning& beginning);
    void act(const Action& action);
    void goOn();
    void tell(const std::string& what) const;

    const Scenario scenario_;
    standin::Gateway* gateway_ = nullptr;
    const standin::LogSink log_;
    std::mt19937_64 chance_;
    Time now_{0};        // of the last event
    Time roundBegan_{0}; // now_ then
    std::int64_t rounds_ = 0;
    std::multimap<Time, std::function<void()>> events_; // to come
};

} // namespace scenario

#endif
