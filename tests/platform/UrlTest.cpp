// How typed links are read: the library's own reading of a URL, lenient as a platform's.
#include <gtest/gtest.h>

#include "platform/Url.h"

namespace quorvel {
namespace {

struct Reading {
  const char* text;
  const char* absolute;  // nullptr: not a URL
  const char* host = nullptr;
  int port = -1;
  const char* path = nullptr;   // decoded; nullptr when the URL has none
  const char* query = nullptr;  // nullptr when the URL has none
};

TEST(UrlTest, ReadsTypedLinksAsALenientParserDoes) {
  const Reading readings[] = {
      {"HTTPS://A.Com", "https://A.Com/", "A.Com"},
      {"https://t.example.com:8443/a/b%20c?x=1#f", "https://t.example.com:8443/a/b%20c?x=1#f",
       "t.example.com", 8443, "/a/b c", "x=1"},
      {"myapp://host/p/../x/./y?q", "myapp://host/x/y?q", "host", -1, "/x/y", "q"},
      {"https://h/a b?x=1 2#f g", "https://h/a%20b?x=1+2#f g", "h", -1, "/a b", "x=1+2"},
      {"https://h/\xc3\xa9?\xc3\xa9", "https://h/%c3%a9?%c3%a9", "h", -1, "/\xc3\xa9", "%c3%a9"},
      {"https://u:p@h:080/x", "https://u:p@h:80/x", "h", 80, "/x"},
      {"https://h:/p", "https://h/p", "h", -1, "/p"},
      {"https:/h/p", "https://h/p", "h", -1, "/p"},
      {"app:///p", "app://p/", "p", -1, "/"},
      {"https://h/?#", "https://h/", "h", -1, "/", ""},
      {"https://h/a/b/../../../c", "https://h/c", "h", -1, "/c"},
      {"https://h/a/%2e%2e/b", "https://h/a/%2e%2e/b", "h", -1, "/a/../b"},
      {"http://127.1/", "http://127.0.0.1/", "127.0.0.1", -1, "/"},
      {"http://0x7f.1:8/", "http://127.0.0.1:8/", "127.0.0.1", 8, "/"},
      {"https://h%41%zz", "https://hA%25zz/", "hA%25zz"},
      {"https://[::01]:80/", "https://[::1]:80/", "[::1]", 80, "/"},
      {"https://[fe80::1%25eth0]/", "https://[fe80::1%25eth0]/", "[fe80::1]", -1, "/"},
      {"https://[fe80::1%eth0]/", "https://[fe80::1%25eth0]/", "[fe80::1]", -1, "/"},
      {"", nullptr},
      {"no scheme here", nullptr},
      {" https://h/", nullptr},
      {"https:h/p", nullptr},
      {"https:////h/", nullptr},
      {"app://", nullptr},
      {"https://h:65536/", nullptr},
      {"https://h:8a/", nullptr},
      {"https://h;/", nullptr},
      {"https://a@b@h/", nullptr},
      {"https://[1.2.3.4]/", nullptr},
      {"https://[::1]x/", nullptr},
      {"https://h/a\tb", nullptr},
      {"https://h%0a/", nullptr},
  };
  for (const auto& r : readings) {
    SCOPED_TRACE(r.text);
    const auto url = Url::parse(r.text);
    if (r.absolute == nullptr) {
      EXPECT_FALSE(url);
      continue;
    }
    ASSERT_TRUE(url);
    EXPECT_EQ(url->absoluteString(), r.absolute);
    EXPECT_EQ(url->host().value_or("-"), r.host);
    EXPECT_EQ(url->port().value_or(-1), r.port);
    EXPECT_EQ(url->path(), r.path ? std::optional<std::string>(r.path) : std::nullopt);
    EXPECT_EQ(url->query(), r.query ? std::optional<std::string>(r.query) : std::nullopt);
  }
  EXPECT_EQ(Url::parse("https://h/a/b%20c")->pathComponents(),
            (std::vector<std::string>{"/", "a", "b c"}));
}

}  // namespace
}  // namespace quorvel
