/*
 * change_password.c - verifies a user's password, and changes it if a second one is there: lines of
 * standard input, never of the command line, where others could see them. They do show where they
 * are typed; demo-programs/password.c asks without that.
 *
 *     change_password USER [HOST [PORT]]
 */
#include <time.h>

#include "example.h"
#include "qpxclient_esi.h"

#define PASSWORD_SIZE 64

static char current[PASSWORD_SIZE], changed[PASSWORD_SIZE];

/* Reads a line without its end, LF or CR LF. */
static char* read_password(char password[PASSWORD_SIZE])
{
    if (fgets(password, PASSWORD_SIZE, stdin) == NULL) return NULL;
    password[strcspn(password, "\r\n")] = '\0';
    return *password == '\0' ? NULL : password;
}

/* Overwrites a password in a way that no compiler leaves out. */
static void wipe(volatile char* password)
{
    for (int i = 0; i < PASSWORD_SIZE; ++i) password[i] = '\0';
}

int main(int argc, char** argv)
{
    QPX_ConnToken_t gateway = NULL;
    ESI_DETAILS details;
    struct tm expiry;
    char text[32] = "never", *second;
    int rc;

    setvbuf(stdin, NULL, _IONBF, 0); /* no second copy of them */
    if (argc < 2 || read_password(current) == NULL) {
        fprintf(stderr, "change_password USER [HOST [PORT]], the password on standard input\n");
        return 2;
    }
    second = read_password(changed);
    rc = open_gateway(argc - 1, argv + 1, &gateway);
    if (rc == QPX_OK) { /* NULL: at the Gateway's default server */
        rc = second == NULL
                 ? QPX_ESI_verifyPassword(gateway, argv[1], current, NULL, &details)
                 : QPX_ESI_changePassword(gateway, argv[1], current, second, NULL, &details);
        if (rc != QPX_OK) complain(second == NULL ? "verify" : "change", rc);
    }
    close_gateway(&gateway);
    wipe(current);
    wipe(changed);
    if (rc != QPX_OK) return end_with(rc);
    QPX_ESI_convertTime(&details.expiryTime, &expiry);
    if (details.expiryTime.year != 0) strftime(text, sizeof text, "%Y-%m-%d", &expiry);
    printf("%s: expires %s, wrong attempts %d\n", argv[1], text, details.invalidCount);
    return end_with(rc);
}
