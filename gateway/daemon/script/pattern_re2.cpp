#include <re2/re2.h>

#include "conf/section.h"
#include "script/pattern.h"

namespace script {

namespace {

constexpr std::int64_t kPatternMemory = 1024 * 1024;

re2::RE2::Options options()
{
    re2::RE2::Options options;
    options.set_log_errors(false);
    options.set_dot_nl(true);
    options.set_max_mem(kPatternMemory);
    return options;
}

class Re2Pattern final : public Pattern {
public:
    explicit Re2Pattern(const std::string& text) : expression_(text, options()) {}

    bool ok() const { return expression_.ok(); }
    bool isIn(const std::string& text) const override
    {
        return re2::RE2::PartialMatch(text, expression_);
    }

private:
    const re2::RE2 expression_;
};

} // namespace

std::shared_ptr<const Pattern> Pattern::read(const std::string& text, const conf::Value& value)
{
    auto pattern = std::make_shared<const Re2Pattern>(text);
    if (!pattern->ok()) conf::complain(value, "pattern is no regular expression that can be used");
    return pattern;
}

} // namespace script
