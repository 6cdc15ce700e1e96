#include "runtime/gwa_util_http.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

namespace {

// A copy without a terminator, so that the address sanitizer sees each byte read past the end.
std::vector<char> exactly(std::string_view text) { return {text.begin(), text.end()}; }

constexpr char REFUSED[] = "(refused)";  // what a buffer holds that must stay untouched

}  // namespace

TEST(HttpUri, IsTakenFromTheRequestLine) {
    const std::string longest(4096 - 4, '/');  // with its method all that is looked at
    const std::pair<std::string, std::string> requests[] = {
        {"GET / HTTP/1.0\r\n\r\n", "/"},
        {"GET / HTTP/1.0\r\n\r", REFUSED},
        {"POST /a?b=%20&c HTTP/1.1\r\n", "/a?b=%20&c"},
        {"HEAD /without/any/blank", "/without/any/blank"},
        {"get / HTTP/1.0\r\n\r\n", REFUSED},
        {"GET index HTTP/1.0\r\n\r\n", REFUSED},
        {"GET " + longest + "beyond HTTP/1.0\r\n\r\n", longest}};
    for (const auto& [head, expected] : requests) {
        const std::vector<char> bytes = exactly(head);
        char uri[8192] = "(refused)";
        EXPECT_EQ(gwa_http_uri_get(bytes.data(), bytes.size(), uri, sizeof uri),
                  expected == REFUSED ? -1 : 0);
        EXPECT_EQ(uri, expected);
    }
    char small[4];
    EXPECT_EQ(gwa_http_uri_get("GET /abcdef HTTP/1.0", 20, small, sizeof small), 0);
    EXPECT_STREQ(small, "/ab") << "cut";
}

TEST(UriParam, IsReadAsANumberOrAsAText) {
    constexpr int32_t NONE = -7777;
    const struct {
        const char* uri;
        int32_t number;
        const char* text;
    } cases[] = {
        {"uid=5&id=7", 5, "5"},
        {"id= -3", -3, ""},
        {"id=+4x HTTP", 4, "+4x"},
        {"id=&x", NONE, ""},
        {"id", NONE, REFUSED},
        {"idx=1&id=2", NONE, REFUSED},
        {"id=2147483648", INT32_MAX, "214748364"},
        {"id=-9999999999", INT32_MIN, "-99999999"},
        {"", NONE, REFUSED},
    };
    for (const auto& [uri, expected, text] : cases) {
        SCOPED_TRACE(uri);
        int32_t number = NONE;
        EXPECT_EQ(gwa_uri_param_int_get(uri, "id", 2, &number), expected == NONE ? -1 : 0);
        EXPECT_EQ(number, expected);
        char value[10] = "(refused)";
        size_t size = sizeof value;
        EXPECT_EQ(gwa_uri_param_str_get(uri, "id", 2, value, &size), text == REFUSED ? -1 : 0);
        EXPECT_STREQ(value, text);
        EXPECT_EQ(size, text == REFUSED ? sizeof value : strlen(text));
    }
}

TEST(JsonText, IsWhatStandsBetweenTheNextQuotes) {
    const std::tuple<std::string, const char*, int> samples[] = {
        {R"("key":"1234567")", "1234567", 0},
        {R"("key" : "" )", "", 0},
        {R"("key":"12345678")", "1234567", -1},
        {R"("key":"val)", "val", -1},
        {R"("key":12)", "", -1},
        {R"("key)", "", -1}};
    for (const auto& [text, value, result] : samples) {
        const std::vector<char> bytes(text.c_str(), text.c_str() + text.size() + 1);
        char out[8] = {};
        EXPECT_EQ(gwa_json_str_get(bytes.data(), "key", 3, out, sizeof out), result) << text;
        EXPECT_STREQ(out, value) << text;
    }
}

TEST(Url, TellsItsMimeTypeAndLosesItsPercents) {
    for (const std::string_view unknown : {"/a.JPG", "/a.", ".jpg", "", "no extension"}) {
        EXPECT_STREQ(gwa_url_mime_get(exactly(unknown).data(), unknown.size()),
                     "application/octet-stream");
    }
    EXPECT_STREQ(gwa_url_mime_get("/a.b/c.html", 11), "image/html");
    EXPECT_STREQ(gwa_url_mime_get("/a.b/c.html", 10), "text/html");
    char out[9] = {};
    EXPECT_EQ(gwa_url_percent_drop("a%%b%20%", 8, out, 8), 5U);
    EXPECT_STREQ(out, "a%b20");
    EXPECT_EQ(gwa_url_percent_drop("a%%b%20%", 8, out, 2), 2U);
}
