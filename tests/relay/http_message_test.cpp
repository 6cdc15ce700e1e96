// Where messages end, whatever the pieces in which they come, and what may follow them.
#include "http/http_message.h"

#include <gtest/gtest.h>

#include "http/http.h"

using namespace std::string_literals;

namespace {

const std::string OK = "HTTP/1.1 200 OK\r\n", END = "\r\n", LENGTH_2 = "Content-Length: 2\r\n";
const std::string CHUNKED = "Transfer-Encoding: chunked\r\n", HI = END + "hi";
using passed = std::pair<std::string, std::string>;

std::string state_of(const http_response& response, bool too_much) {
    std::string state = response.broken()     ? "broken"
                        : response.complete() ? "complete"
                        : response.endless()  ? response.stays_open() ? "stays open" : "open"
                                              : "waits";
    if (response.complete() && response.waits_s()) {
        state += " for " + std::to_string(*response.waits_s());
    }
    return state + (response.sloppy() ? ", sloppy" : "") + (too_much ? ", and more" : "");
}

// What a user gets of a message that comes in pieces of that size, and how it ends.
passed pass(std::string_view bytes, size_t piece_size, http_response response = {}) {
    std::string to_user;
    bool too_much = false;
    for (; !bytes.empty(); bytes.remove_prefix(std::min(piece_size, bytes.size()))) {
        std::string_view piece = bytes.substr(0, piece_size);
        while (!piece.empty() && !response.over()) {
            const auto [what, size] = response.take(piece);
            using enum http_response::part;
            to_user += what == HEAD      ? response.head(response.begun() ? "C\r\n" : "")
                       : what == BODY    ? std::string(piece.substr(0, size))
                       : what == FOREIGN ? response.raw()
                                         : "";
            piece.remove_prefix(size);
        }
        too_much = too_much || !piece.empty();
    }
    return {to_user, state_of(response, too_much)};
}

TEST(GwrelayResponse, EndsAtTheSamePlaceInWhateverPiecesItComes) {
    const std::string go_on = "HTTP/1.1 100 Go on\r\nA: b\r\n\r\n",
                      chunks = "\r\na;x=y\r\n0123456789";
    struct {
        std::string state, first, sent, got = sent;  // the latter two behind the first line
    } const cases[] = {
        {"complete", OK, LENGTH_2 + HI},
        {"waits", OK, LENGTH_2 + END + "h"},
        {"complete", OK, "content-length:0\r\n\r\n"},
        {"complete, and more", OK, LENGTH_2 + HI + "!", LENGTH_2 + HI},
        {"complete, and more", "HTTP/1.1 204 No\r\n", LENGTH_2 + END + "\n", LENGTH_2 + END},
        {"complete", "HTTP/1.1 304\r\n", CHUNKED + END},
        {"complete", OK, CHUNKED + chunks + "\r\n0\r\nTrailer: x\r\n\r\n"},
        {"complete", OK, "Transfer-Encoding: gzip , CHUNKED\r\n\r\n00 \r\n\r\n"},
        {"open", OK, END + "on"},
        {"open", OK, "Transfer-Encoding: gzip\r\n\r\non"},
        {"stays open", OK, "Content-Type: Text/Event-Stream;a\r\n\r\non"},
        // What is said of the service's connection stays there.
        {"complete", OK, "connection: a, Keep-Alive\r\nProxy-Connection: x\r\n" + LENGTH_2 + HI,
         LENGTH_2 + HI},
        {"complete for 0", OK, "Connection: x,close\r\n" + LENGTH_2 + HI, LENGTH_2 + HI},
        {"complete for 7", OK, "Keep-Alive: max=9, timeout=7\r\n" + LENGTH_2 + HI, LENGTH_2 + HI},
        {"complete for 0", OK, "Keep-Alive: timeout=7,max=0\r\n" + LENGTH_2 + HI, LENGTH_2 + HI},
        {"complete for 0", OK, "Keep-Alive: timeout=soon\r\n" + LENGTH_2 + HI, LENGTH_2 + HI},
        // Where others may see another end, users get what we see.
        {"complete", OK, "A: b\n Content-Length: 9\r\nContent-Length: 2\n\nhi",
         "A: b  Content-Length: 9\r\n" + LENGTH_2 + HI},
        {"complete, sloppy", OK, "A: b\rContent-Length: 9\r\nno header\r\n" + LENGTH_2 + HI,
         LENGTH_2 + HI},
        {"complete, sloppy", OK, LENGTH_2 + LENGTH_2 + HI},
        {"complete, sloppy", OK, LENGTH_2 + CHUNKED + "\r\n0\r\n\r\n", CHUNKED + "\r\n0\r\n\r\n"},
        {"complete, sloppy", OK, CHUNKED + "\r\n1\nx\r\n0\r\n\r\n"},
        {"complete, sloppy", OK, CHUNKED + "\r\n0\r\nA: \rb\r\n\r\n"},
    };
    for (const auto& [state, first, sent, got] : cases) {
        for (const size_t piece : {size_t{1}, size_t{7}, sent.size() + first.size()}) {
            EXPECT_EQ(pass(first + sent, piece), passed(first + "C\r\n" + got, state)) << piece;
        }
    }
    const std::string rest = "Connection: keep-alive\r\n" + LENGTH_2 + HI,
                      seen = "C\r\n" + LENGTH_2 + HI;
    EXPECT_EQ(pass(go_on + go_on + OK + rest, 1), passed(go_on + go_on + OK + seen, "complete"));
    EXPECT_EQ(pass("HTTP/1.0 200 OK\n" + rest, 9), passed(OK + seen, "complete"));
    EXPECT_EQ(pass("HTTP/1.0 200 OK\n" + LENGTH_2 + HI, 9), passed(OK + seen, "complete for 0"));
    EXPECT_EQ(pass("HTTP/1.1 200 \rA\n" + rest, 9),
              passed("HTTP/1.1 200\r\n" + seen, "complete, sloppy"));
    for (const std::string foreign : {"220 mail\r\n\r\n", "HTTP/1.1 099 No\r\n\r\n"}) {
        EXPECT_EQ(pass(foreign, 1), passed(foreign, "open"));
    }
}

TEST(GwrelayResponse, IsBrokenWhereItsEndCannotBeKnown) {
    for (const std::string& sent :
         {LENGTH_2 + "Content-Length: 3\r\n\r\n", "Content-Length: 2, 2\r\n\r\n"s,
          "Content-Length: -2\r\n\r\n"s, "Content-Length:\r\n\r\n"s,
          "Transfer-Encoding: chunked, gzip\r\n\r\n"s, CHUNKED + END + "0x1\r\n",
          CHUNKED + END + "\r\n", CHUNKED + END + "11111111111111111\r\n",
          CHUNKED + END + "1\r\nab\r\n", CHUNKED + END + "0;" + std::string(65536, 'x')}) {
        EXPECT_EQ(pass(OK + sent, sent.size() + OK.size()).second.substr(0, 6), "broken") << sent;
    }
    EXPECT_EQ(pass("HTTP/1.1 101 Other\r\n\r\n", 1).second, "broken") << "nobody has asked";
}

TEST(GwrelayResponse, DependsOnItsRequest) {
    const std::string switched = "HTTP/1.1 101 Other\r\nConnection: upgrade\r\n\r\n";
    EXPECT_EQ(pass(switched + "any", 1, {false, true}),
              passed("HTTP/1.1 101 Other\r\nC\r\nConnection: upgrade\r\n\r\nany", "stays open"));
    EXPECT_EQ(pass(OK + LENGTH_2 + END, 1, {true, false}).second, "complete");
}

// Two who do not see the same end of a request see different requests after it.
TEST(GwrelayRequestHead, IsRefusedWhereOthersMaySeeAnotherEnd) {
    const std::string post = "POST / HTTP/1.1\r\n";
    for (const std::string& bad :
         {post + LENGTH_2 + CHUNKED, post + LENGTH_2 + LENGTH_2, post + "Content-Length: 1, 1\r\n",
          post + "Content-Length: +1\r\n", post + "Content-Length:\r\n", post + CHUNKED + CHUNKED,
          post + "Transfer-Encoding: gzip, chunked\r\n", post + "Transfer-Encoding: xchunked\r\n",
          "POST / HTTP/1.0\r\n" + CHUNKED, post + "Content-Length : 1\r\n",
          post + "A: b\r\n Content-Length: 1\r\n", post + " A: b\r\n", post + "A\r\n",
          post + ": a\r\n", post + "A: b\rContent-Length: 1\r\n", post + "A: \0b\r\n"s,
          "POST /\r HTTP/1.1\r\n"s, "PO(ST / HTTP/1.1\r\n"s}) {
        EXPECT_FALSE(http_request_parse(bad + END)) << bad;
    }
    for (const std::string& good : {LENGTH_2, "content-length: 02\r\n"s, "Content-Length:2\n"s}) {
        const auto request = http_request_parse(post + good + END);
        ASSERT_TRUE(request) << good;
        EXPECT_EQ(request->length, 2U);
    }
    EXPECT_TRUE(http_request_parse(post + "transfer-encoding:\tChunked\r\n\r\n")->chunked);
}

TEST(GwrelayRequestHead, TellsWhetherItsConnectionGoesOn) {
    struct {
        std::string version, lines;
        bool persistent, upgrades = false;
    } const cases[] = {
        {"1", "", true},
        {"0", "", false},
        {"1", "Connection: a, CLOSE\r\n", false},
        {"0", "Connection: Keep-Alive\r\n", true},
        {"0", "Connection: close\r\nConnection: keep-alive\r\n", false},
        {"1", "Connection: closed\r\n", true},
        {"1", "Connection: keep-alive, Upgrade\r\nUpgrade: x\r\n", true, true},
        {"1", "Connection: upgrade\r\n", true},
        {"1", "Upgrade: x\r\n", true},
        {"0", "Connection: upgrade\r\nUpgrade: x\r\n", false},
    };
    for (const auto& [version, lines, persistent, upgrades] : cases) {
        const auto request = http_request_parse("GET / HTTP/1." + version + END + lines + END);
        ASSERT_TRUE(request) << lines;
        EXPECT_EQ(request->persistent, persistent) << version << lines;
        EXPECT_EQ(request->upgrades, upgrades) << version << lines;
    }
}

}  // namespace
