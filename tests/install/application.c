/*
 * An application as a user writes it: opens a connection, calls a program and closes. A child
 * process plays the Gateway for it, with flows typed out below.
 */
#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <qpxclient.h>
#include <qpxclient_eci.h>
#include <qpxclient_esi.h>

#define AREA_SIZE 20

static const char handshake_accepted[] = "Gate\x10\xA0\x10\x00"
                                         "\x00\x00\x00\x05"
                                         "\xFF\xFF\xFF\xFE"
                                         "\x00\x00\x00\x00"
                                         "\x00\x00\x00\x04"
                                         "BASE"
                                         "\x00"
                                         "\x00\x00\x00\x00";
static const char reply[] = "Gate\x10\xA0\x10\x00"
                            "\x00\x00\x00\x03"
                            "\x00\x00\x00\x01"
                            "\x00\x00\x00\x00"
                            "\x00\x00\x00\x03"
                            "ECI"
                            "\x00"
                            "\x00\x00\x00\x2E"
                            "\x00\x00\x00\x01"
                            "\x00\x00\x00\x00"
                            "\x00\x00\x00\x00"
                            "\x00\x00\x00\x00"
                            "    "
                            "\x00\x00\x00\x14"
                            "\x00"
                            "hello, application\x00\x00"
                            "\x00";
static const char closed[] = "Gate\x10\xA0\x10\x00"
                             "\x00\x00\x00\x0A"
                             "\xFF\xFF\xFF\xFF"
                             "\x00\x00\x00\x00"
                             "\x00\x00\x00\x04"
                             "BASE"
                             "\x00"
                             "\x00\x00\x00\x00";

/* Reads a flow of the given size and answers it. */
static void answer(int peer, size_t size, const char* flow, size_t length)
{
    char received[256];

    if (recv(peer, received, size, MSG_WAITALL) != (ssize_t)size) _exit(1);
    if (send(peer, flow, length, 0) != (ssize_t)length) _exit(1);
}

static void play_gateway(int listener)
{
    int peer = accept(listener, NULL, NULL);

    answer(peer, 55, handshake_accepted, sizeof handshake_accepted - 1);
    answer(peer, 32 + 83 + AREA_SIZE, reply, sizeof reply - 1);
    answer(peer, 33, closed, sizeof closed - 1);
    close(peer);
    _exit(0);
}

/* Listens on a free port and returns it; the child is the one to accept. */
static int start_gateway(pid_t* child)
{
    struct sockaddr_in address;
    socklen_t length = sizeof address;
    int listener = socket(AF_INET, SOCK_STREAM, 0);

    memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(listener, (struct sockaddr*)&address, sizeof address) != 0 ||
        listen(listener, 1) != 0 ||
        getsockname(listener, (struct sockaddr*)&address, &length) != 0) {
        perror("listening");
        exit(1);
    }
    *child = fork();
    if (*child == 0) play_gateway(listener);
    close(listener);
    return ntohs(address.sin_port);
}

static void must(const char* what, int rc)
{
    char name[QPX_RC_STRING_SIZE];

    if (rc == QPX_OK) return;
    fprintf(stderr, "%s: %d %s\n", what, rc, QPX_getRcString(rc, name));
    exit(1);
}

static void show_versions(void)
{
    char* library = NULL;
    char* interface = NULL;

    must("library version", QPX_getDLLVersion(&library));
    must("interface version", QPX_getAPIVersion(&interface));
    printf("library %s, interface %s\n", library, interface);
}

static void show_a_failure(void)
{
    char name[QPX_RC_STRING_SIZE];
    QPX_ConnToken_t gateway = NULL;
    int rc = QPX_openRemoteGatewayConnection(NULL, 5770, &gateway, 30);

    printf("no host: %d %s\n", rc, QPX_getRcString(rc, name));
}

static void call_a_program(QPX_ConnToken_t gateway)
{
    char area[AREA_SIZE] = "anybody there?";
    QPX_ECI_PARMS parms;

    memset(&parms, 0, sizeof parms);
    parms.eci_version = ECI_VERSION_6;
    parms.eci_call_type = ECI_SYNC;
    memcpy(parms.eci_program_name, "GREET   ", 8);
    parms.eci_commarea = area;
    parms.eci_commarea_length = sizeof area;
    must("call", QPX_ECI_Execute(gateway, &parms));
    printf("called: %s\n", area);
}

int main(void)
{
    QPX_ConnToken_t gateway = NULL;
    int status = 0;
    pid_t child;
    int port = start_gateway(&child);

    show_versions();
    show_a_failure();
    must("open", QPX_openRemoteGatewayConnection("127.0.0.1", port, &gateway, 30));
    printf("opened\n");
    call_a_program(gateway);
    must("close", QPX_closeGatewayConnection(&gateway));
    printf("closed\n");

    waitpid(child, &status, 0);
    return status == 0 ? 0 : 1;
}
