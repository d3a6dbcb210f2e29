#include "support/refusals.h"

#include "clapi_lock.h"

namespace support {

namespace {

thread_local bool inForce = false;
thread_local Refused refused;
thread_local int left = 0; // calls up to the refused one; 0 once that has come

// Whether this call is the one.
bool isDue(Refused what)
{
    if (!inForce || refused != what || left <= 0) return false;
    left -= 1;
    return left == 0;
}

} // namespace

Refusal::Refusal(Refused what, int nth)
{
    refused = what;
    left = nth;
    inForce = true;
}

Refusal::~Refusal()
{
    inForce = false;
}

bool Refusal::hasHappened() const
{
    return left == 0;
}

} // namespace support

// The linker gives wrapped functions these names.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmissing-declarations"

extern "C" {

int __real__Z13clapiSetEventP11_ClapiEvent(ClapiEvent* eventPtr);
int __wrap__Z13clapiSetEventP11_ClapiEvent(ClapiEvent* eventPtr)
{
    if (support::isDue(support::Refused::EventArmed)) return -1;
    return __real__Z13clapiSetEventP11_ClapiEvent(eventPtr);
}
}

#pragma GCC diagnostic pop
