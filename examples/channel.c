/*
 * channel.c - a call with a channel: containers go out, and come back as the server has left them.
 * The server program CHANECHO leaves them as they are.
 *
 *     channel [HOST [PORT]]
 */
#include "example.h"

/* Characters go with their code page, which the server converts; bytes go as they are. */
static int fill(ECI_ChannelToken_t* channel)
{
    char text[] = "Gr\xFC\xDF Gott"; /* ISO 8859-1 */
    char bytes[] = {0x00, 0x01, 0x02};
    int rc = ECI_createChannel("GREETINGS", channel);

    if (rc == ECI_NO_ERROR)
        rc = ECI_createContainer(*channel, "GREETING", ECI_CHAR, 819, text, sizeof text - 1);
    if (rc == ECI_NO_ERROR)
        rc = ECI_createContainer(*channel, "NUMBERS", ECI_BIT, 0, bytes, sizeof bytes);
    return rc == ECI_NO_ERROR ? rc : complain("create", rc);
}

/* Goes through the containers, the newest first, and reads a piece of each. */
static int show(ECI_ChannelToken_t channel)
{
    ECI_CONTAINER_INFO info;
    int rc = ECI_getFirstContainer(channel, &info);

    for (; rc == ECI_NO_ERROR; rc = ECI_getNextContainer(channel, &info)) {
        const char* kind = info.type == ECI_CHAR ? "characters" : "binary";
        char piece[64];
        size_t count = 0;

        rc = ECI_getContainerData(channel, info.name, piece, sizeof piece, 0, &count);
        if (rc != ECI_NO_ERROR) return complain("read container", rc);
        printf("%s: %s, %zu bytes, %zu read\n", info.name, kind, info.dataLength, count);
    }
    return rc == ECI_ERR_ENDOFCONTAINERS ? ECI_NO_ERROR : complain("browse", rc);
}

int main(int argc, char** argv)
{
    QPX_ECI_PARMS parms = call_of("CHANECHO", NULL, 0);
    ECI_ChannelToken_t channel = NULL;
    QPX_ConnToken_t gateway = NULL;
    int rc = open_gateway(argc, argv, &gateway);

    if (rc == QPX_OK) rc = fill(&channel);
    if (rc == QPX_OK) {
        parms.channel = channel;
        rc = QPX_ECI_Execute_Channel(gateway, &parms);
        if (rc != ECI_NO_ERROR) complain("call", rc);
    }
    if (rc == QPX_OK) rc = show(channel);
    if (channel != NULL) ECI_deleteChannel(&channel);
    close_gateway(&gateway);
    return end_with(rc);
}
