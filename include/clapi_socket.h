/*
 * clapi_socket.h - what a socket is known by.
 */
#ifndef CLAPI_SOCKET_H
#define CLAPI_SOCKET_H

typedef int Socket;
constexpr Socket NO_SOCKET = -1;

#endif
