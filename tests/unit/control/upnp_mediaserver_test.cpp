// The service lifecycle's pure pieces; starting and stopping is left to the integration tests.
#include "control/upnp_mediaserver.h"

#include <gtest/gtest.h>

namespace {

const struct { const char* page; int found; const char* address; } address_cases[] = {
    {"<html><head><title>Current IP Check</title></head><body>Current IP Address: 203.0.113.7</body>",
     1, "203.0.113.7"},
    {"<HTML><TITLE>198.51.100.23</TITLE>", 1, "198.51.100.23"},
    {"<html><body>203.0.113.7</body>", 0, ""},                    // no title: nothing
    {"<title>no digits at all", 0, ""},
    {"<title>1234567890.1234567890.1234567890", 1, "1234567890.12345678"},   // at most 19 characters
    {nullptr, 0, ""},
};

TEST(MediaServer, ExternalAddressIsTheDigitsAndDotsBehindTheTitle)
{
    for (const auto& c : address_cases) {
        char out[20] = "stale";
        EXPECT_EQ(c.found, upnp_external_address_parse(c.page, out, sizeof out)) << (c.page ? c.page : "(null)");
        EXPECT_STREQ(c.address, out) << (c.page ? c.page : "(null)");
    }
}

}  // namespace
