/*
 * clapi_impl.h - what every call begins with, and the tag of a request.
 */
#ifndef CLAPI_IMPL_H
#define CLAPI_IMPL_H

#include "clapi_lock.h"

/* Initialises the library once per process; the result is the same for every caller. */
int clapiInit(void);

/* A tag for a request: 1, 2, 3 and so on, never 0. Locks: takes correlatorLock. */
int getNextCorrelator(void);

extern int clapiState;
extern int nextCorrelator; // guarded by correlatorLock
extern Clapilock correlatorLock;

#endif
