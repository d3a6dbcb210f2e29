/*
 * code_pages.c - text in the server's code page: EBCDIC goes out and comes back. iconv converts,
 * and the library never does; a container only says what its characters are.
 *
 *     code_pages [HOST [PORT]]
 */
#include <iconv.h>

#include "example.h"

#define ROOM 4096

/* Writes a NUL behind the result. Fails if it does not fit, or the other page lacks a character. */
static int convert(const char* to, const char* from, char* text, size_t size, char out[ROOM])
{
    iconv_t converter = iconv_open(to, from);
    size_t room = ROOM - 1, failed = 1;

    if (converter != (iconv_t)-1) {
        failed = iconv(converter, &text, &size, &out, &room);
        iconv_close(converter);
    }
    *out = '\0';
    return failed == 0 ? QPX_OK : complain("convert", ECI_ERR_SYSTEM_ERROR);
}

/* The server program ORDERS prices orders in any code page, and answers each in its own. */
static int price(QPX_ConnToken_t gateway, ECI_ChannelToken_t order, char invoice[ROOM])
{
    char header[] = "order=4711\naccount=ACC00001\ndate=2026-03-02\ncurrency=EUR\n", text[ROOM];
    char line[] = {0, 1, (char)0x87, 9, 0, 0, 0, 2, 0, 0, 0, 0}; /* two of article 100105 */
    QPX_ECI_PARMS parms = call_of("ORDERS", NULL, 0);
    size_t size = 0;
    int rc = convert("IBM037", "UTF-8", header, strlen(header), text);

    if (rc == QPX_OK)
        rc = ECI_createContainer(order, "ORDER.HEADER", ECI_CHAR, 37, text, strlen(header));
    if (rc == QPX_OK) rc = ECI_createContainer(order, "ORDER.LINES", ECI_BIT, 0, line, sizeof line);
    parms.channel = order;
    if (rc == QPX_OK) rc = QPX_ECI_Execute_Channel(gateway, &parms);
    if (rc == QPX_OK) rc = ECI_getContainerData(order, "INVOICE", text, sizeof text, 0, &size);
    return rc == QPX_OK ? convert("UTF-8", "IBM037", text, size, invoice) : complain("price", rc);
}

int main(int argc, char** argv)
{
    char invoice[ROOM];
    ECI_ChannelToken_t order = NULL;
    QPX_ConnToken_t gateway = NULL;
    int rc = open_gateway(argc, argv, &gateway);

    if (rc == QPX_OK) rc = ECI_createChannel("ORDER", &order);
    if (rc == QPX_OK) rc = price(gateway, order, invoice);
    if (rc == QPX_OK) fputs(invoice, stdout);
    if (order != NULL) ECI_deleteChannel(&order);
    close_gateway(&gateway);
    return end_with(rc);
}
