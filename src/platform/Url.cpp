#include "platform/Url.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <string_view>
#include <vector>

namespace quorvel {
namespace {

int hexValue(char c) {
  if (c >= '0' && c <= '9')
    return c - '0';
  if (c >= 'a' && c <= 'f')
    return c - 'a' + 10;
  if (c >= 'A' && c <= 'F')
    return c - 'A' + 10;
  return -1;
}

// True when the text after "scheme:" has an authority that is followed by a path.
bool hasExplicitPath(const std::string& text) {
  const std::size_t colon = text.find(':');
  if (colon == std::string::npos)
    return false;
  std::size_t rest = colon + 1;
  if (text.compare(rest, 2, "//") == 0) {
    const std::size_t end = text.find_first_of("/?#", rest + 2);
    return end != std::string::npos && text[end] == '/';
  }
  return rest < text.size() && text[rest] != '?' && text[rest] != '#';
}

bool hasControlCharacter(std::string_view text) {
  for (const char c : text) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f)
      return true;
  }
  return false;
}

bool isScheme(std::string_view scheme) {
  constexpr std::size_t kLongestScheme = 40;
  if (scheme.empty() || scheme.size() > kLongestScheme)
    return false;
  for (const char c : scheme) {
    const bool alnum = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    if (!alnum && c != '+' && c != '-' && c != '.')
      return false;
  }
  return true;
}

std::string lowercase(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z')
      c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

struct Authority {
  std::optional<std::string> userInfo;
  std::string host;         // as it goes into the URL: an IPv6 address in brackets, with its zone
  std::string hostWithout;  // the host without an IPv6 zone
  std::optional<int> port;
};

// A host name may hold any byte but those that delimit or quote parts of a URL.
bool isHostName(std::string_view host) {
  constexpr std::string_view kRefused = " /:#?!@{}[]\\$'\"^`*<>=;,+&()";
  return !host.empty() && host.find_first_of(kRefused) == std::string_view::npos &&
         !hasControlCharacter(host);
}

// One part of a numeric IPv4 host: decimal, octal after "0", hexadecimal after "0x".
std::optional<std::uint64_t> ipv4Part(std::string_view part) {
  int base = 10;
  if (part.size() > 1 && part[0] == '0' && (part[1] == 'x' || part[1] == 'X')) {
    base = 16;
    part.remove_prefix(2);
  } else if (part.size() > 1 && part[0] == '0') {
    base = 8;
    part.remove_prefix(1);
  }
  std::uint64_t value = 0;
  const auto [end, error] = std::from_chars(part.data(), part.data() + part.size(), value, base);
  if (part.empty() || error != std::errc() || end != part.data() + part.size())
    return std::nullopt;
  return value;
}

// A host of one to four numbers ("127.1", "0x7f.1", "2130706433") is the IPv4 address they
// spell, written as four decimals; anything else is a name.
std::optional<std::string> normalizedIpv4(std::string_view host) {
  std::vector<std::uint64_t> parts;
  for (std::size_t i = 0;;) {
    const std::size_t dot = std::min(host.find('.', i), host.size());
    const auto value = ipv4Part(host.substr(i, dot - i));
    if (!value || parts.size() == 4)
      return std::nullopt;
    parts.push_back(*value);
    if (dot == host.size())
      break;
    i = dot + 1;
  }
  // Every part but the last is one byte; the last fills the bytes that are left.
  std::uint64_t address = 0;
  for (std::size_t i = 0; i + 1 < parts.size(); ++i) {
    if (parts[i] > 0xff)
      return std::nullopt;
    address |= parts[i] << (8 * (3 - i));
  }
  const std::size_t lastBytes = 5 - parts.size();
  if (parts.back() >= (std::uint64_t{1} << (8 * lastBytes)))
    return std::nullopt;
  address |= parts.back();
  return std::to_string(address >> 24) + "." + std::to_string((address >> 16) & 0xff) + "." +
         std::to_string((address >> 8) & 0xff) + "." + std::to_string(address & 0xff);
}

std::string escapedPercents(std::string_view host) {
  std::string out;
  for (const char c : host) {
    if (c == '%')
      out += "%25";
    else
      out.push_back(c);
  }
  return out;
}

std::optional<int> portOf(std::string_view text) {
  constexpr int kLastPort = 65'535;
  int port = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
  if (text.empty() || text.front() == '-' || error != std::errc() ||
      end != text.data() + text.size() || port > kLastPort)
    return std::nullopt;
  return port;
}

// "[address%25zone]": the address must be one, and is written in its shortest form; the zone
// is kept for the URL only.
bool splitIpv6(std::string_view bracketed, Authority& out) {
  const std::string_view inside = bracketed.substr(1, bracketed.size() - 2);
  const std::string written(inside.substr(0, inside.find('%')));
  in6_addr parsed{};
  std::array<char, INET6_ADDRSTRLEN> canonical{};
  if (written.empty() || ::inet_pton(AF_INET6, written.c_str(), &parsed) != 1 ||
      ::inet_ntop(AF_INET6, &parsed, canonical.data(), canonical.size()) == nullptr)
    return false;
  const std::string address(canonical.data());
  // The zone's "%" is escaped in the URL, as "%25".
  std::string zone(inside.substr(written.size()));
  if (zone == "%")
    return false;
  if (!zone.empty() && (zone.compare(1, 2, "25") != 0 || zone.size() == 3))
    zone.insert(1, "25");
  out.host = "[" + address + zone + "]";
  out.hostWithout = "[" + address + "]";
  return true;
}

std::optional<Authority> splitAuthority(std::string_view text) {
  Authority out;
  if (const std::size_t at = text.find('@'); at != std::string_view::npos) {
    out.userInfo = std::string(text.substr(0, at));
    text.remove_prefix(at + 1);
  }
  std::string_view portText;
  if (!text.empty() && text.front() == '[') {
    const std::size_t close = text.find(']');
    if (close == std::string_view::npos || !splitIpv6(text.substr(0, close + 1), out))
      return std::nullopt;
    const std::string_view rest = text.substr(close + 1);
    if (!rest.empty() && rest.front() != ':')
      return std::nullopt;
    portText = rest.empty() ? rest : rest.substr(1);
  } else {
    const std::size_t colon = text.find(':');
    // Escapes in a name are read; a "%" left over is escaped again.
    const std::string host = percentDecode(std::string(text.substr(0, colon)));
    if (!isHostName(host))
      return std::nullopt;
    out.host = normalizedIpv4(host).value_or(escapedPercents(host));
    out.hostWithout = out.host;
    if (colon != std::string_view::npos)
      portText = text.substr(colon + 1);
  }
  if (!portText.empty()) {
    out.port = portOf(portText);
    if (!out.port)
      return std::nullopt;
  }
  return out;
}

// "." and ".." segments resolved; an empty path is "/".
std::string withoutDotSegments(std::string_view path) {
  if (path.empty())
    return "/";
  std::vector<std::string_view> kept;
  bool endsInDirectory = false;
  std::size_t i = 1;  // past the leading "/"
  for (;;) {
    const std::size_t slash = std::min(path.find('/', i), path.size());
    const std::string_view segment = path.substr(i, slash - i);
    const bool last = slash == path.size();
    if (segment == "..") {
      if (!kept.empty())
        kept.pop_back();
      endsInDirectory = last;
    } else if (segment == ".") {
      endsInDirectory = last;
    } else {
      kept.push_back(segment);
      endsInDirectory = false;
    }
    if (last)
      break;
    i = slash + 1;
  }
  std::string out;
  for (const auto& segment : kept)
    out.append("/").append(segment);
  if (endsInDirectory || out.empty())
    out.push_back('/');
  return out;
}

void appendEscaped(std::string& out, unsigned char byte) {
  constexpr std::string_view kHex = "0123456789abcdef";
  out.push_back('%');
  out.push_back(kHex[byte >> 4]);
  out.push_back(kHex[byte & 0x0f]);
}

// Blanks and bytes beyond ASCII escaped, as typed input becomes a URL.
std::string escapeForPath(std::string_view path) {
  std::string out;
  out.reserve(path.size());
  for (const char c : path) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte == ' ' || byte >= 0x80)
      appendEscaped(out, byte);
    else
      out.push_back(c);
  }
  return out;
}

// As in a form's query, a blank becomes "+".
std::string escapeForQuery(std::string_view query) {
  std::string out;
  out.reserve(query.size());
  for (const char c : query) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte == ' ')
      out.push_back('+');
    else if (byte >= 0x80)
      appendEscaped(out, byte);
    else
      out.push_back(c);
  }
  return out;
}
}  // namespace

std::string percentDecode(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size()) {
      const int hi = hexValue(text[i + 1]);
      const int lo = hexValue(text[i + 2]);
      if (hi >= 0 && lo >= 0) {
        out.push_back(static_cast<char>(hi * 16 + lo));
        i += 2;
        continue;
      }
    }
    out.push_back(text[i]);
  }
  return out;
}

std::optional<Url> Url::parse(const std::string& text) {
  if (text.empty() || text.size() > 1'000'000 || hasControlCharacter(text))
    return std::nullopt;
  const std::string_view all(text);
  const std::size_t colon = all.find(':');
  if (colon == std::string_view::npos || !isScheme(all.substr(0, colon)))
    return std::nullopt;
  // One to three slashes before the authority, as lenient parsers take user input.
  std::size_t slashes = 0;
  while (colon + 1 + slashes < all.size() && all[colon + 1 + slashes] == '/')
    ++slashes;
  if (slashes == 0 || slashes > 3)
    return std::nullopt;
  const std::size_t authorityStart = colon + 1 + slashes;
  const std::size_t authorityEnd = std::min(all.find_first_of("/?#", authorityStart), all.size());
  const auto authority = splitAuthority(all.substr(authorityStart, authorityEnd - authorityStart));
  if (!authority)
    return std::nullopt;

  const std::size_t hash = std::min(all.find('#', authorityEnd), all.size());
  const std::size_t question = std::min(all.find('?', authorityEnd), hash);
  Url url;
  url.scheme_ = lowercase(all.substr(0, colon));
  url.host_ = authority->hostWithout;
  url.port_ = authority->port;
  const std::string path =
      escapeForPath(withoutDotSegments(all.substr(authorityEnd, question - authorityEnd)));
  if (hasExplicitPath(text))
    url.path_ = percentDecode(path);
  if (question < hash)
    url.query_ = escapeForQuery(all.substr(question + 1, hash - question - 1));
  const std::string_view fragment = hash < all.size() ? all.substr(hash + 1) : std::string_view();

  std::string absolute = *url.scheme_ + "://";
  if (authority->userInfo)
    absolute.append(*authority->userInfo).push_back('@');
  absolute += authority->host;
  if (url.port_)
    absolute += ":" + std::to_string(*url.port_);
  absolute += path;
  if (url.query_ && !url.query_->empty())
    absolute += "?" + *url.query_;
  if (!fragment.empty())
    absolute.append("#").append(fragment);
  url.absolute_ = std::move(absolute);
  return url;
}

std::vector<std::string> Url::pathComponents() const {
  std::vector<std::string> parts;
  if (!path_ || path_->empty()) {
    return parts;
  }
  if ((*path_)[0] == '/') {
    parts.emplace_back("/");
  }
  std::size_t i = 0;
  while (i < path_->size()) {
    const std::size_t slash = path_->find('/', i);
    const std::size_t end = slash == std::string::npos ? path_->size() : slash;
    if (end > i) {
      parts.push_back(path_->substr(i, end - i));
    }
    i = end + 1;
  }
  return parts;
}

}  // namespace quorvel
