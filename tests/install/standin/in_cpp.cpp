// The same in C++, against the core itself, and against the interface of C.

#include <standin.h>
#include <standin/gateway.h>

#include <cstdio>
#include <string>

#include "peer.h"

static bool isAnswered(int port)
{
    char answer[ANSWER_SIZE];
    int unused;
    return call_price(port, answer) && std::string(answer + COMMAREA_AT, 5) == "01.20";
}

int main()
{
    standin::Gateway gateway;
    gateway.setReply("PRICE", [](const standin::EciRequest& request) {
        const std::string price = "01.20";
        return standin::EciReply::withCommarea(request, {price.begin(), price.end()});
    });
    if (!isAnswered(gateway.port()) || !gateway.awaitRequests(1)) return 1;
    if (gateway.lastRequest()->eci->userId != "FRED" || gateway.findingCount() != 0) return 2;

    standin_gateway* another = nullptr;
    if (standin_start(&another) != STANDIN_OK) return 3;
    if (standin_set_commarea(another, "PRICE", "01.20", 5) != STANDIN_OK) return 4;
    if (!isAnswered(standin_port(another)) || standin_stop(another) != STANDIN_OK) return 5;
    std::puts("tested in C++");
}
