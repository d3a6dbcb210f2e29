/*
 * clapi_channel.h - channels as the other modules see them.
 */
#ifndef CLAPI_CHANNEL_H
#define CLAPI_CHANNEL_H

#include "eci_channel.h"

typedef struct _ECI_Channel_t ECI_Channel_t;

/* The name of a code of the channel and container family, or "UNKNOWN". */
const char* clapiGetRcStringChannel(int rc);

#endif
