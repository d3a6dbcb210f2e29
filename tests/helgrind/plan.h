// The load that helgrind watches: some hundred calls by eight threads.
#ifndef HELGRIND_PLAN_H
#define HELGRIND_PLAN_H

#include "support/mixed_load.h"

inline support::LoadPlan smallLoad()
{
    support::LoadPlan plan;
    plan.calls = 600;
    plan.connections = 2;
    plan.senders = 3;
    plan.collectors = 1;
    plan.drops = 4;
    plan.seed = 20261121;
    return plan;
}

#endif
