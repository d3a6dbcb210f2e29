/*
 * channel.c - a call with a channel: containers go out, and come back as the server has left them.
 *
 * The server program CHANECHO leaves them as they are.
 *
 *     channel [HOST [PORT]]
 */
#include <stdio.h>
#include <stdlib.h>

#include "eci_channel.h"
#include "qpxclient_eci.h"

static int complain(const char* what, int rc)
{
    char name[QPX_RC_STRING_SIZE];

    fprintf(stderr, "%s: %s (%d)\n", what, QPX_getRcString(rc, name), rc);
    return rc;
}

/* Characters go with their code page, which the server converts; bytes go as they are. */
static int fill(ECI_ChannelToken_t channel)
{
    char text[] = "Gr\xFC\xDF Gott"; /* ISO 8859-1 */
    char bytes[] = {0x00, 0x01, 0x02};
    int rc = ECI_createContainer(channel, "GREETING", ECI_CHAR, 819, text, sizeof text - 1);

    if (rc == ECI_NO_ERROR)
        rc = ECI_createContainer(channel, "NUMBERS", ECI_BIT, 0, bytes, sizeof bytes);
    return rc == ECI_NO_ERROR ? rc : complain("create container", rc);
}

/* Goes through the containers, the newest first, and reads a piece of each. */
static int show(ECI_ChannelToken_t channel)
{
    ECI_CONTAINER_INFO info;
    int rc = ECI_getFirstContainer(channel, &info);

    for (; rc == ECI_NO_ERROR; rc = ECI_getNextContainer(channel, &info)) {
        char piece[64];
        size_t count = 0;

        rc = ECI_getContainerData(channel, info.name, piece, sizeof piece, 0, &count);
        if (rc != ECI_NO_ERROR) return complain("read container", rc);
        printf("%s: %s, %lu bytes, %lu read\n", info.name,
               info.type == ECI_CHAR ? "characters" : "binary", (unsigned long)info.dataLength,
               (unsigned long)count);
    }
    return rc == ECI_ERR_ENDOFCONTAINERS ? ECI_NO_ERROR : complain("browse", rc);
}

static int call(QPX_ConnToken_t gateway, ECI_ChannelToken_t channel)
{
    QPX_ECI_PARMS parms = {.eci_version = ECI_VERSION_6,
                           .eci_call_type = ECI_SYNC,
                           .eci_program_name = "CHANECHO",
                           .channel = channel};
    int rc = QPX_ECI_Execute_Channel(gateway, &parms);

    return rc == ECI_NO_ERROR ? rc : complain("call", rc);
}

static int run(QPX_ConnToken_t gateway)
{
    ECI_ChannelToken_t channel = NULL;
    int rc = ECI_createChannel("GREETINGS", &channel);

    if (rc != ECI_NO_ERROR) return complain("create channel", rc);
    rc = fill(channel);
    if (rc == ECI_NO_ERROR) rc = call(gateway, channel);
    if (rc == ECI_NO_ERROR) rc = show(channel);
    ECI_deleteChannel(&channel);
    return rc;
}

int main(int argc, char** argv)
{
    QPX_ConnToken_t gateway = NULL;
    int rc = QPX_openRemoteGatewayConnection(argc > 1 ? argv[1] : "127.0.0.1",
                                             argc > 2 ? atoi(argv[2]) : 5770, &gateway, 30);

    if (rc != QPX_OK) return complain("open", rc) != QPX_OK;
    rc = run(gateway);
    QPX_closeGatewayConnection(&gateway);
    if (fflush(stdout) == 0 && !ferror(stdout)) return rc != QPX_OK;
    fprintf(stderr, "cannot write to standard output\n");
    return 1;
}
