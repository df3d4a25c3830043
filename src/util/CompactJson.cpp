#include "util/CompactJson.h"

#include <array>
#include <charconv>
#include <cstring>
#include <optional>
#include <string_view>

namespace quorvel {
namespace {

using LibraryWriter = nlohmann::detail::serializer<Json>;

// Bytes the library copies unchanged: printable ASCII other than a quote or a backslash.
constexpr std::array<bool, 256> kPlainBytes = [] {
  std::array<bool, 256> plain{};
  for (std::size_t b = 0x20; b < 0x80; ++b)
    plain[b] = b != '"' && b != '\\';
  return plain;
}();

bool isPlain(std::string_view text) {
  bool plain = true;
  for (const char c : text)  // no early exit: the loop stays branch-free and fast
    plain &= kPlainBytes[static_cast<unsigned char>(c)];
  return plain;
}

class Writer {
 public:
  explicit Writer(std::string& out) : out_(out) {}

  void value(const Json& v) {
    switch (v.type()) {
      case Json::value_t::object:
        object(v.get_ref<const Json::object_t&>());
        return;
      case Json::value_t::array:
        array(v.get_ref<const Json::array_t&>());
        return;
      case Json::value_t::string:
        string(v.get_ref<const std::string&>(), v);
        return;
      case Json::value_t::null:
        out_.append("null");
        return;
      case Json::value_t::boolean:
        out_.append(v.get<bool>() ? "true" : "false");
        return;
      case Json::value_t::number_integer:
        integer(v.get<Json::number_integer_t>());
        return;
      case Json::value_t::number_unsigned:
        integer(v.get<Json::number_unsigned_t>());
        return;
      default:  // numbers with a fraction, binary, discarded
        library().dump(v, false, false, 0);
        return;
    }
  }

 private:
  void object(const Json::object_t& entries) {
    out_.push_back('{');
    bool first = true;
    for (const auto& [key, item] : entries) {
      if (!first)
        out_.push_back(',');
      first = false;
      if (isPlain(key))
        quoted(key);
      else
        library().dump(Json(key), false, false, 0);
      out_.push_back(':');
      value(item);
    }
    out_.push_back('}');
  }

  void array(const Json::array_t& items) {
    out_.push_back('[');
    bool first = true;
    for (const auto& item : items) {
      if (!first)
        out_.push_back(',');
      first = false;
      value(item);
    }
    out_.push_back(']');
  }

  void string(const std::string& text, const Json& v) {
    if (isPlain(text))
      quoted(text);
    else
      library().dump(v, false, false, 0);
  }

  // One resize and a copy: most values and every key of a body pass here, and three appends
  // each cost more than the copy.
  void quoted(std::string_view text) {
    const std::size_t at = out_.size();
    out_.resize(at + text.size() + 2);
    char* to = out_.data() + at;
    to[0] = '"';
    std::memcpy(to + 1, text.data(), text.size());
    to[text.size() + 1] = '"';
  }

  template <typename T>
  void integer(T n) {
    std::array<char, 24> digits{};
    const auto result = std::to_chars(digits.data(), digits.data() + digits.size(), n);
    out_.append(digits.data(), static_cast<std::size_t>(result.ptr - digits.data()));
  }

  // Made on the first value that needs it: most request bodies never do.
  LibraryWriter& library() {
    if (!library_) {
      library_.emplace(nlohmann::detail::output_adapter<char>(out_), ' ',
                       Json::error_handler_t::replace);
    }
    return *library_;
  }

  std::string& out_;
  std::optional<LibraryWriter> library_;
};

}  // namespace

void appendCompactJson(const Json& value, std::string& out) {
  Writer(out).value(value);
}

}  // namespace quorvel
