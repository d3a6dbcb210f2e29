#include "script/call_match.h"

#include <algorithm>

namespace script {

using conf::Section;
using conf::Value;
using standin::Channel;
using standin::Container;
using standin::EciRequest;

namespace {

constexpr std::size_t kLongestName = 100;

struct NameKey {
    const char* key;
    std::string EciRequest::*field;
};

constexpr NameKey kNameKeys[] = {
    {"program", &EciRequest::program},
    {"server", &EciRequest::server},
    {"transaction", &EciRequest::transid},
    {"user", &EciRequest::userId},
};

// The text that is left behind a star may begin anywhere; of several stars only the last one that
// was passed need ever be tried again.
bool fitsPattern(const std::string& pattern, const std::string& text)
{
    std::size_t p = 0;
    std::size_t t = 0;
    std::size_t star = std::string::npos;
    std::size_t tried = 0;
    while (t < text.size()) {
        if (p < pattern.size() && pattern[p] == '*') {
            star = p++;
            tried = t;
        } else if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == text[t])) {
            ++p;
            ++t;
        } else if (star != std::string::npos) {
            p = star + 1;
            t = ++tried;
        } else {
            return false;
        }
    }
    return pattern.find_first_not_of('*', p) == std::string::npos;
}

// Names are padded with blanks and 0x00 as they travel.
std::string unpadded(const std::string& text)
{
    const std::size_t end = text.find_last_not_of(std::string(" \0", 2));
    return end == std::string::npos ? "" : text.substr(0, end + 1);
}

} // namespace

NameMatch NameMatch::read(const Value& value, const std::string& name)
{
    NameMatch match;
    match.patterns_ = conf::textsIn(value, name, kLongestName);
    return match;
}

bool NameMatch::fits(const std::string& text) const
{
    const std::string name = unpadded(text);
    return std::any_of(patterns_.begin(), patterns_.end(),
                       [&](const std::string& pattern) { return fitsPattern(pattern, name); });
}

const std::vector<std::string>& CallMatch::keys()
{
    static const std::vector<std::string> keys = {"program",  "server",  "transaction", "user",
                                                  "commarea", "channel", "containers"};
    return keys;
}

CallMatch CallMatch::read(const Section& section)
{
    CallMatch match;
    for (const NameKey& one : kNameKeys) {
        if (const Value* const value = section.find(one.key))
            match.names_.emplace_back(one.field, NameMatch::read(*value, one.key));
    }
    if (const Value* const commarea = section.find("commarea"))
        match.commarea_ = DataMatch::read(*commarea, "commarea");
    const Value* const channel = section.find("channel");
    if (channel != nullptr && channel->kind == Value::Kind::Flag) {
        match.hasChannel_ = channel->flag;
    } else if (channel != nullptr) {
        match.channel_ = NameMatch::read(*channel, "channel");
    }
    if (const Value* const containers = section.find("containers"))
        match.containers_ = containersIn(*containers);
    return match;
}

bool CallMatch::fits(const EciRequest& request) const
{
    for (const auto& [field, name] : names_) {
        if (!name.fits(request.*field)) return false;
    }
    const Channel* const channel = request.channel ? &*request.channel : nullptr;
    if (hasChannel_ && *hasChannel_ != (channel != nullptr)) return false;
    if (channel_ && (channel == nullptr || !channel_->fits(channel->name))) return false;
    if (!containersFit(containers_, channel)) return false;
    if (!commarea_) return true;
    if (request.commareaLength == 0) return commarea_->fits(nullptr, kUsualCcsid);
    const standin::Bytes commarea = request.commareaAsSeenByProgram();
    return commarea_->fits(&commarea, kUsualCcsid);
}

std::string CallMatch::describe() const
{
    std::vector<std::string> parts;
    const auto add = [&parts](const std::string& key, const NameMatch& name) {
        std::string text = key;
        for (const std::string& pattern : name.patterns())
            text += (text.size() == key.size() ? " " : " or ") + pattern;
        parts.push_back(text);
    };
    for (const auto& [field, name] : names_) {
        for (const NameKey& one : kNameKeys) {
            if (one.field == field) add(one.key, name);
        }
    }
    if (hasChannel_) parts.emplace_back(*hasChannel_ ? "a channel" : "no channel");
    if (channel_) add("channel", *channel_);
    for (const auto& [name, data] : containers_) parts.push_back("container " + name);
    if (commarea_) parts.emplace_back("commarea");
    std::string text;
    for (const std::string& part : parts) text += (text.empty() ? "" : ", ") + part;
    return text.empty() ? "every call" : text;
}

std::vector<std::pair<std::string, DataMatch>> containersIn(const Value& value)
{
    if (!value.isTable()) conf::complain(value, "containers is no table of names");
    std::vector<std::pair<std::string, DataMatch>> wanted;
    for (const conf::Entry& entry : value.entries) {
        if (!standin::isChannelName(entry.key))
            throw conf::Wrong(entry.place, "this is no name that a container may have");
        wanted.emplace_back(entry.key, DataMatch::read(entry.value, "this container"));
    }
    return wanted;
}

bool containersFit(const std::vector<std::pair<std::string, DataMatch>>& wanted,
                   const Channel* channel)
{
    return std::all_of(wanted.begin(), wanted.end(), [&](const auto& one) {
        const Container* found = nullptr;
        if (channel != nullptr) {
            for (const Container& container : channel->containers) {
                if (container.name == one.first && container.change != standin::Change::Deleted)
                    found = &container;
            }
        }
        return one.second.fits(found == nullptr ? nullptr : &found->data,
                               found == nullptr ? kUsualCcsid : found->ccsid);
    });
}

} // namespace script
