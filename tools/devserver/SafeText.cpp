#include "SafeText.h"

#include <array>
#include <cstdio>

namespace quorvel::devserver {

namespace {

struct CodePoint {
  char32_t value = 0;
  std::size_t length = 1;  // bytes taken; an invalid byte is taken alone
  bool valid = false;
};

// The well-formed UTF-8 sequence at `i`: no overlong forms, surrogates or values past U+10FFFF.
CodePoint decodeAt(std::string_view text, std::size_t i) {
  const auto lead = static_cast<unsigned char>(text[i]);
  if (lead < 0x80U)
    return {lead, 1, true};
  std::size_t length = 0;
  char32_t value = 0;
  char32_t smallest = 0;
  if ((lead & 0xE0U) == 0xC0U) {
    length = 2, value = lead & 0x1FU, smallest = 0x80;
  } else if ((lead & 0xF0U) == 0xE0U) {
    length = 3, value = lead & 0x0FU, smallest = 0x800;
  } else if ((lead & 0xF8U) == 0xF0U) {
    length = 4, value = lead & 0x07U, smallest = 0x10000;
  } else {
    return {lead, 1, false};
  }
  if (i + length > text.size())
    return {lead, 1, false};
  for (std::size_t k = 1; k < length; ++k) {
    const auto next = static_cast<unsigned char>(text[i + k]);
    if ((next & 0xC0U) != 0x80U)
      return {lead, 1, false};
    value = (value << 6U) | (next & 0x3FU);
  }
  if (value < smallest || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF))
    return {lead, 1, false};
  return {value, length, true};
}

bool isControlOrOverride(char32_t c) {
  return c < 0x20 || (c >= 0x7F && c <= 0x9F) || (c >= 0x202A && c <= 0x202E) ||
         (c >= 0x2066 && c <= 0x2069);
}

std::string escaped(const char* format, unsigned value) {
  std::array<char, 16> text{};  // room for any unsigned: an optimised build checks that
  std::snprintf(text.data(), text.size(), format, value);
  return text.data();
}

std::string byteEscaped(char32_t byte) {
  return escaped("\\x%02x", static_cast<unsigned>(byte));
}

// `text` with each invalid byte as the text "\xNN" and everything else as it was.
std::string validUtf8(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size();) {
    const CodePoint c = decodeAt(text, i);
    if (c.valid)
      out.append(text.substr(i, c.length));
    else
      out += byteEscaped(c.value);
    i += c.length;
  }
  return out;
}

Json withValidUtf8(const Json& value) {
  if (value.is_string()) {
    const auto& text = value.get_ref<const std::string&>();
    return isValidUtf8(text) ? value : Json(validUtf8(text));
  }
  if (value.is_array()) {
    Json out = Json::array();
    for (const auto& item : value)
      out.push_back(withValidUtf8(item));
    return out;
  }
  if (value.is_object()) {
    Json out = Json::object();
    for (const auto& [key, item] : value.items())
      out[validUtf8(key)] = withValidUtf8(item);
    return out;
  }
  return value;
}

}  // namespace

bool isValidUtf8(std::string_view text) {
  for (std::size_t i = 0; i < text.size();) {
    const CodePoint c = decodeAt(text, i);
    if (!c.valid)
      return false;
    i += c.length;
  }
  return true;
}

std::string terminalSafe(std::string_view text, bool keepNewlines) {
  std::string safe;
  safe.reserve(text.size());
  for (std::size_t i = 0; i < text.size();) {
    const CodePoint c = decodeAt(text, i);
    if (c.valid && c.value == '\n' && keepNewlines)
      safe.push_back('\n');
    else if (!c.valid || (c.value < 0x100 && isControlOrOverride(c.value)))
      safe += byteEscaped(c.value);
    else if (isControlOrOverride(c.value))
      safe += escaped("\\u%04x", static_cast<unsigned>(c.value));
    else
      safe.append(text.substr(i, c.length));
    i += c.length;
  }
  return safe;
}

std::string safeJsonText(const Json& value, int indent) {
  // Dumped, the text is valid UTF-8 with its C0 controls escaped; what is left to escape can
  // only be inside strings, where "\uNNNN" means the same character.
  const std::string dumped = withValidUtf8(value).dump(indent);
  std::string safe;
  safe.reserve(dumped.size());
  for (std::size_t i = 0; i < dumped.size();) {
    const CodePoint c = decodeAt(dumped, i);
    if (isControlOrOverride(c.value) && c.value >= 0x20)
      safe += escaped("\\u%04x", static_cast<unsigned>(c.value));
    else
      safe.append(dumped, i, c.length);
    i += c.length;
  }
  return safe;
}

}  // namespace quorvel::devserver
