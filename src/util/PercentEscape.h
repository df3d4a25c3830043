// Percent escaping of UTF-8 text: every byte outside a kept set becomes %XX.
#pragma once

#include <string>
#include <string_view>

#include <quorvel/Error.h>

namespace quorvel {

std::string percentEscape(std::string_view text, bool (*keep)(unsigned char));

// The characters the platform's legacy URL escaping leaves as they are: letters, digits and
// the URL's own delimiters.
bool isLegalInUrl(unsigned char c);
// Unreserved characters only: what a query key or value keeps.
bool isUnreservedInUrl(unsigned char c);
// The URL host character set.
bool isAllowedInUrlHost(unsigned char c);

// The platform's legacy URL escaping.
inline std::string legacyPercentEscape(std::string_view url) {
  return percentEscape(url, isLegalInUrl);
}

// The error a JSON parser reports for text that is not JSON.
Error jsonParserError();

}  // namespace quorvel
