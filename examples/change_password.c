/*
 * change_password.c - verifies a user's password at a server, and changes it if a second one is
 * there.
 *
 * Passwords are read from standard input, one to a line, never from the command line, where others
 * could see them. They do show where they are typed; demo-programs/password.c asks without that.
 *
 *     change_password USER [HOST [PORT]]
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "qpxclient_esi.h"

#define PASSWORD_SIZE 64

static int complain(const char* what, int rc)
{
    char name[QPX_RC_STRING_SIZE];

    fprintf(stderr, "%s: %s (%d)\n", what, QPX_getRcString(rc, name), rc);
    return rc;
}

/* Reads a line without its end, LF or CR LF; 0 if there is none. */
static int read_password(char password[PASSWORD_SIZE])
{
    size_t length;

    if (fgets(password, PASSWORD_SIZE, stdin) == NULL) return 0;
    length = strlen(password);
    if (length > 0 && password[length - 1] == '\n') password[--length] = '\0';
    if (length > 0 && password[length - 1] == '\r') password[--length] = '\0';
    return length > 0;
}

/* Overwrites a password in a way that no compiler leaves out. */
static void wipe(char password[PASSWORD_SIZE])
{
    volatile char* at = password;
    int i;

    for (i = 0; i < PASSWORD_SIZE; ++i) at[i] = '\0';
}

static void show(const char* user, const ESI_DETAILS* details)
{
    struct tm expiry;
    char text[32] = "never";

    QPX_ESI_convertTime(&details->expiryTime, &expiry);
    if (details->expiryTime.year != 0) strftime(text, sizeof text, "%Y-%m-%d", &expiry);
    printf("%s: expires %s, wrong attempts %d\n", user, text, details->invalidCount);
}

/* The server that is asked is the Gateway's default. */
static int run(QPX_ConnToken_t gateway, const char* user, const char* current, const char* changed)
{
    ESI_DETAILS details;
    int rc = changed == NULL
                 ? QPX_ESI_verifyPassword(gateway, user, current, NULL, &details)
                 : QPX_ESI_changePassword(gateway, user, current, changed, NULL, &details);

    if (rc != QPX_OK) return complain(changed == NULL ? "verify" : "change", rc);
    show(user, &details);
    return rc;
}

int main(int argc, char** argv)
{
    QPX_ConnToken_t gateway = NULL;
    char current[PASSWORD_SIZE] = "", changed[PASSWORD_SIZE] = "";
    int is_change, rc;

    setvbuf(stdin, NULL, _IONBF, 0); /* no second copy of them */
    if (argc < 2 || !read_password(current)) {
        fprintf(stderr,
                "change_password USER [HOST [PORT]], with the password on standard input\n");
        return 2;
    }
    is_change = read_password(changed);
    rc = QPX_openRemoteGatewayConnection(argc > 2 ? argv[2] : "127.0.0.1",
                                         argc > 3 ? atoi(argv[3]) : 5770, &gateway, 30);
    if (rc == QPX_OK) {
        rc = run(gateway, argv[1], current, is_change ? changed : NULL);
        QPX_closeGatewayConnection(&gateway);
    } else {
        complain("open", rc);
    }
    wipe(current);
    wipe(changed);
    if (fflush(stdout) == 0 && !ferror(stdout)) return rc != QPX_OK;
    fprintf(stderr, "cannot write to standard output\n");
    return 1;
}
