// How an order is read from its two containers, and every way in which it can be wrong.

#include <gtest/gtest.h>

#include <functional>

#include "client.h"
#include "orders/order.h"

using namespace orders;
using standin::Bytes;
using standin::Change;
using standin::Channel;
using standin::Container;
using standin_test::Raw;

namespace {

const std::string kHeader = "order=2026-0117\n"
                            "account=ACC00001\n"
                            "date=2026-11-20\n"
                            "currency=EUR\n"
                            "reference=Backstube\n";

const Bytes kLines = {
    0x00, 0x01, 0x87, 0x09, // article 100105
    0x00, 0x00, 0x00, 0x0C, // 12 pieces
    0x01, 0xF4, 0x00, 0x00, // 5.00 % discount
    0x00, 0x03, 0x0D, 0x40, // article 200000
    0x00, 0x00, 0x27, 0x0F, // 9999 pieces
    0x27, 0x10, 0x00, 0x00, // 100.00 % discount
};

Container characters(const std::string& text, int ccsid = 819)
{
    return {"ORDER.HEADER",
            Change::Added,
            standin::kContainerChar,
            ccsid,
            Bytes(text.begin(), text.end()),
            std::nullopt};
}

Container binary(const Bytes& data)
{
    return {"ORDER.LINES", Change::Added, standin::kContainerBit, 0, data, std::nullopt};
}

Channel channelOf(const std::vector<Container>& containers)
{
    return {"ORDER", 819, containers, std::nullopt};
}

Order read(const std::string& header, int ccsid = 819)
{
    return readOrder(channelOf({characters(header, ccsid), binary(kLines)}));
}

std::string refusal(const Channel& channel)
{
    try {
        readOrder(channel);
    } catch (const Refusal& refusal) {
        return refusal.what();
    }
    return "accepted";
}

std::string refusalOf(const std::string& header, int ccsid = 819)
{
    return refusal(channelOf({characters(header, ccsid), binary(kLines)}));
}

std::string refusalOf(const Bytes& lines)
{
    return refusal(channelOf({characters(kHeader), binary(lines)}));
}

// The header with another value of a key.
std::string with(const std::string& key, const std::string& value)
{
    std::string header = kHeader;
    const std::size_t start = header.find(key + "=") + key.size() + 1;
    return header.replace(start, header.find('\n', start) - start, value);
}

std::string without(const std::string& key)
{
    std::string header = kHeader;
    const std::size_t start = header.find(key + "=");
    return header.erase(start, header.find('\n', start) + 1 - start);
}

Bytes line(std::int64_t article, std::int64_t quantity, int discount, int reserved)
{
    return Raw().int32(article).int32(quantity).int16(discount).int16(reserved);
}

} // namespace

TEST(ReadOrder, TakesAHeaderOfAtMost64Kilobytes)
{
    const std::string whole = kHeader + std::string(65536 - kHeader.size(), '\n');
    EXPECT_EQ("2026-0117", read(whole).number);
    EXPECT_EQ("ORDER.HEADER: 65537 bytes are more than 65536", refusalOf(whole + "\n"));
}

TEST(ReadOrder, TakesHeaderAndLines)
{
    const Order order = read(kHeader);
    EXPECT_EQ("2026-0117", order.number);
    EXPECT_EQ("ACC00001", order.account);
    EXPECT_EQ("2026-11-20", order.date);
    EXPECT_EQ("EUR", order.currency);
    EXPECT_EQ("Backstube", order.reference);
    ASSERT_EQ(2U, order.lines.size());
    EXPECT_EQ(100105U, order.lines[0].article);
    EXPECT_EQ(12U, order.lines[0].quantity);
    EXPECT_EQ(500U, order.lines[0].discount);
    EXPECT_EQ(200000U, order.lines[1].article);
    EXPECT_EQ(9999U, order.lines[1].quantity);
    EXPECT_EQ(10000U, order.lines[1].discount);
}

TEST(ReadOrder, TakesContainersInAnyOrderAmongOthers)
{
    const Container other = {"OTHER", Change::Added, standin::kContainerBit, 0, {1}, std::nullopt};
    EXPECT_EQ("accepted", refusal(channelOf({other, binary(kLines), other, characters(kHeader)})));
}

TEST(ReadOrder, TakesAnOrderWithoutAReference)
{
    EXPECT_EQ("", read(without("reference")).reference);
}

TEST(ReadOrder, TakesEveryLineEnd)
{
    EXPECT_EQ("A", read("order=A\r\n\r\naccount=B\r\ndate=2026-01-31\r\ncurrency=EUR").number);
    EXPECT_EQ("EUR", read("\n\norder=A\naccount=B\ndate=2026-01-31\ncurrency=EUR").currency);
}

TEST(ReadOrder, TakesEbcdicWithItsNewLines)
{
    const Bytes text = {
        0x96, 0x99, 0x84, 0x85, 0x99, 0x7E, 0xC1, 0xF1, 0x15,       // order=A1
        0x81, 0x83, 0x83, 0x96, 0xA4, 0x95, 0xA3, 0x7E, 0xC2, 0x25, // account=B
        0x84, 0x81, 0xA3, 0x85, 0x7E, 0xF2, 0xF0, 0xF2, 0xF6, 0x60, 0xF1, 0xF2,
        0x60,                                                                   // date=2026-12-
        0xF3, 0xF1, 0x15,                                                       // 31
        0x83, 0xA4, 0x99, 0x99, 0x85, 0x95, 0x83, 0xA8, 0x7E, 0xC5, 0xE4, 0xD9, // currency=EUR
    };
    const Order order = read(std::string(text.begin(), text.end()), 37);
    EXPECT_EQ("A1", order.number);
    EXPECT_EQ("B", order.account);
    EXPECT_EQ("2026-12-31", order.date);
    EXPECT_EQ("EUR", order.currency);
}

TEST(ReadOrder, TakesAReferenceOf40CharactersAndNotMore)
{
    std::string reference;
    for (int i = 0; i < 40; ++i) reference += "\xC3\xA4";
    EXPECT_EQ(reference, read(with("reference", reference), 1208).reference);
    EXPECT_EQ("ORDER.HEADER: reference \"" + reference + "x\" is not at most 40 characters",
              refusalOf(with("reference", reference + "x"), 1208));
}

TEST(ReadOrder, RefusesContainersThatAreMissingOrOfTheOtherType)
{
    Container binaryHeader = characters(kHeader);
    binaryHeader.type = standin::kContainerBit;
    Container textLines = binary(kLines);
    textLines.type = standin::kContainerChar;
    EXPECT_EQ("there is no container ORDER.HEADER", refusal(channelOf({binary(kLines)})));
    EXPECT_EQ("there is no container ORDER.LINES", refusal(channelOf({characters(kHeader)})));
    EXPECT_EQ("ORDER.HEADER is not of characters",
              refusal(channelOf({binaryHeader, binary(kLines)})));
    EXPECT_EQ("ORDER.LINES is not binary", refusal(channelOf({characters(kHeader), textLines})));
}

TEST(ReadOrder, RefusesCodePagesAndBytesThatItCannotRead)
{
    EXPECT_EQ("ORDER.HEADER: CCSID 4711 is not known", refusalOf(kHeader, 4711));
    EXPECT_EQ("ORDER.HEADER: CCSID 0 is not known", refusalOf(kHeader, 0));
    EXPECT_EQ("ORDER.HEADER: byte 6 is no character of CCSID 1208", refusalOf("order=\xE4", 1208));
}

TEST(ReadOrder, RefusesHeaderLinesThatAreWrong)
{
    EXPECT_EQ("ORDER.HEADER, line 2: not KEY=VALUE", refusalOf("order=A\nnonsense\n"));
    EXPECT_EQ("ORDER.HEADER, line 3: unknown key \"colour\"", refusalOf("order=A\n\ncolour=red"));
    EXPECT_EQ("ORDER.HEADER, line 1: unknown key \"Order\"", refusalOf("Order=A"));
    EXPECT_EQ("ORDER.HEADER, line 1: unknown key \"\"", refusalOf("=A"));
    EXPECT_EQ("ORDER.HEADER, line 2: \"order\" is given twice", refusalOf("order=A\norder=A"));
    EXPECT_EQ("ORDER.HEADER, line 1: a control character", refusalOf("order=A\tB"));
    EXPECT_EQ("ORDER.HEADER, line 1: a control character", refusalOf(std::string("order=A\0", 8)));
    EXPECT_EQ("ORDER.HEADER, line 1: a control character", refusalOf("order=A\rdate=B"));
    EXPECT_EQ("ORDER.HEADER, line 1: too long", refusalOf(std::string(201, 'x')));
    EXPECT_EQ("ORDER.HEADER, line 1: not KEY=VALUE", refusalOf(std::string(200, 'x')));
}

TEST(ReadOrder, RefusesAHeaderWithoutAKeyThatIsRequired)
{
    for (const char* const key : {"order", "account", "date", "currency"}) {
        EXPECT_EQ(std::string("ORDER.HEADER: there is no ") + key, refusalOf(without(key)));
    }
    EXPECT_EQ("ORDER.HEADER: there is no order", refusalOf(""));
}

TEST(ReadOrder, RefusesOrderNumbersThatAreNone)
{
    EXPECT_EQ("accepted", refusalOf(with("order", "123456789-aZ")));
    for (const char* const number : {"", "123456789-aZx", "2026/1", "2026 1"}) {
        EXPECT_EQ(std::string("ORDER.HEADER: order \"") + number +
                      "\" is not 1 to 12 letters, digits and hyphens",
                  refusalOf(with("order", number)));
    }
}

TEST(ReadOrder, KnowsTheCalendar)
{
    for (const char* const date :
         {"2026-01-31", "2026-12-31", "2026-02-28", "2028-02-29", "2000-02-29", "2026-04-30"}) {
        EXPECT_EQ("accepted", refusalOf(with("date", date))) << date;
    }
    for (const char* const date :
         {"", "2026-02-29", "2100-02-29", "2026-04-31", "2026-13-01", "2026-00-01", "2026-01-00",
          "2026-01-32", "2026-1-01", "20260101", "2026/01/01", "2026-01-0x", "2026-01-011"}) {
        EXPECT_EQ(std::string("ORDER.HEADER: date \"") + date + "\" is not a day as YYYY-MM-DD",
                  refusalOf(with("date", date)));
    }
}

TEST(ReadOrder, RefusesCurrenciesThatAreNone)
{
    for (const char* const currency : {"", "EU", "EURO", "eur", "E1R"}) {
        EXPECT_EQ(std::string("ORDER.HEADER: currency \"") + currency +
                      "\" is not three capital letters",
                  refusalOf(with("currency", currency)));
    }
}

TEST(ReadOrder, RefusesLinesThatAreNoRecords)
{
    EXPECT_EQ("ORDER.LINES: 0 bytes are not records of 12", refusalOf(Bytes{}));
    EXPECT_EQ("ORDER.LINES: 11 bytes are not records of 12", refusalOf(Bytes(11, 1)));
    EXPECT_EQ("ORDER.LINES: 13 bytes are not records of 12", refusalOf(Bytes(13, 1)));
}

TEST(ReadOrder, Takes999LinesAndNotMore)
{
    Raw lines;
    for (int i = 0; i < 999; ++i) lines.bytes(line(100105, 1, 0, 0));
    EXPECT_EQ("accepted", refusalOf(lines));
    lines.bytes(line(100105, 1, 0, 0));
    EXPECT_EQ("ORDER.LINES: 1000 records are more than 999", refusalOf(lines));
}

TEST(ReadOrder, RefusesNumbersOutOfTheirLimits)
{
    const auto second = [](const Bytes& record) {
        return refusalOf(Bytes(Raw().bytes(line(100105, 1, 0, 0)).bytes(record)));
    };
    EXPECT_EQ("accepted", second(line(100105, 9999, 10000, 0)));
    EXPECT_EQ("ORDER.LINES, line 2: quantity 0 is not 1 to 9999", second(line(100105, 0, 0, 0)));
    EXPECT_EQ("ORDER.LINES, line 2: quantity 10000 is not 1 to 9999",
              second(line(100105, 10000, 0, 0)));
    EXPECT_EQ("ORDER.LINES, line 2: quantity 4294967295 is not 1 to 9999",
              second(line(100105, -1, 0, 0)));
    EXPECT_EQ("ORDER.LINES, line 2: discount 10001 is not 0 to 10000",
              second(line(100105, 1, 10001, 0)));
    EXPECT_EQ("ORDER.LINES, line 2: discount 65535 is not 0 to 10000",
              second(line(100105, 1, -1, 0)));
    EXPECT_EQ("ORDER.LINES, line 2: the last two bytes are not 0", second(line(100105, 1, 0, 1)));
}

TEST(CcsidOfAnswer, IsThatOfTheHeader)
{
    EXPECT_EQ(1208, ccsidOfAnswer(channelOf({characters(kHeader, 1208)})));
    EXPECT_EQ(37, ccsidOfAnswer(channelOf({binary(kLines), characters(kHeader, 37)})));
}

TEST(CcsidOfAnswer, Is819WithoutAUsableHeader)
{
    Container binaryHeader = characters(kHeader, 1208);
    binaryHeader.type = standin::kContainerBit;
    EXPECT_EQ(819, ccsidOfAnswer(channelOf({})));
    EXPECT_EQ(819, ccsidOfAnswer(channelOf({characters(kHeader, 4711)})));
    EXPECT_EQ(819, ccsidOfAnswer(channelOf({binaryHeader})));
}
