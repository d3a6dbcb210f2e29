/*
 * Sends passwords that nobody knows: qpx_random_passwords HOST PORT COUNT verifies, changes, calls
 * with new random passwords each time, and writes each of them in three forms on a line of its own
 * for each password: in clear, and the digits of its bytes in clear and as they travel. The results
 * do not matter.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "qpxclient.h"
#include "qpxclient_eci.h"
#include "qpxclient_esi.h"

enum { LENGTH = 8 };

static FILE* source;

static void draw(char* password)
{
    static const char characters[] = "ABCDEFGHJKLMNPQRSTUVWXYZabcdefghijkmnopqrstuvwxyz0123456789";
    int i;

    for (i = 0; i < LENGTH; ++i) {
        int c = fgetc(source);
        if (c == EOF) exit(EXIT_FAILURE);
        password[i] = characters[(size_t)c % (sizeof characters - 1)];
    }
    password[LENGTH] = '\0';
}

static void show(const char* password)
{
    int i;

    printf("%s ", password);
    for (i = 0; i < LENGTH; ++i) printf("%02X", (unsigned)password[i]);
    putchar(' ');
    for (i = 0; i < LENGTH; ++i) {
        unsigned before = i == 0 ? 0xFFU : (unsigned)password[i - 1];
        printf("%02X", (unsigned)password[i] ^ before);
    }
    putchar('\n');
}

static void call(QPX_ConnToken_t gateway, const char* password)
{
    QPX_ECI_PARMS record;

    memset(&record, 0, sizeof record);
    record.eci_version = ECI_VERSION_6;
    record.eci_call_type = ECI_SYNC;
    memcpy(record.eci_program_name, "ECHO    ", 8);
    memcpy(record.eci_userid, "FRED", 4);
    memcpy(record.eci_password, password, LENGTH);
    (void)QPX_ECI_Execute(gateway, &record);
}

int main(int argc, char** argv)
{
    QPX_ConnToken_t gateway = NULL;
    char first[LENGTH + 1], second[LENGTH + 1], third[LENGTH + 1];
    int i, count;

    if (argc != 4) return EXIT_FAILURE;
    source = fopen("/dev/urandom", "rb");
    if (source == NULL) return EXIT_FAILURE;
    if (QPX_openRemoteGatewayConnection(argv[1], atoi(argv[2]), &gateway, 30) != QPX_OK)
        return EXIT_FAILURE;
    count = atoi(argv[3]);
    for (i = 0; i < count; ++i) {
        draw(first);
        draw(second);
        draw(third);
        (void)QPX_ESI_verifyPassword(gateway, "FRED", first, NULL, NULL);
        (void)QPX_ESI_changePassword(gateway, "FRED", first, second, NULL, NULL);
        call(gateway, third);
        show(first);
        show(second);
        show(third);
    }
    (void)fclose(source);
    return QPX_closeGatewayConnection(&gateway) == QPX_OK ? EXIT_SUCCESS : EXIT_FAILURE;
}
