/*
 * prelude.h - what the documents take for known: a block of C that is no whole program is compiled
 * as a function that sees this, or as the body of one.
 */
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "qpxclient_eci.h"
#include "qpxclient_esi.h"

static QPX_ConnToken_t gateway;
static ECI_ChannelToken_t channel;
static QPX_ECI_PARMS parms;
static int rc, qualifier;
static char area[80], user[] = "FRED", password[] = "old", new_password[] = "new";
static char traceFile[] = "calls.trc";
static volatile int done;
static const char header[] = "100106", lines[] = "3";
