#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <tuple>

#include "msgapi/url.h"

namespace {

// What ORP_UTIL_ParseUrl stores; "(null)" for texts that are null.
struct Parts {
  uint32_t result = 9;
  uint32_t protocol = 9;
  std::string host;
  uint32_t port = 9;
  std::string path;
};

Parts parse(const char *url) {
  Parts parts;
  char *host = nullptr, *path = nullptr;
  parts.result = ORP_UTIL_ParseUrl(url, &parts.protocol, &host, &parts.port, &path);
  parts.host = host == nullptr ? "(null)" : host;
  parts.path = path == nullptr ? "(null)" : path;
  std::free(host);
  std::free(path);
  return parts;
}

const struct {
  const char *url;
  uint32_t result;
  // What is stored, also before a failure.
  uint32_t protocol;
  const char *host;
  uint32_t port;
  const char *path;
} kCases[] = {
    {"http://a.de/x", 1, 0, "a.de", 80, "/x"},
    {"HTTPS://a.de", 1, 1, "a.de", 443, "(null)"},
    {" \t\r\nftp://a:2121/b c?d", 1, 2, "a", 2121, "/b%20c?d"},
    {"tftp://a/%41%4", 1, 3, "a", 69, "/%41%254"},
    {"http://[fe80::1]:8080/x", 1, 0, "fe80::1", 8080, "/x"},
    {"http://[::1]junk/x", 1, 0, "::1", 80, "/x"},
    {"http://a:65535junk", 1, 0, "a", 65535, "(null)"},
    {"http://a?q=/x", 1, 0, "a?q=", 80, "/x"},
    // The port is taken from the path when there is none before it, and ends the path.
    {"http://a/x:8080/y", 1, 0, "a", 8080, "/x"},
    {"http://a:81/x:8080", 1, 0, "a", 81, "/x:8080"},
    {"https://a/x:y", 0, 1, "(null)", 0, "(null)"},

    {nullptr, 0, 0, "(null)", 0, "(null)"},
    {"https:/a", 0, 0, "(null)", 0, "(null)"},
    {"gopher://a", 0, 0, "(null)", 0, "(null)"},
    {"https://[::1/x", 0, 1, "(null)", 0, "(null)"},
    {"https://a:0", 0, 1, "(null)", 0, "(null)"},
    {"https://a:65536", 0, 1, "(null)", 0, "(null)"},
    {"https://a:18446744073709551697", 0, 1, "(null)", 0, "(null)"},
    {"https://a:-1", 0, 1, "(null)", 0, "(null)"},
};

TEST(ParseUrl, SplitsUrlsAndKeepsWhatItHasStored) {
  for (const auto &[url, result, protocol, host, port, path] : kCases) {
    const Parts parts = parse(url);
    EXPECT_EQ(std::tie(result, protocol, port), std::tie(parts.result, parts.protocol, parts.port))
        << url;
    EXPECT_EQ(host, parts.host) << url;
    EXPECT_EQ(path, parts.path) << url;
  }
}

TEST(ParseUrl, NeedsNoOutputs) {
  EXPECT_EQ(1u, ORP_UTIL_ParseUrl("http://a/x", nullptr, nullptr, nullptr, nullptr));
  uint32_t port;
  EXPECT_EQ(1u, ORP_UTIL_ParseUrlEx("http://a:7/x", nullptr, nullptr, &port, nullptr, 1));
  EXPECT_EQ(7u, port);
}

TEST(UrlProtocols, CanBeExtended) {
  static const char *const kNames[] = {"RTSP", "SIP", nullptr};
  static const uint32_t kPorts[] = {554, 0};
  g_extendProtocols = kNames;
  EXPECT_EQ(0u, parse("sip://a").result);  // no default port
  EXPECT_EQ(0u, ORP_UTIL_GetDftPortByProtocolIdx(4));
  g_extendPorts = kPorts;

  EXPECT_STREQ("SIP", ORP_UTIL_GetProtocolTypeStrFromIdx(5));
  EXPECT_EQ(0u, ORP_UTIL_GetDftPortByProtocolIdx(INT32_MAX));
  EXPECT_EQ(554u, parse("RTSP://a").port);
  EXPECT_EQ(0u, parse("sip://a").result);
  EXPECT_EQ(5060u, parse("sip://a:5060").port);
}

TEST(UrlProtocols, AreFoundByNameAndIndex) {
  EXPECT_EQ(1u, ORP_UTIL_GetProtocolTypeIdxFromStr("HttpS"));
  EXPECT_EQ(ORP_URL_PROTOCOL_UNKNOWN, ORP_UTIL_GetProtocolTypeIdxFromStr("HTTPSX"));
  EXPECT_EQ(nullptr, ORP_UTIL_GetProtocolTypeStrFromIdx(4));
  EXPECT_EQ(0u, ORP_UTIL_GetDftPortByProtocolIdx(-1));
}

}  // namespace
