// The outbox's record format: an unbuilt report as one line of JSON (its call), a built one as
// a one-line JSON head and its body's bytes; and reading either back.
#include "cache/Outbox.h"

#include <string_view>

#include "cache/OutboxShared.h"
#include "util/BoundedJson.h"

namespace quorvel {

using namespace outbox_internal;

namespace {

platform::TimePoint fromSeconds(double s) {
  return platform::TimePoint(
      std::chrono::duration_cast<platform::TimePoint::duration>(std::chrono::duration<double>(s)));
}

const char* kindName(OutboxIntent::Kind kind) {
  switch (kind) {
    case OutboxIntent::Kind::launch:
      return "launch";
    case OutboxIntent::Kind::eventWithValues:
      return "values";
    case OutboxIntent::Kind::event:
      break;
  }
  return "event";
}

}  // namespace

// Every event's request passes here: neither base64 nor JSON escaping of the body is worth
// its cost. A record whose request cannot have reached the service says so.
std::string Outbox::requestRecord(platform::TimePoint at, const QuorvelRequestCacheData& request,
                                  bool reached) {
  Json head = Json::object();
  head["at"] = seconds(at);
  head["kind"] = "request";
  head["url"] = request.requestURL().value_or(std::string());
  head["version"] = request.sdkVersion().value_or(std::string());
  if (!reached)
    head["unsent"] = true;
  std::string content = head.dump(-1, ' ', false, Json::error_handler_t::replace);
  content += '\n';
  if (const auto& body = request.postData())
    content.append(body->begin(), body->end());
  return content;
}

std::string Outbox::serialise(const Put& put, const std::string& epoch) {
  if (!put.intent)
    return put.content;
  Json record = Json::object();
  if (!epoch.empty())
    record["epoch"] = epoch;
  record["at"] = seconds(put.slot->acceptedAt());
  record["kind"] = kindName(put.intent->kind);
  record["name"] = put.intent->name;
  if (put.intent->value)
    record["value"] = *put.intent->value;
  if (put.intent->values)
    record["values"] = *put.intent->values;
  return record.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string Outbox::recordEpoch(const platform::OutboxRecord& record) {
  const Json parsed = parseBoundedJson(record.content.substr(0, record.content.find('\n')));
  const auto epoch = parsed.is_object() ? parsed.find("epoch") : parsed.end();
  return epoch != parsed.end() && epoch->is_string() ? epoch->get<std::string>() : std::string();
}

std::optional<Outbox::Leftover> Outbox::parseLeftover(const platform::OutboxRecord& record) {
  const auto headEnd = record.content.find('\n');
  const Json parsed = parseBoundedJson(record.content.substr(0, headEnd));
  if (!parsed.is_object())
    return std::nullopt;
  auto slot = std::make_shared<OutboxSlot>(fromSeconds(parsed.value("at", 0.0)));
  slot->id_ = record.id;
  Leftover left;
  left.slot = slot;
  const std::string kind = parsed.value("kind", "");
  if (kind == "request") {
    const std::string_view body = headEnd == std::string::npos
                                      ? std::string_view()
                                      : std::string_view(record.content).substr(headEnd + 1);
    left.request = QuorvelRequestCacheData(parsed.value("url", ""), Bytes(body.begin(), body.end()),
                                           parsed.value("version", ""));
    left.wasSent = !parsed.value("unsent", false);
  } else {
    OutboxIntent intent;
    intent.kind = kind == "launch"   ? OutboxIntent::Kind::launch
                  : kind == "values" ? OutboxIntent::Kind::eventWithValues
                                     : OutboxIntent::Kind::event;
    intent.name = parsed.value("name", "");
    if (const auto v = parsed.find("value"); v != parsed.end() && v->is_string())
      intent.value = v->get<std::string>();
    if (const auto v = parsed.find("values"); v != parsed.end())
      intent.values = *v;
    left.intent = std::move(intent);
  }
  return left;
}

}  // namespace quorvel
