/*
 * clapi_esi.h - the codes of password requests.
 */
#ifndef CLAPI_ESI_H
#define CLAPI_ESI_H

/* Turns the Gateway's code of an ESI reply into the ESI family's. */
int mapGwyRc(int rc);

#endif
