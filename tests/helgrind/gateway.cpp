// The gateway of the load under helgrind, in a process that helgrind does not watch: writes its
// port, releases what it keeps for each line that comes in, and judges the load, whose last line is
// the number of connections opened again, once that line has come. Exits with 1 if anything was
// not as it should be.
#include <iostream>
#include <string>

#include "helgrind/plan.h"
#include "support/mixed_load_gateway.h"

int main()
{
    const support::LoadPlan plan = smallLoad();
    standin::Gateway gateway;
    support::prepareForLoad(gateway, plan.connections);
    std::cout << gateway.port() << std::endl;

    std::string word;
    while (std::cin >> word && word == "release") gateway.release();
    const int reopened = std::stoi(word);
    const auto problems = support::problemsOf(gateway, plan.connections, reopened);
    for (const std::string& problem : problems) std::cerr << problem << '\n';
    return problems.empty() ? 0 : 1;
}
