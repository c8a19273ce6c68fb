// The route table, the default page and the connection limits.
#include "http/http_server.h"

#include <gtest/gtest.h>

#include <string>

namespace {

int handler_a(HTTP_request*) { return 0; }
int handler_b(HTTP_request*) { return 0; }
int handler_c(HTTP_request*) { return 0; }

struct RouteTable : ::testing::Test {
    void SetUp() override { HTTP_clear_handlers(); }
    void TearDown() override { HTTP_clear_handlers(); }
};

HTTP_handler_function found(int32_t method, const char* url)
{
    const HTTP_handler* h = HTTP_find_handler(method, url);
    return h ? h->function : nullptr;
}

TEST_F(RouteTable, TheFirstEntryWhosePrefixAndMethodsFitWins)
{
    EXPECT_EQ(nullptr, found(HTTP_METHOD_GET, "/"));         // an empty table finds nothing
    ASSERT_EQ(1, HTTP_register_handler(handler_a, HTTP_METHOD_GET | HTTP_METHOD_HEAD, "/disk", 0));
    ASSERT_EQ(1, HTTP_register_handler(handler_b, HTTP_METHOD_SUBSCRIBE, nullptr, 1));
    ASSERT_EQ(1, HTTP_register_handler(handler_c, HTTP_METHOD_GET | HTTP_METHOD_POST, "/d", 1));
    const struct { int32_t method; const char* url; HTTP_handler_function handler; } cases[] = {
        {HTTP_METHOD_GET, "/disk/music/O1.mp3", handler_a}, {HTTP_METHOD_HEAD, "/disk", handler_a},
        {HTTP_METHOD_POST, "/disk/x", handler_c},      // the mask of /disk lacks POST
        {0, "/disk/x", handler_a},                     // an unknown method fits every mask
        {HTTP_METHOD_SUBSCRIBE, "/anything", handler_b}, {HTTP_METHOD_SUBSCRIBE, "/disk", handler_b},
        {HTTP_METHOD_GET, "/Disk", nullptr},           // case counts: /Disk is no /disk or /d
        {HTTP_METHOD_GET, "/x", nullptr}, {HTTP_METHOD_HEAD, "/d", nullptr},
        {0, "/x", handler_b},                          // the empty prefix fits every URL
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.handler, found(c.method, c.url)) << c.method << " " << c.url;
    HTTP_clear_handlers();
    EXPECT_EQ(0, HTTP_handler_count());
    EXPECT_EQ(nullptr, found(HTTP_METHOD_GET, "/disk"));
}

TEST_F(RouteTable, HoldsTwentyNineEntriesRefusesMoreAndCutsALongPrefix)
{
    EXPECT_EQ(0, HTTP_register_handler(nullptr, HTTP_METHOD_GET, "/x", 0));
    std::string url = "/" + std::string(600, 'u');
    ASSERT_EQ(1, HTTP_register_handler(handler_a, HTTP_METHOD_GET, url.c_str(), 0));
    const HTTP_handler* h = HTTP_find_handler(HTTP_METHOD_GET, url.c_str());
    ASSERT_NE(nullptr, h);
    EXPECT_EQ(HTTP_HANDLER_URL_SIZE - 1, h->url_length);
    for (int i = 1; i < HTTP_MAX_HANDLERS; i++)
        ASSERT_EQ(1, HTTP_register_handler(handler_a, HTTP_METHOD_GET, ("/r" + std::to_string(i)).c_str(), 0));
    EXPECT_EQ(0, HTTP_register_handler(handler_b, HTTP_METHOD_GET, "/late", 0));
    EXPECT_EQ(HTTP_MAX_HANDLERS, HTTP_handler_count());
    EXPECT_EQ(nullptr, HTTP_find_handler(HTTP_METHOD_GET, "/late"));
}

TEST(DefaultPage, KeepsTheOldValueWhenTheNewOneIsTooLong)
{
    HTTP_set_default_page("/configpage");
    HTTP_set_default_page(("/" + std::string(HTTP_DEFAULT_PAGE_SIZE, 'x')).c_str());
    EXPECT_STREQ("/configpage", HTTP_get_default_page());
    std::string longest = "/" + std::string(HTTP_DEFAULT_PAGE_SIZE - 1, 'y');
    HTTP_set_default_page(longest.c_str());
    HTTP_set_default_page(nullptr);
    EXPECT_EQ(longest, HTTP_get_default_page());
    HTTP_set_default_page("/configpage");
}

TEST(HttpLimits, TheTestHookMayLowerButNeverRaiseThem)
{
    HTTP_limits lower = {100, 200, 300, 2, 9999, 10}, l;
    HTTP_set_limits(&lower);
    HTTP_get_limits(&l);
    EXPECT_EQ("100 2 " + std::to_string(HTTP_MAX_CONNECTIONS),
              std::to_string(l.head_timeout_ms) + " " + std::to_string(l.per_peer) + " " + std::to_string(l.total));
    HTTP_set_limits(nullptr);
    HTTP_get_limits(&l);
    EXPECT_EQ(HTTP_HEAD_TIMEOUT_MS, l.head_timeout_ms);
    EXPECT_EQ(HTTP_MAX_PER_PEER, l.per_peer);
}

}  // namespace
