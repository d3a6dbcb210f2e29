// A value as one line of JSON is what the library that reads it would write.

#include <gtest/gtest.h>

#include <limits>
#include <random>

#include "json/call_json.h"

using call_json::Json;

namespace {

std::string asTheLibraryWrites(const Json& json)
{
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

void expectTheSame(const Json& json)
{
    EXPECT_EQ(asTheLibraryWrites(json), call_json::lineOf(json));
}

} // namespace

TEST(AJsonLine, HasTextsAsTheyAreAndWithWhatIsEscaped)
{
    for (const char* const text : {"", "plain", "a \"b\"", "back\\slash", "a\nb\tc\x01", "\x7F",
                                   "Gr\xC3\xBC\xC3\x9F", "cut \xC3", "\xFF\xFE", "</script>"})
        expectTheSame(Json(text));
    expectTheSame(Json(std::string("a\0b", 3)));
}

TEST(AJsonLine, HasNumbersAndAllElse)
{
    expectTheSame(Json(0));
    expectTheSame(Json(-1));
    expectTheSame(Json(std::numeric_limits<std::int64_t>::min()));
    expectTheSame(Json(std::numeric_limits<std::uint64_t>::max()));
    expectTheSame(Json(0.1));
    expectTheSame(Json(1e300));
    expectTheSame(Json(true));
    expectTheSame(Json(nullptr));
}

TEST(AJsonLine, HasObjectsAndListsInTheirOrder)
{
    expectTheSame(Json::object());
    expectTheSame(Json::array());
    expectTheSame(
        Json{{"z", 1}, {"a", {1, "two", Json::array(), Json::object()}}, {"\"", nullptr}});
}

TEST(AJsonLine, IsTheSameWhereItIsWrittenAtOnce)
{
    using call_json::Line;
    EXPECT_EQ("null", Line().text());
    EXPECT_EQ("null", Line(nullptr).text());
    EXPECT_EQ("[]", Line::array().text());
    Line inner;
    inner["text"] = std::string("a \"b\"");
    Line list = Line::array();
    list.push_back(inner);
    list.push_back(nullptr);
    Line line;
    line["number"] = std::numeric_limits<std::int64_t>::min();
    line["large"] = std::numeric_limits<std::uint64_t>::max();
    line["list"] = list;
    line["none"] = Line::array();
    line["texts"] = std::vector<std::string>{"x", "\n"};
    line["no texts"] = std::vector<std::string>();
    line["chars"] = "plain";
    EXPECT_EQ(R"({"number":-9223372036854775808,"large":18446744073709551615,)"
              R"("list":[{"text":"a \"b\""},null],"none":[],"texts":["x","\n"],)"
              R"("no texts":[],"chars":"plain"})",
              line.text());
}

TEST(AJsonLine, HasARequestAndAnAreaAsTheLibraryDoes)
{
    standin::EciRequest request;
    request.callType = standin::kCallProgram;
    request.program = "PRICE";
    request.userId = "J\xFCrgen \"x\"";
    request.commareaLength = 8;
    request.commarea = {'a', 'b', '\n', 0, 7};
    standin::Channel channel;
    channel.name = "ORDER";
    channel.containers = {
        {"ITEM", standin::Change::Added, standin::kContainerChar, 819, {'n', 0xFC, 't'}, {}},
        {"RAW", standin::Change::Added, standin::kContainerBit, 0, {1, 2}, {}}};
    for (const bool hasChannel : {false, true}) {
        if (hasChannel) request.channel = channel;
        for (const call_json::Form form : {call_json::Form::Either, call_json::Form::Both}) {
            Json json;
            call_json::putRequest(json, request, form);
            call_json::Line line;
            call_json::putRequest(line, request, form);
            EXPECT_EQ(asTheLibraryWrites(json), line.text());
        }
    }
}

TEST(AJsonLine, HasAnyBytesThatATextMayHave)
{
    std::mt19937 chance(1);
    for (int i = 0; i < 5000; ++i) {
        std::string text(chance() % 12, ' ');
        for (char& c : text) c = static_cast<char>(chance() % 256);
        expectTheSame(Json{{text, text}});
    }
}
