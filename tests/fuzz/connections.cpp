// Sequences of connections in one thread of control, against a model: opens that come to different
// ends, calls, requests and their replies, ends from either side, closes, purges, closes of all,
// and the use of what has been closed. Freed records come back at their old addresses.
//
// Input: one operation after another.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include "clapi_types.h"
#include "input.h"
#include "qpxclient.h"
#include "qpxclient_eci.h"
#include "wire.h"
#include "world.h"

namespace {

constexpr std::size_t MOST_CONNECTIONS = 330;
constexpr std::size_t MOST_REQUESTS = 80;
constexpr std::size_t RESTING = 64; // so many closed connections are told from unknown ones

using Input = InputBytes;

// One connection as the application knows it.
struct Connection {
    QPX_ConnToken_t token;
    world::Socket* socket;
    std::size_t answered; // bytes of the requests that the peer has read
    std::string applid;
    int status = CONN_CONNECTED;
    int tables = 1;           // of slots, 16 each
    std::set<int> segments;   // of the places of tables
    std::set<int> used;       // message ids
    std::vector<int> pending; // asynchronous requests without a reply
    struct Reply {
        int id;
        int rc;
        std::string data;
    };
    std::deque<Reply> queue; // replies that nobody has collected

    // The lowest free id; 0 if there is no memory for the table that it needs.
    int take()
    {
        for (int id = 1; id <= 16 * tables; ++id)
            if (used.count(id) == 0) return *used.insert(id).first;
        // The places of tables are made in segments of 1, 2, 4 and so on.
        int segment = 0;
        while (tables + 1 >= 2 << segment) segment += 1;
        if (world::rules.noTables && segments.count(segment) == 0) return 0;
        segments.insert(segment);
        tables += 1;
        return *used.insert(16 * tables - 15).first;
    }
    bool tableIsEmpty(int table) const
    {
        auto first = used.lower_bound(16 * table + 1);
        return first == used.end() || *first > 16 * table + 16;
    }
    void giveBack(int id)
    {
        used.erase(id);
        if (id <= 16 || (id - 1) / 16 != tables - 1) return;
        while (tables > 1 && tableIsEmpty(tables - 1)) tables -= 1;
    }
    // The connection is over: whoever waits is told.
    void end(int newStatus, int rc)
    {
        status = newStatus;
        std::sort(pending.begin(), pending.end());
        for (int id : pending) queue.push_back({id, rc, ""});
        pending.clear();
    }
    // What a request gets that has this id, or none.
    int resultOf(int id) const
    {
        if (id != 0) return QPX_OK;
        if (status == CONN_CONNECTED) return QPX_ERR_MALLOCFAIL;
        return status == CONN_LOST ? QPX_ERR_LOSTGWCON : QPX_ERR_GATEWAY_CLOSED;
    }
};

// The last that have been closed, over all inputs.
std::deque<QPX_ConnToken_t>& resting()
{
    static auto* all = new std::deque<QPX_ConnToken_t>;
    return *all;
}

std::string replyTo(int id, int serverRc, const std::string& data)
{
    std::string body;
    wire::put32(body, 1);
    wire::put32(body, 0);
    wire::put32(body, static_cast<std::uint32_t>(id));
    wire::put32(body, static_cast<std::uint32_t>(serverRc));
    body += "    ";
    wire::put32(body, static_cast<std::uint32_t>(data.size()));
    wire::put8(body, 0);
    body += data;
    wire::put8(body, 0);
    return wire::flow(3, static_cast<std::uint32_t>(id), 0, "ECI", body);
}

class Sequence {
public:
    Sequence(const std::uint8_t* data, std::size_t size) : input_(data, size)
    {
        world::begin();
        world::rules.reusesBlocks = true;
        world::rules.onIdle = [this] { return goOn(); };
        world::rules.onConnect = [this](world::Socket& socket) { return meet(socket); };
        world::rules.onSend = [this](world::Socket&, const char*, std::size_t length) -> long {
            return failsToSend_ ? -EPIPE : static_cast<long>(length);
        };
        blocksBefore_ = world::liveBlocks();
    }

    void prime()
    {
        while (!input_.isOver()) step();
        closeAll();
    }

    void run()
    {
        for (int operations = 0; !input_.isOver() && operations < 150; ++operations) step();
        closeAll();
        FUZZ_CHECK(world::livingThreads() == 0, "a thread is left over");
        FUZZ_CHECK(world::openSockets() == 0, "a socket is left over");
        FUZZ_CHECK(world::heldLocks() == 0, "%d locks are held", world::heldLocks());
        if (world::liveBlocks() != blocksBefore_) world::showBlocks(0);
        FUZZ_CHECK(world::liveBlocks() == blocksBefore_, "%ld blocks are left over",
                   world::liveBlocks() - blocksBefore_);
    }

private:
    void step()
    {
        switch (input_.byte() % 21) {
        case 0:
        case 1: open(); break;
        case 2: openBadly(input_.byte()); break;
        case 3: openMany(many()); break;
        case 4: close(pick()); break;
        case 5: closeMany(many()); break;
        case 6: closeAll(); break;
        case 7: call(pick()); break;
        case 8:
        case 9: begin(pick(), 1); break;
        case 10: begin(pick(), 1 + input_.byte() % 40); break;
        case 11:
        case 12: answer(pick()); break;
        case 13: collect(pick(), false); break;
        case 14: collect(pick(), true); break;
        case 15: collectMany(pick(), 1 + input_.byte() % 40); break;
        case 16: endFromPeer(pick()); break;
        case 17: strayFlow(pick()); break;
        case 18: askApplid(pick()); break;
        case 19: world::rules.noTables = input_.byte() % 2 == 1; break;
        default: useClosed(); break;
        }
    }

    void expect(int rc, int expected, const char* call)
    {
        FUZZ_CHECK(rc == expected, "%s gives %d, not %d", call, rc, expected);
    }

    Connection* pick()
    {
        std::uint32_t number = input_.byte();
        if (connections_.empty()) return nullptr;
        return connections_[number % connections_.size()];
    }

    // A few, or now and then so many that sets of them grow.
    std::uint32_t many()
    {
        std::uint32_t number = input_.byte();
        return number < 200 ? 1 + number % 8 : (number - 199) * 6;
    }

    // ---- Opening ----

    int meet(world::Socket& socket)
    {
        meeting_ = &socket;
        if (refusesConnect_) return ECONNREFUSED;
        socket.incoming = greeting_;
        socket.ended = hangsUpFirst_;
        return 0;
    }

    int openWith(QPX_ConnToken_t* token, const std::string& applid, int timeout)
    {
        char host[] = "gateway";
        std::string name = applid;
        char none[] = "";
        return QPX_openRemoteGatewayConnectionApplid(host, 2006, token, timeout, &name[0], none);
    }

    void open()
    {
        if (connections_.size() >= MOST_CONNECTIONS) return;
        greeting_ = wire::flow(5, 0xFFFFFFFE, 0, "BASE", "");
        QPX_ConnToken_t token = nullptr;
        std::string applid = "APP" + std::to_string(opened_++ % 10000);
        expect(openWith(&token, applid, opened_ % 2 == 0 ? 5 : 0), QPX_OK, "an open");
        FUZZ_CHECK(find(token) == nullptr, "two connections at one address");
        Connection* connection = new Connection;
        connection->token = token;
        connection->socket = meeting_;
        connection->answered = meeting_->outgoing.size();
        connection->applid = applid;
        connections_.push_back(connection);
        // Where a closed one has been, there is an open one now.
        closed_.erase(std::remove(closed_.begin(), closed_.end(), token), closed_.end());
    }

    void openMany(std::uint32_t count)
    {
        for (std::uint32_t i = 0; i < count; ++i) open();
    }

    void openBadly(std::uint32_t way)
    {
        QPX_ConnToken_t token = nullptr;
        int expected = QPX_ERR_CONNECTFAILED;
        int timeout = 0;
        greeting_ = wire::flow(5, 0xFFFFFFFE, 0, "BASE", "");
        switch (way % 7) {
        case 0: refusesConnect_ = true; break;
        case 1:
            greeting_.clear();
            hangsUpFirst_ = true;
            expected = QPX_ERR_LOSTGWCON;
            break;
        case 2:
            greeting_ = wire::flow(4, 0xFFFFFFFE, QPX_ERR_WORK_WAS_REFUSED, "BASE", "");
            expected = QPX_ERR_WORK_WAS_REFUSED;
            break;
        case 3:
            greeting_.clear();
            timeout = 3;
            expected = QPX_ERR_CONNECTTIMEOUT;
            break;
        case 4:
            greeting_ = "HTTP/1.1 400 this is quite another protocol";
            expected = QPX_ERR_SYSTEM_ERROR;
            break;
        case 5: failsToSend_ = true; break;
        default:
            expect(openWith(&token, "NINECHARS", 0), QPX_ERR_APPLIDTOOLONG, "a bad open");
            return;
        }
        expect(openWith(&token, "APP", timeout), expected, "a bad open");
        FUZZ_CHECK(token == nullptr, "an open that fails gives a token out");
        refusesConnect_ = hangsUpFirst_ = failsToSend_ = false;
    }

    // ---- Calls ----

    // Everybody waits: the peer answers the call, or hangs up where it has been said goodbye to.
    bool goOn()
    {
        if (called_ != nullptr) {
            Connection* connection = called_;
            called_ = nullptr;
            std::uint32_t id = lastIdOn(connection);
            FUZZ_CHECK(id == expectedId_, "a request has id %u, not %u", id, expectedId_);
            connection->socket->incoming += replyTo(static_cast<int>(id), 0, "12345678");
            return true;
        }
        for (Connection* connection : connections_) {
            if (connection->socket->ended || !saysGoodbye(connection)) continue;
            connection->socket->ended = true;
            return true;
        }
        return false;
    }

    static bool saysGoodbye(const Connection* connection)
    {
        const std::string& sent = connection->socket->outgoing;
        return sent.size() >= 33 && wire::get32(sent, sent.size() - 33 + 8) == 10 &&
               wire::get32(sent, sent.size() - 33 + 12) == 0xFFFFFFFF;
    }

    static std::uint32_t lastIdOn(Connection* connection)
    {
        const std::string& sent = connection->socket->outgoing;
        std::uint32_t id = wire::get32(sent, connection->answered + 12);
        connection->answered = sent.size();
        return id;
    }

    void call(Connection* connection)
    {
        if (connection == nullptr) return;
        char area[8] = {'q', 'q', 'q', 'q', 'q', 'q', 'q', 'q'};
        QPX_ECI_PARMS parms = {};
        parms.eci_version = ECI_VERSION_6;
        parms.eci_call_type = ECI_SYNC;
        parms.eci_commarea = area;
        parms.eci_commarea_length = sizeof area;
        bool stands = connection->status == CONN_CONNECTED;
        int id = stands ? connection->take() : 0;
        expectedId_ = static_cast<std::uint32_t>(id);
        called_ = id != 0 ? connection : nullptr;
        int rc = QPX_ECI_Execute(connection->token, &parms);
        expect(rc, connection->resultOf(id), "a call");
        if (id == 0) return;
        FUZZ_CHECK(std::memcmp(area, "12345678", 8) == 0, "a call brings other data");
        connection->giveBack(id);
    }

    void begin(Connection* connection, std::uint32_t count)
    {
        for (std::uint32_t i = 0; connection != nullptr && i < count; ++i) {
            if (connection->used.size() >= MOST_REQUESTS) return;
            char area[4] = {};
            QPX_ECI_PARMS parms = {};
            parms.eci_version = ECI_VERSION_6;
            parms.eci_call_type = ECI_ASYNC;
            parms.eci_commarea = area;
            parms.eci_commarea_length = sizeof area;
            int rc = QPX_ECI_Execute(connection->token, &parms);
            int id = connection->status == CONN_CONNECTED ? connection->take() : 0;
            expect(rc, connection->resultOf(id), "a request");
            if (id == 0) return;
            FUZZ_CHECK(parms.eci_message_qualifier == id, "a request is %d, not %d",
                       parms.eci_message_qualifier, id);
            FUZZ_CHECK(lastIdOn(connection) == static_cast<std::uint32_t>(id),
                       "another id is sent");
            connection->pending.push_back(id);
        }
    }

    // The peer answers some of the requests, now or together with the next ones.
    void answer(Connection* connection)
    {
        std::uint32_t which = input_.byte();
        std::uint32_t count = 1 + input_.byte() % 20;
        for (std::uint32_t i = 0; connection != nullptr && i < count; ++i) {
            if (connection->pending.empty()) break;
            auto chosen = connection->pending.begin() +
                          static_cast<long>(which % connection->pending.size());
            int id = *chosen;
            connection->pending.erase(chosen);
            int serverRc = which % 5 == 4 ? ECI_ERR_NO_SESSIONS : 0;
            std::string data = "r" + std::to_string(id);
            data.resize(4);
            connection->socket->incoming += replyTo(id, serverRc, data);
            connection->queue.push_back({id, serverRc, serverRc == 0 ? data : ""});
        }
        world::runThreads();
    }

    // Collects the oldest reply, or that of one request.
    void collect(Connection* connection, bool specific)
    {
        std::uint32_t number = input_.byte();
        if (connection == nullptr) return;
        const std::set<int>& used = connection->used;
        int wanted = static_cast<int>(number % 90) - 2;
        if (number < 160 && !used.empty())
            wanted = *std::next(used.begin(), static_cast<long>(number % used.size()));
        char area[8] = {'q', 'q', 'q', 'q', 'q', 'q', 'q', 'q'};
        QPX_ECI_PARMS parms = {};
        parms.eci_version = ECI_VERSION_6;
        parms.eci_call_type = specific ? ECI_GET_SPECIFIC_REPLY : ECI_GET_REPLY;
        parms.eci_message_qualifier = wanted;
        parms.eci_commarea = area;
        parms.eci_commarea_length = sizeof area;
        int rc = QPX_ECI_Execute(connection->token, &parms);

        auto& queue = connection->queue;
        auto reply = queue.begin();
        while (specific && reply != queue.end() && reply->id != wanted) ++reply;
        if (reply == queue.end()) {
            bool isUnknown = specific && connection->used.count(wanted) == 0;
            expect(rc, isUnknown ? ECI_ERR_INVALID_MSG_QUAL : ECI_ERR_NO_REPLY, "a collection");
            return;
        }
        expect(rc, reply->rc, "a collection");
        FUZZ_CHECK(parms.eci_message_qualifier == reply->id, "the reply is %d, not %d",
                   parms.eci_message_qualifier, reply->id);
        if (rc == QPX_OK)
            FUZZ_CHECK(reply->data.compare(0, 4, area, 4) == 0 && area[4] == 'q',
                       "another reply's data");
        connection->giveBack(reply->id);
        queue.erase(reply);
    }

    void collectMany(Connection* connection, std::uint32_t count)
    {
        for (std::uint32_t i = 0; i < count; ++i) collect(connection, false);
    }

    // ---- Ends ----

    void endFromPeer(Connection* connection)
    {
        std::uint32_t way = input_.byte();
        if (connection == nullptr || connection->status != CONN_CONNECTED) return;
        if (way % 3 == 0) {
            connection->socket->incoming += wire::flow(10, 0xFFFFFFFF, 0, "BASE", "");
            connection->end(CONN_CLOSED, QPX_ERR_GATEWAY_CLOSED);
        } else {
            connection->end(CONN_LOST, QPX_ERR_LOSTGWCON);
        }
        connection->socket->ended = true;
        connection->socket->endError = way % 3 == 2 ? ECONNRESET : 0;
        world::runThreads();
        FUZZ_CHECK(connection->token->connStatus == connection->status, "the state is %d, not %d",
                   connection->token->connStatus.load(), connection->status);
    }

    // A reply to nobody: one to an id that no slot has ends the connection.
    void strayFlow(Connection* connection)
    {
        std::uint32_t way = input_.byte();
        if (connection == nullptr || connection->status != CONN_CONNECTED) return;
        int id = way < 100   ? static_cast<int>(way)
                 : way < 200 ? 0x7FFFFFFF - static_cast<int>(way)
                             : 0x07FFFFF0 + static_cast<int>(way);
        for (int waiting : connection->pending)
            if (waiting == id) return;
        connection->socket->incoming += replyTo(id, 0, "stray");
        world::runThreads();
        if (id >= 1 && id <= 16 * connection->tables) return;
        connection->end(CONN_LOST, QPX_ERR_LOSTGWCON);
    }

    Connection* find(QPX_ConnToken_t token)
    {
        for (Connection* one : connections_)
            if (one->token == token) return one;
        return nullptr;
    }

    void forget(Connection* connection)
    {
        connections_.erase(std::find(connections_.begin(), connections_.end(), connection));
        closed_.push_back(connection->token);
        if (closed_.size() > 300) closed_.pop_front();
        resting().push_back(connection->token);
        if (resting().size() > RESTING) resting().pop_front();
        delete connection;
    }

    void close(Connection* connection)
    {
        std::uint32_t way = input_.byte();
        if (connection == nullptr) return;
        QPX_ConnToken_t token = connection->token;
        bool isDone = connection->pending.empty() && connection->queue.empty();
        int rc = way % 3 == 0 && isDone ? QPX_closeGatewayConnection(&token)
                                        : QPX_purgeGatewayConnection(&token, way % 2 == 0 ? 0 : 5);
        expect(rc, QPX_OK, "a close");
        forget(connection);
    }

    void closeMany(std::uint32_t count)
    {
        for (std::uint32_t i = 0; i < count && !connections_.empty(); ++i) {
            std::size_t which = input_.isOver() ? 0 : i * 7 % connections_.size();
            close(connections_[which]);
        }
    }

    void closeAll()
    {
        expect(QPX_closeAllGatewayConnections(), QPX_OK, "a close of all");
        while (!connections_.empty()) forget(connections_.front());
    }

    // ---- What is closed ----

    void askApplid(Connection* connection)
    {
        if (connection == nullptr) return;
        char* applid = nullptr;
        expect(QPX_getApplid(connection->token, &applid), QPX_OK, "the question for an applid");
        FUZZ_CHECK(connection->applid == applid, "an applid is %s, not %s", applid,
                   connection->applid.c_str());
    }

    void useClosed()
    {
        std::uint32_t which = input_.byte();
        std::uint32_t way = input_.byte();
        QPX_ConnToken_t token = closed_.empty() || way >= 240
                                    ? reinterpret_cast<QPX_ConnToken_t>(std::uintptr_t{way} * 8)
                                    : closed_[which % closed_.size()];
        if (find(token) != nullptr) return;
        bool rests = std::find(resting().begin(), resting().end(), token) != resting().end();
        char* applid = nullptr;
        QPX_ECI_PARMS parms = {};
        parms.eci_version = ECI_VERSION_6;
        parms.eci_call_type = ECI_SYNC;
        int rc = 0;
        bool isClose = way % 4 == 0 || way % 4 == 1;
        if (way % 4 == 0) rc = QPX_closeGatewayConnection(&token);
        if (way % 4 == 1) rc = QPX_purgeGatewayConnection(&token, 0);
        if (way % 4 == 2) rc = QPX_getApplid(token, &applid);
        if (way % 4 == 3) rc = QPX_ECI_Execute(token, &parms);
        int expected = isClose && rests ? QPX_ERR_GWTOK_CLOSED : QPX_ERR_BADGWTOK;
        expect(rc, token == nullptr ? QPX_ERR_NULLGWTOK : expected, "the use of a closed token");
    }

    Input input_;
    long blocksBefore_ = 0;
    std::vector<Connection*> connections_;
    std::deque<QPX_ConnToken_t> closed_;
    unsigned int opened_ = 0;
    world::Socket* meeting_ = nullptr;
    std::string greeting_;
    bool refusesConnect_ = false;
    bool hangsUpFirst_ = false;
    bool failsToSend_ = false;
    Connection* called_ = nullptr;
    std::uint32_t expectedId_ = 0;
};

} // namespace

extern "C" int LLVMFuzzerInitialize(int* count, char*** arguments)
{
    static_cast<void>(count);
    static_cast<void>(arguments);
    // So many closed connections rest from the beginning.
    const std::uint8_t fill[] = {3, 210};
    Sequence(fill, sizeof fill).prime();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Sequence(data, size).run();
    return 0;
}

#ifdef FUZZ_PLANTED
// The planted mistake: the slots of added tables are not found.
extern "C" RequestSlot* __real__Z13clapiSlotByIdP13_RequestTablei(RequestTable* table, int id);
extern "C" RequestSlot* __wrap__Z13clapiSlotByIdP13_RequestTablei(RequestTable* table, int id)
{
    return id > 16 ? nullptr : __real__Z13clapiSlotByIdP13_RequestTablei(table, id);
}
#endif
