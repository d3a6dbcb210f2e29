/* A client in a few bytes: calls program PRICE with the COMMAREA "flour" on 127.0.0.1. */
#include <arpa/inet.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

static const char handshake[] = "Gate\x10\xA0\x10\x00"
                                "\x00\x00\x00\x05"
                                "\xFF\xFF\xFF\xFE"
                                "\x00\x00\x00\x00"
                                "\x00\x00\x00\x04"
                                "BASE"
                                "\x00"
                                "\x00\x00\x00\x16"
                                "\x00\x02"
                                "en"
                                "\x00\x02"
                                "GB"
                                "\x00\x00\x00\x00\x00\x00\x00"
                                "\x00\x00\x00\x00\x00\x00\x00";
static const char request[] = "Gate\x10\xA0\x10\x00"
                              "\x00\x00\x00\x01"
                              "\x00\x00\x00\x01"
                              "\x00\x00\x00\x00"
                              "\x00\x00\x00\x03"
                              "ECI"
                              "\x00"
                              "\x00\x00\x00\x58"
                              "\x00\x00\x00\x01"
                              "\x00\x00\x00\x00"
                              "\x00\x00\x00\x00"
                              "\x00\x00\x00\x00"
                              "\x00"
                              "\x00\x00\x00\x08"
                              "SERVER1 "
                              "FRED\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00"
                              "\x00\x00\x00\x00"
                              "PRICE   "
                              "TRN1"
                              "\x00\x00\x00\x00"
                              "\x00\x00\x00\x05"
                              "\x00"
                              "\x00"
                              "flour"
                              "\x00"
                              "\x00\x00"
                              "\x00"
                              "\xFF\xFF\xFF\xFF"
                              "\x00\x00\x00\x01";

/* An answer with a COMMAREA of five bytes, and where they stand in it. */
#define ANSWER_SIZE 63
#define COMMAREA_AT 57

/* 0 when there is no such answer. */
static int call_price(int port, char* answer)
{
    struct sockaddr_in address;
    char accepted[33];
    int peer = socket(AF_INET, SOCK_STREAM, 0);
    int good;

    memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_port = htons((unsigned short)port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    good = connect(peer, (struct sockaddr*)&address, sizeof address) == 0 &&
           send(peer, handshake, sizeof handshake - 1, 0) == (ssize_t)sizeof handshake - 1 &&
           recv(peer, accepted, sizeof accepted, MSG_WAITALL) == (ssize_t)sizeof accepted &&
           send(peer, request, sizeof request - 1, 0) == (ssize_t)sizeof request - 1 &&
           recv(peer, answer, ANSWER_SIZE, MSG_WAITALL) == ANSWER_SIZE;
    close(peer);
    return good;
}
