// SPDX-License-Identifier: MIT
#include "serve/access.h"
#include "serve/http_request.h"
#include "serve/json.h"
#include "text_literal.h"

#include <gtest/gtest.h>

using namespace device_db;

namespace
{

const QByteArray simple("GET /a?b=c HTTP/1.1\r\nHost: localhost:80\r\n\r\n");

int refusalOf(const QByteArray &bytes)
{
    HttpParser parser;
    parser.add(bytes);
    EXPECT_FALSE(parser.next());
    return parser.refusal();
}

QByteArray withHeader(const QByteArray &line)
{
    return "GET / HTTP/1.1\r\nHost: localhost\r\n" + line + "\r\n\r\n";
}

TEST(HttpParser, ReadsARequest)
{
    HttpParser parser;
    parser.add(simple);
    const auto request = parser.next();
    ASSERT_TRUE(request);
    EXPECT_EQ(request->method, "GET");
    EXPECT_EQ(request->path, "/a");
    EXPECT_EQ(request->query, "b=c");
    EXPECT_EQ(request->host, "localhost:80");
    EXPECT_TRUE(request->origin.isNull());
    EXPECT_TRUE(request->keepAlive);
    EXPECT_FALSE(parser.isWithinRequest());
    EXPECT_FALSE(parser.next());
    EXPECT_EQ(parser.refusal(), 0);
}

TEST(HttpParser, TakesRequestsInPieces)
{
    HttpParser parser;
    int requests = 0;
    for (const char byte : simple + simple) {
        parser.add(QByteArray(1, byte));
        requests += parser.next() ? 1 : 0;
        ASSERT_EQ(parser.refusal(), 0);
    }
    EXPECT_EQ(requests, 2);
    parser.add(simple + simple.left(10));
    EXPECT_TRUE(parser.next());
    EXPECT_FALSE(parser.next());
    EXPECT_TRUE(parser.isWithinRequest());
}

TEST(HttpParser, RefusesWhatIsNotExact)
{
    for (const char *line :
         {"GET  / HTTP/1.1", "GET /", "GET / HTTP/1.1 ", "GET http://x/ HTTP/1.1", "GET * HTTP/1.1", "G(T / HTTP/1.1",
          "GET /#a HTTP/1.1", "GET /\t HTTP/1.1", "GET /\xc3\xa4 HTTP/1.1", "GET / http/1.1", ""})
        EXPECT_EQ(refusalOf(QByteArray(line) + "\r\nHost: localhost\r\n\r\n"), 400) << line;
    EXPECT_EQ(refusalOf("GET / HTTP/1.0\r\nHost: localhost\r\n\r\n"), 505);
    EXPECT_EQ(refusalOf("GET / HTTP/2\r\nHost: localhost\r\n\r\n"), 505);
    for (const char *line : {"NoColon", "Na me: x", ": x", "Name : x", " Folded: x", "Name: \x01", "Name: \x7f",
                             "Name: \xc3\xa4", "Name: a\rb", "Host: other", "Name: a\nName: b"})
        EXPECT_EQ(refusalOf(withHeader(line)), 400) << line;
    EXPECT_EQ(refusalOf("GET / HTTP/1.1\r\n\r\n"), 400) << "no host";
    EXPECT_EQ(refusalOf("GET / HTTP/1.1\r\nHost:\r\n\r\n"), 400);
    EXPECT_EQ(refusalOf("GET / HTTP/1.1\nHost: localhost\n\r\n\r\n"), 400);
    EXPECT_EQ(refusalOf(withHeader("Cookie: a\r\nCookie: b")), 400);
    EXPECT_EQ(refusalOf(withHeader("Origin: a\r\norigin: b")), 400);
    EXPECT_EQ(refusalOf("\x16\x03\x01"), 400) << "TLS";
}

TEST(HttpParser, RefusesABody)
{
    EXPECT_EQ(refusalOf(withHeader("Content-Length: 0")), 413);
    EXPECT_EQ(refusalOf(withHeader("transfer-encoding: chunked")), 413);
}

TEST(HttpParser, IsBounded)
{
    const QByteArray most(HttpParser::longestHead, 'a');
    EXPECT_EQ(refusalOf("GET /" + most), 414);
    EXPECT_EQ(refusalOf("GET / HTTP/1.1\r\nHost: " + most), 431);
    EXPECT_EQ(refusalOf("GET / HTTP/1.1\r\nHost: " + most + "\r\n\r\n"), 431);
    QByteArray many("GET / HTTP/1.1\r\nHost: localhost\r\n");
    for (int i = 0; i < 64; ++i)
        many += "A: b\r\n";
    EXPECT_EQ(refusalOf(many + "\r\n"), 431);
    EXPECT_GE(HttpParser::longestHead, 32000) << "cookies of every server of that name are in it";
    // The largest that is taken.
    QByteArray head("GET / HTTP/1.1\r\nHost: localhost\r\nA: ");
    HttpParser parser;
    parser.add(head + most.left(HttpParser::longestHead - head.size() - 4) + "\r\n\r\n");
    EXPECT_TRUE(parser.next());
}

TEST(HttpParser, ReadsNothingAfterARefusal)
{
    HttpParser parser;
    parser.add("x\r\n\r\n" + simple);
    EXPECT_FALSE(parser.next());
    parser.add(simple);
    EXPECT_FALSE(parser.next());
    EXPECT_EQ(parser.refusal(), 400);
    EXPECT_FALSE(parser.isWithinRequest());
}

TEST(HttpQuery, IsDecoded)
{
    const auto pairs = pairsOf("table=0/%C3%96l&empty=&a=b=c");
    ASSERT_TRUE(pairs);
    ASSERT_EQ(pairs->size(), 3);
    EXPECT_EQ(pairs->at(0).second, "0/\xc3\x96l");
    EXPECT_EQ(pairs->at(1).second, "");
    EXPECT_EQ(pairs->at(2).second, "b=c");
    for (const char *query : {"a", "=b", "a=%", "a=%4", "a=%zz", "a=%ff", "a=%00", "a=b&", "&", "%ff=b"})
        EXPECT_FALSE(pairsOf(query)) << query;
    EXPECT_TRUE(pairsOf("")->isEmpty());
}

HttpRequest requestOf(const QByteArray &target, const QByteArray &headers)
{
    HttpParser parser;
    parser.add("GET " + target + " HTTP/1.1\r\n" + headers + "\r\n\r\n");
    const auto request = parser.next();
    EXPECT_TRUE(request);
    return request.value_or(HttpRequest());
}

using Verdict = Access::Verdict;

class AccessTest : public ::testing::Test
{
protected:
    Verdict judge(const QByteArray &target, const QByteArray &headers) const
    {
        return m_access.judge(requestOf(target, headers), QHostAddress("192.168.1.20"_q));
    }

    const QByteArray m_cookie = "\r\nCookie: other=1; device_db_8080=0123456789abcdef; device_db_80=0123456789abcdef; "
                                "device_db_9999=0123456789abcdef; device_db_1=0123456789abcdef";

private:
    Access m_access{"0123456789abcdef"};
};

TEST_F(AccessTest, TheTokenBecomesACookie)
{
    EXPECT_EQ(judge("/?token=0123456789abcdef", "Host: localhost:8080"), Verdict::GiveCookie);
    EXPECT_EQ(judge("/", "Host: localhost:8080" + m_cookie), Verdict::Allowed);
    EXPECT_EQ(judge("/api/open", "Host: localhost:8080" + m_cookie), Verdict::Allowed);
}

TEST_F(AccessTest, TheCookieIsThatOfThePortThatTheBrowserSees)
{
    for (const auto &[host, name] : {std::pair{"localhost:9", "device_db_9"}, std::pair{"[::1]:8081", "device_db_8081"},
                                     std::pair{"localhost", "device_db_80"}, std::pair{"[::1]", "device_db_80"}})
        EXPECT_EQ(Access("ab").cookie(requestOf("/", "Host: " + QByteArray(host))),
                  QByteArray(name) + "=ab; Path=/; HttpOnly; SameSite=Strict");
    EXPECT_EQ(judge("/", "Host: localhost:8081\r\nCookie: device_db_8081=0123456789abcdef"), Verdict::Allowed);
    EXPECT_EQ(judge("/", "Host: localhost:8081\r\nCookie: device_db_8080=0123456789abcdef"), Verdict::NoToken)
        << "that of another device";
}

TEST_F(AccessTest, NothingIsAnsweredWithoutIt)
{
    for (const char *target : {"/", "/api/open", "/?token=", "/?token=0123456789abcdee", "/?token=0123456789abcdef0",
                               "/api/open?token=0123456789abcdef", "/?a=b&token=0123456789abcdef"})
        EXPECT_EQ(judge(target, "Host: localhost:8080"), Verdict::NoToken) << target;
    for (const char *cookie : {"device_db_8080=", "device_db_8080=0123456789abcdee", "device_db_808=0123456789abcdef",
                               "xdevice_db_8080=0123456789abcdef"})
        EXPECT_EQ(judge("/", "Host: localhost:8080\r\nCookie: " + QByteArray(cookie)), Verdict::NoToken) << cookie;
}

TEST_F(AccessTest, OnlyNamesOfThisComputerAreAnswered)
{
    for (const char *host : {"localhost", "localhost:9999", "LOCALHOST:1", "127.0.0.1:8080", "[::1]:8080",
                             "192.168.1.20:8080", "192.168.1.20"})
        EXPECT_EQ(judge("/", "Host: " + QByteArray(host) + m_cookie), Verdict::Allowed) << host;
    for (const char *host : {"evil.example", "localhost.evil.example", "192.168.1.21", "127.0.0.2", "localhost:",
                             "localhost:x", "localhost:0", "localhost:99999", "[::1", "[::2]", "::1", "user@localhost"})
        EXPECT_EQ(judge("/", "Host: " + QByteArray(host) + m_cookie), Verdict::WrongHost) << host;
}

TEST_F(AccessTest, PagesOfOtherSitesAreRefused)
{
    const QByteArray host = "Host: localhost:8080" + m_cookie + "\r\nOrigin: ";
    EXPECT_EQ(judge("/api/open", host + "http://localhost:8080"), Verdict::Allowed);
    for (const char *origin :
         {"null", "http://localhost", "https://localhost:8080", "http://localhost:8081", "http://evil.example", ""})
        EXPECT_EQ(judge("/api/open", host + origin), Verdict::WrongOrigin) << origin;
}

TEST_F(AccessTest, OnlyGetIsAnswered)
{
    for (const char *method : {"POST", "HEAD", "OPTIONS", "PUT", "get"}) {
        HttpRequest request = requestOf("/", "Host: localhost" + m_cookie);
        request.method = method;
        EXPECT_EQ(Access("0123456789abcdef").judge(request, QHostAddress::LocalHost), Verdict::WrongMethod);
    }
}

TEST(Access, TokensAreRandom)
{
    EXPECT_EQ(randomToken().size(), 32);
    EXPECT_NE(randomToken(), randomToken());
}

TEST(Json, HoldsAnyCell)
{
    Json json;
    json.beginObject().key("a").beginArray().text("\"\\\n\x01\x7f/").cell(QByteArray()).cell("");
    json.endArray().key("b").text(QByteArray("\xc3\xa4\xff\xed\xa0\x80\xf0\x9f\x98\x80\xc3"));
    json.key("c").number(0.1).key("d").number(1e300 * 1e300).key("e").number(qint64(-5)).key("f").boolean(true);
    EXPECT_EQ(json.endObject().written(),
              QByteArray("{\"a\":[\"\\\"\\\\\\u000a\\u0001\x7f/\",null,\"\"],\"b\":\"\xc3\xa4\\udcff\\udced\\udca0"
                         "\\udc80\xf0\x9f\x98\x80\\udcc3\",\"c\":0.1,\"d\":null,\"e\":-5,\"f\":true}"));
}

} // namespace
