#include "report.h"

#include <algorithm>
#include <iostream>

#include "command.h"

namespace qpx {

void Report::add(const std::string& state, const std::string& about, const std::string& what,
                 const std::string& advice)
{
    Json finding = {{"state", state}, {"about", about}, {"finding", what}};
    if (!advice.empty()) finding["advice"] = advice;
    findings_.push_back(finding);
    if (settings_.json) return;
    const std::string mark = state == "good"  ? green(settings_, "ok  ")
                             : state == "bad" ? red(settings_, "BAD ")
                                              : "    ";
    std::string label = about;
    label.resize(std::max<std::size_t>(10, label.size()), ' ');
    std::cout << mark << ' ' << label << ' ' << what << '\n';
    if (!advice.empty()) std::cout << "                 -> " << advice << '\n';
    std::cout.flush();
}

} // namespace qpx
