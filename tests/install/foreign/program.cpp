// A program as somebody writes it who asks his compiler for no warnings: a variable that nobody
// uses, one that hides another, a length that loses bits.

#include <cstdio>
#include <cstring>

#include "qpxclient.h"
#include "qpxclient_eci.h"
#include "standin/gateway.h"

static bool callsGreet(QPX_ConnToken_t token)
{
    char area[20] = "anybody there?";
    size_t length = sizeof area;
    int unused = 7;

    QPX_ECI_PARMS parms;
    memset(&parms, 0, sizeof parms);
    parms.eci_version = ECI_VERSION_6;
    parms.eci_call_type = ECI_SYNC;
    memcpy(parms.eci_program_name, "GREET   ", 8);
    parms.eci_commarea = area;
    parms.eci_commarea_length = length;
    if (int length = QPX_ECI_Execute(token, &parms)) return printf("call: %d\n", length) < 0;
    return strcmp(area, "hello, foreigner") == 0;
}

int main()
{
    standin::Gateway gateway;
    gateway.setReply("GREET", [](const standin::EciRequest& request) {
        const char text[] = "hello, foreigner";
        return standin::EciReply::withCommarea(request, {text, text + sizeof text});
    });

    QPX_ConnToken_t token = nullptr;
    char host[] = "127.0.0.1";
    if (QPX_openRemoteGatewayConnection(host, gateway.port(), &token, 30) != QPX_OK) return 1;
    const bool good = callsGreet(token);
    if (QPX_closeGatewayConnection(&token) != QPX_OK) return 1;
    return good ? 0 : 1;
}
