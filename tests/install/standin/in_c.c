/* A test as somebody writes it in C: a call that a function answers, and that is read back; one
 * that a script answers; and a wait that is in vain. */
#include <standin.h>
#include <stdio.h>
#include <string.h>

#include "peer.h"

static void price(const standin_call* call, standin_answer* answer, void* context)
{
    size_t length, unused;

    if (memcmp(standin_call_commarea(call, &length), "flour", 5) == 0)
        standin_answer_commarea(answer, context, 5);
}

static int fail(int line)
{
    fprintf(stderr, "line %d: %s\n", line, standin_problem());
    return 1;
}

int main(int argc, char** argv)
{
    char context[] = "01.20", answer[ANSWER_SIZE];
    standin_gateway* gateway;
    standin_call* call;

    if (argc != 2) return fail(__LINE__);
    if (standin_start(&gateway) != STANDIN_OK) return fail(__LINE__);
    if (standin_set_program(gateway, "PRICE", price, context) != STANDIN_OK) return fail(__LINE__);
    if (!call_price(standin_port(gateway), answer)) return fail(__LINE__);
    if (memcmp(answer + COMMAREA_AT, "01.20", 5) != 0) return fail(__LINE__);
    if (standin_await_calls(gateway, 1, 30000) != STANDIN_OK) return fail(__LINE__);
    if (standin_await_calls(gateway, 2, 0) != STANDIN_ERR_TIME) return fail(__LINE__);
    if (standin_read_call(gateway, 1, &call) != STANDIN_OK) return fail(__LINE__);
    if (strcmp(standin_call_user(call), "FRED") != 0) return fail(__LINE__);
    standin_free_call(call);
    if (standin_set_script(gateway, argv[1]) != STANDIN_OK) return fail(__LINE__);
    if (!call_price(standin_port(gateway), answer)) return fail(__LINE__);
    if (memcmp(answer + COMMAREA_AT, "99.99", 5) != 0) return fail(__LINE__);
    if (standin_stop(gateway) != STANDIN_OK) return fail(__LINE__);
    puts("tested in C");
    return 0;
}
