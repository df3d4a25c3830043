#include "RequestReport.h"
#include "SafeText.h"
#include "ServiceRequest.h"

#include <openssl/evp.h>

#include <array>
#include <ctime>
#include <iomanip>
#include <map>
#include <sstream>

namespace quorvel::devserver {

namespace {

// The keys of a tracking payload that say what happened, in the order they are shown.
const std::vector<std::string>& tellingKeys() {
  static const std::vector<std::string> keys = {"event",
                                                "eventvalue",
                                                "uid",
                                                "counter",
                                                "iaecounter",
                                                "appUID",
                                                "currency",
                                                "link",
                                                "qv_deeplink",
                                                "deeplink_sourceapplication",
                                                "hopline_id",
                                                "reinstallCounter",
                                                "timepassedsincelastlaunch",
                                                "timestamp"};
  return keys;
}

std::string base64(const std::string& bytes) {
  std::string out(4 * ((bytes.size() + 2) / 3) + 1, '\0');
  const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                reinterpret_cast<const unsigned char*>(bytes.data()),
                                static_cast<int>(bytes.size()));
  out.resize(static_cast<std::size_t>(n));
  return out;
}

std::string clockTime(double seconds) {
  const auto whole = static_cast<std::time_t>(seconds);
  std::tm tm{};
  localtime_r(&whole, &tm);
  std::array<char, 16> text{};
  std::strftime(text.data(), text.size(), "%H:%M:%S", &tm);
  const int ms = static_cast<int>((seconds - static_cast<double>(whole)) * 1000);
  std::array<char, 24> out{};
  std::snprintf(out.data(), out.size(), "%s.%03d", text.data(), ms);
  return out.data();
}

std::string shortened(std::string text, std::size_t limit) {
  if (text.size() > limit)
    text = text.substr(0, limit) + "...";
  return text;
}

void printPayloadSummary(std::ostream& out, const Json& payload) {
  if (!payload.is_object()) {
    out << "      " << shortened(payload.dump(), 300) << "\n";
    return;
  }
  std::size_t shown = 0;
  for (const auto& key : tellingKeys()) {
    const auto it = payload.find(key);
    if (it == payload.end())
      continue;
    out << "      " << std::left << std::setw(27) << key
        << shortened(it->is_string() ? it->get<std::string>() : it->dump(), 200) << "\n";
    ++shown;
  }
  if (shown == 0) {
    out << "      " << shortened(payload.dump(), 300) << "\n";
  } else {
    out << "      (" << payload.size() << " keys in all)\n";
  }
}

void writeRequestsText(std::ostream& out, const std::vector<StoredRequest>& requests, bool full) {
  std::map<std::string, std::map<int, int>> totals;
  std::size_t repeats = 0;
  for (const auto& r : requests) {
    repeats += r.repeat ? 1 : 0;
    out << "#" << r.id << "  " << clockTime(r.time) << "  " << r.method << " " << r.host << r.path
        << "  -> " << r.status << (r.note.empty() ? "" : "  " + r.note) << "\n";
    std::optional<Json> shown = r.decrypted;
    if (!shown && !r.body.empty()) {
      Json parsed = parseRequestJson(r.body);
      if (!parsed.is_discarded())
        shown = std::move(parsed);
    }
    if (shown && full)
      out << shown->dump(2) << "\n";
    else if (shown)
      printPayloadSummary(out, *shown);
    ++totals[r.service.empty() ? "(no service)" : r.service][r.status];
  }
  out << requests.size() << " request" << (requests.size() == 1 ? "" : "s") << " received";
  if (repeats > 0)
    out << " (" << repeats << " repeat" << (repeats == 1 ? "" : "s")
        << " of reports received before)";
  if (!totals.empty())
    out << ":";
  out << "\n";
  for (const auto& [service, statuses] : totals) {
    out << "  " << std::left << std::setw(14) << service;
    for (const auto& [status, count] : statuses)
      out << " " << count << " x " << status;
    out << "\n";
  }
}

}  // namespace

void printRequestsJson(std::ostream& out, const std::vector<StoredRequest>& requests) {
  Json list = Json::array();
  for (const auto& r : requests) {
    Json item = {{"id", r.id},       {"time", r.time},       {"method", r.method},
                 {"host", r.host},   {"service", r.service}, {"path", r.path},
                 {"query", r.query}, {"headers", r.headers}, {"status", r.status},
                 {"note", r.note},   {"repeat", r.repeat}};
    if (isValidUtf8(r.body))
      item["body"] = r.body;
    else
      item["body_base64"] = base64(r.body);
    item["decrypted"] = r.decrypted ? *r.decrypted : Json();
    list.push_back(std::move(item));
  }
  out << safeJsonText(list) << "\n";
}

void printRequestsText(std::ostream& out, const std::vector<StoredRequest>& requests, bool full) {
  std::ostringstream text;
  writeRequestsText(text, requests, full);
  out << terminalSafe(text.str());
}

}  // namespace quorvel::devserver
