#include <cstdlib>

#include "platform/posix/PosixServices.h"

namespace quorvel::platform {
namespace {

// "en_US.UTF-8@euro" -> "en_US"; "C" and "POSIX" carry no language.
std::string localeFromEnvironmentValue(const char* value) {
  if (value == nullptr)
    return {};
  std::string v(value);
  const auto cut = v.find_first_of(".@");
  if (cut != std::string::npos)
    v.resize(cut);
  if (v == "C" || v == "POSIX")
    return {};
  return v;
}

}  // namespace

PosixLocale::PosixLocale() {
  for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    identifier_ = localeFromEnvironmentValue(std::getenv(name));
    if (!identifier_.empty())
      break;
  }
  if (identifier_.empty())
    identifier_ = "en_US";

  if (const char* list = std::getenv("LANGUAGE"); list != nullptr && *list != '\0') {
    std::string all(list);
    std::size_t start = 0;
    while (start <= all.size()) {
      const auto colon = all.find(':', start);
      std::string one = localeFromEnvironmentValue(
          all.substr(start, colon == std::string::npos ? std::string::npos : colon - start)
              .c_str());
      if (!one.empty()) {
        for (auto& c : one) {
          if (c == '_')
            c = '-';
        }
        languages_.push_back(one);
      }
      if (colon == std::string::npos)
        break;
      start = colon + 1;
    }
  }
  if (languages_.empty()) {
    std::string tag = identifier_;
    for (auto& c : tag) {
      if (c == '_')
        c = '-';
    }
    languages_.push_back(tag);
  }
}

std::optional<std::string> PosixLocale::languageCode() const {
  const auto cut = identifier_.find('_');
  std::string code = identifier_.substr(0, cut);
  if (code.empty())
    return std::nullopt;
  return code;
}

std::optional<std::string> PosixLocale::countryCode() const {
  const auto cut = identifier_.find('_');
  if (cut == std::string::npos || cut + 1 >= identifier_.size())
    return std::nullopt;
  return identifier_.substr(cut + 1);
}

}  // namespace quorvel::platform
