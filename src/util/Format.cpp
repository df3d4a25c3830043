#include <quorvel/Format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <ctime>

namespace quorvel {
namespace {

constexpr std::string_view kNil = "(null)";

std::string numberText(double v) {
  std::array<char, 64> buf{};
  auto [end, ec] = std::to_chars(buf.data(), buf.data() + buf.size(), v);
  if (ec != std::errc()) {
    return "0";
  }
  return std::string(buf.data(), end);
}

std::string bytesDescription(const Json::binary_t& bytes) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out = "{length = " + std::to_string(bytes.size()) + ", bytes = 0x";
  for (const auto b : bytes) {
    out.push_back(kHex[b >> 4U]);
    out.push_back(kHex[b & 0xFU]);
  }
  out.push_back('}');
  return out;
}

std::string jsonDescription(const Json& j) {
  switch (j.type()) {
    case Json::value_t::null:
    case Json::value_t::discarded:
      return std::string(kNil);
    case Json::value_t::string:
      return j.get_ref<const std::string&>();
    case Json::value_t::boolean:
      return j.get<bool>() ? "1" : "0";
    case Json::value_t::number_integer:
      return std::to_string(j.get<std::int64_t>());
    case Json::value_t::number_unsigned:
      return std::to_string(j.get<std::uint64_t>());
    case Json::value_t::number_float:
      return numberText(j.get<double>());
    case Json::value_t::binary:
      return bytesDescription(j.get_binary());
    default:
      return j.dump(-1, ' ', false, Json::error_handler_t::replace);
  }
}

struct Spec {
  std::string flags;
  int width = -1;
  int precision = -1;
  char conversion = 0;
};

std::int64_t asSigned(const FormatArg& a) {
  return std::visit(
      [](const auto& v) -> std::int64_t {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, std::int64_t> || std::is_same_v<T, bool>) {
          return static_cast<std::int64_t>(v);
        } else if constexpr (std::is_same_v<T, std::uint64_t>) {
          return static_cast<std::int64_t>(v);
        } else if constexpr (std::is_same_v<T, double>) {
          if (!(v == v) || v > 9.2e18 || v < -9.2e18) {
            return 0;
          }
          return static_cast<std::int64_t>(v);
        } else if constexpr (std::is_same_v<T, const Json*>) {
          if (v->is_number_integer() || v->is_boolean()) {
            return v->template get<std::int64_t>();
          }
          if (v->is_number_float()) {
            const double d = v->template get<double>();
            return (d == d && d < 9.2e18 && d > -9.2e18) ? static_cast<std::int64_t>(d) : 0;
          }
          return 0;
        } else {
          return 0;
        }
      },
      a.value());
}

double asDouble(const FormatArg& a) {
  return std::visit(
      [](const auto& v) -> double {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, double>) {
          return v;
        } else if constexpr (std::is_same_v<T, std::int64_t> || std::is_same_v<T, std::uint64_t> ||
                             std::is_same_v<T, bool>) {
          return static_cast<double>(v);
        } else if constexpr (std::is_same_v<T, const Json*>) {
          return v->is_number() ? v->template get<double>() : 0.0;
        } else {
          return 0.0;
        }
      },
      a.value());
}

// A width or precision taken from an argument, bounded like a written one: an argument
// must not make a log line gigabytes long.
int boundedField(std::int64_t value) {
  return static_cast<int>(std::clamp<std::int64_t>(value, -4096, 4096));
}

std::string pad(std::string text, const Spec& spec) {
  if (spec.precision >= 0 && (spec.conversion == 's' || spec.conversion == '@') &&
      static_cast<std::size_t>(spec.precision) < text.size()) {
    text.resize(static_cast<std::size_t>(spec.precision));
  }
  if (spec.width > 0 && text.size() < static_cast<std::size_t>(spec.width)) {
    const std::string fill(static_cast<std::size_t>(spec.width) - text.size(), ' ');
    text = spec.flags.find('-') != std::string::npos ? text + fill : fill + text;
  }
  return text;
}

std::string printfNumber(const Spec& spec, std::string_view lengthAndConv, auto value) {
  std::string f = "%" + spec.flags;
  if (spec.width >= 0) {
    f += std::to_string(spec.width);
  }
  if (spec.precision >= 0) {
    f += "." + std::to_string(spec.precision);
  }
  f += lengthAndConv;
  std::array<char, 128> buf{};
  const int n = std::snprintf(buf.data(), buf.size(), f.c_str(), value);
  if (n < 0) {
    return {};
  }
  if (static_cast<std::size_t>(n) < buf.size()) {
    return std::string(buf.data(), static_cast<std::size_t>(n));
  }
  std::string big(static_cast<std::size_t>(n) + 1, '\0');
  std::snprintf(big.data(), big.size(), f.c_str(), value);
  big.resize(static_cast<std::size_t>(n));
  return big;
}

std::string convert(const Spec& spec, const FormatArg& arg) {
  switch (spec.conversion) {
    case '@':
      return pad(describe(arg), spec);
    case 's': {
      if (std::holds_alternative<FormatArg::Nil>(arg.value())) {
        return pad(std::string(kNil), spec);
      }
      return pad(describe(arg), spec);
    }
    case 'd':
    case 'i':
      return printfNumber(spec, "lld", static_cast<long long>(asSigned(arg)));
    case 'u':
    case 'x':
    case 'X':
    case 'o': {
      const char conv[] = {'l', 'l', spec.conversion, '\0'};
      return printfNumber(spec, conv, static_cast<unsigned long long>(asSigned(arg)));
    }
    case 'c': {
      Spec s = spec;
      s.precision = -1;
      return printfNumber(s, "c", static_cast<int>(static_cast<unsigned char>(asSigned(arg))));
    }
    case 'p':
      return printfNumber(spec, "llx", static_cast<unsigned long long>(asSigned(arg)));
    default: {  // f F e E g G a A
      const char conv[] = {spec.conversion, '\0'};
      return printfNumber(spec, conv, asDouble(arg));
    }
  }
}

bool isConversion(char c) {
  switch (c) {
    case '@':
    case 's':
    case 'd':
    case 'i':
    case 'u':
    case 'x':
    case 'X':
    case 'o':
    case 'c':
    case 'p':
    case 'f':
    case 'F':
    case 'e':
    case 'E':
    case 'g':
    case 'G':
    case 'a':
    case 'A':
      return true;
    default:
      return false;
  }
}

}  // namespace

FormatArg::FormatArg(std::chrono::system_clock::time_point t) {
  const auto secs = std::chrono::floor<std::chrono::seconds>(t);
  const std::time_t tt = static_cast<std::time_t>(secs.time_since_epoch().count());
  std::tm tm{};
  gmtime_r(&tt, &tm);
  std::array<char, 64> buf{};
  const std::size_t n = std::strftime(buf.data(), buf.size(), "%Y-%m-%d %H:%M:%S +0000", &tm);
  value_ = std::string(buf.data(), n);
}

std::string describe(const FormatArg& arg) {
  return std::visit(
      [](const auto& v) -> std::string {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, FormatArg::Nil>) {
          return std::string(kNil);
        } else if constexpr (std::is_same_v<T, bool>) {
          return v ? "1" : "0";
        } else if constexpr (std::is_same_v<T, std::int64_t> || std::is_same_v<T, std::uint64_t>) {
          return std::to_string(v);
        } else if constexpr (std::is_same_v<T, double>) {
          return numberText(v);
        } else if constexpr (std::is_same_v<T, std::string_view>) {
          return std::string(v);
        } else if constexpr (std::is_same_v<T, const Json*>) {
          return jsonDescription(*v);
        } else {
          return v;
        }
      },
      arg.value());
}

std::string formatArgs(std::string_view format, std::initializer_list<FormatArg> args) {
  std::string out;
  out.reserve(format.size() + 16 * args.size());
  const FormatArg* next = args.begin();
  const FormatArg nil;
  auto take = [&]() -> const FormatArg& { return next != args.end() ? *next++ : nil; };

  std::size_t i = 0;
  while (i < format.size()) {
    const char c = format[i];
    if (c != '%') {
      const std::size_t stop = format.find('%', i);
      const std::size_t end = stop == std::string_view::npos ? format.size() : stop;
      out.append(format.substr(i, end - i));
      i = end;
      continue;
    }
    const std::size_t start = i++;
    if (i < format.size() && format[i] == '%') {
      out.push_back('%');
      ++i;
      continue;
    }
    Spec spec;
    while (i < format.size() &&
           std::string_view("-+ #0").find(format[i]) != std::string_view::npos) {
      spec.flags.push_back(format[i++]);
    }
    if (i < format.size() && format[i] == '*') {
      spec.width = boundedField(asSigned(take()));
      if (spec.width < 0) {
        spec.flags.push_back('-');
        spec.width = -spec.width;
      }
      ++i;
    } else {
      int w = -1;
      while (i < format.size() && format[i] >= '0' && format[i] <= '9') {
        w = (w < 0 ? 0 : w) * 10 + (format[i++] - '0');
        if (w > 4096)
          w = 4096;
      }
      spec.width = w;
    }
    if (i < format.size() && format[i] == '.') {
      ++i;
      if (i < format.size() && format[i] == '*') {
        spec.precision = boundedField(asSigned(take()));
        ++i;
      } else {
        int p = 0;
        while (i < format.size() && format[i] >= '0' && format[i] <= '9') {
          p = p * 10 + (format[i++] - '0');
          if (p > 4096)
            p = 4096;
        }
        spec.precision = p;
      }
    }
    while (i < format.size() &&
           std::string_view("hlqLzjt").find(format[i]) != std::string_view::npos) {
      ++i;
    }
    if (i >= format.size() || !isConversion(format[i])) {
      // Not a conversion we know: keep the text as written.
      const std::size_t end = i < format.size() ? i + 1 : i;
      out.append(format.substr(start, end - start));
      i = end;
      continue;
    }
    spec.conversion = format[i++];
    out += convert(spec, take());
  }
  return out;
}

std::string Error::description() const {
  return "Error Domain=" + domain + " Code=" + std::to_string(code) + " \"" + localizedDescription +
         "\"";
}

}  // namespace quorvel
