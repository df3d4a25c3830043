// The C API over the tracker: handles, length-delimited strings, status codes, and callbacks
// that never run once the host has replaced them or destroyed the handle.
#include <quorvel/CHandle.h>
#include <quorvel/Platform.h>
#include <quorvel/QuorvelTracker.h>
#include <quorvel/Version.h>
#include <quorvel/quorvel.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <optional>
#include <thread>
#include <utility>

#include "capi/CTracker.h"
#include "platform/posix/PosixServices.h"
#include "tracker/TrackerCore.h"
#include "util/BoundedJson.h"

namespace quorvel::capi {

HostCallScope*& HostCallScope::innermost() noexcept {
  thread_local HostCallScope* scope = nullptr;
  return scope;
}

HostCallScope::HostCallScope(const void* handle, Kind kind) noexcept
    : handle_(handle), kind_(kind), outer_(innermost()) {
  innermost() = this;
}

HostCallScope::~HostCallScope() {
  innermost() = outer_;
}

bool HostCallScope::inside(const void* handle, std::optional<Kind> kind) noexcept {
  for (const HostCallScope* s = innermost(); s != nullptr; s = s->outer_) {
    if (s->handle_ == handle && (!kind || s->kind_ == *kind))
      return true;
  }
  return false;
}

HostRelease::~HostRelease() {
  const auto release = release_;
  if (release == nullptr)
    return;
  // Never on the host's thread inside destroy, nor under a lock of the library's.
  try {
    std::thread([release, userData = userData_] { release(userData); }).detach();
  } catch (...) {
    release(userData_);  // no thread to be had: late is worse than here
  }
}

bool CallGate::enter(ReleaseHold& hold) {
  const std::lock_guard lock(mutex_);
  if (closed_)
    return false;
  ++running_;
  hold = release_;
  return true;
}

void CallGate::leave() {
  const std::lock_guard lock(mutex_);
  if (--running_ == 0)
    idle_.notify_all();
}

void CallGate::close(std::chrono::milliseconds bound) {
  ReleaseHold released;  // let go outside the lock
  std::unique_lock lock(mutex_);
  closed_ = true;
  released = std::move(release_);
  // The closing thread's own send would never end while it waits.
  const int own = HostCallScope::inside(this, HostCallScope::Kind::send) ? 1 : 0;
  idle_.wait_for(lock, bound, [&] { return running_ <= own; });
}

std::optional<std::string> textOf(const char* data, std::size_t length) {
  if (data == nullptr)
    return std::nullopt;
  return std::string(data, length);
}

quorvel_status copyOut(std::string_view text, char* buffer, std::size_t capacity,
                       std::size_t* length) {
  // A capacity with no buffer is a host's mistake, not a size query.
  if ((buffer == nullptr && capacity > 0) || length == nullptr)
    return QUORVEL_ERROR_INVALID_ARGUMENT;
  *length = text.size();
  if (buffer != nullptr && capacity > 0)
    std::memcpy(buffer, text.data(), std::min(capacity, text.size()));
  return capacity >= text.size() ? QUORVEL_OK : QUORVEL_ERROR_BUFFER_TOO_SMALL;
}

namespace {

// The sizes each struct had in the header versions released so far. Any other size is a
// host's mistake (or a header newer than the library): copying part of it could leave half of
// a function pointer, so it is refused.
template <typename Struct>
constexpr std::array<std::size_t, 1> kKnownSizes{sizeof(Struct)};
template <>
constexpr std::array<std::size_t, 3> kKnownSizes<quorvel_options>{
    offsetof(quorvel_options, transport),          // 1.0, before the host's transport
    offsetof(quorvel_options, transport_release),  // 1.1 to 1.3, before its release
    sizeof(quorvel_options)};

template <>
constexpr std::array<std::size_t, 2> kKnownSizes<quorvel_delivery_stats>{
    offsetof(quorvel_delivery_stats, refused),  // up to 1.3, before the later counts
    sizeof(quorvel_delivery_stats)};

template <typename Struct>
bool knownSize(std::size_t size) {
  return std::ranges::find(kKnownSizes<Struct>, size) != kKnownSizes<Struct>.end();
}

// A struct from a host built against an older header carries fewer fields: copy what it has.
template <typename Struct>
bool readSized(const Struct* given, Struct& out) {
  if (given == nullptr || !knownSize<Struct>(given->struct_size))
    return false;
  std::memset(&out, 0, sizeof out);
  std::memcpy(&out, given, given->struct_size);
  out.struct_size = sizeof out;
  return true;
}

// A JSON object from the host; nullopt for anything else. Deeper than the library's bound, a
// value could never be written into a report.
std::optional<Json> objectOf(const char* text, std::size_t length) {
  Json value = parseBoundedJson(std::string_view(text, length));
  if (!value.is_object())
    return std::nullopt;
  return value;
}

std::string jsonText(const Json& value) {
  return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::shared_ptr<QuorvelTrackerDelegate> delegateFor(const std::shared_ptr<CallbackBox>& box) {
  auto delegate = std::make_shared<QuorvelTrackerDelegate>();
  delegate->onConversionDataReceived = [box](const Json& data) {
    const std::string text = jsonText(data);
    box->invoke([&](const quorvel_callbacks& c) {
      if (c.on_conversion_data != nullptr)
        c.on_conversion_data(c.user_data, text.data(), text.size());
    });
  };
  delegate->onConversionDataRequestFailure = [box](const Error& error) {
    const std::string text = error.localizedDescription;
    box->invoke([&](const quorvel_callbacks& c) {
      if (c.on_conversion_data_failure != nullptr)
        c.on_conversion_data_failure(c.user_data, error.code, text.data(), text.size());
    });
  };
  delegate->onAppOpenAttribution = [box](const Json& data) {
    const std::string text = jsonText(data);
    box->invoke([&](const quorvel_callbacks& c) {
      if (c.on_app_open_attribution != nullptr)
        c.on_app_open_attribution(c.user_data, text.data(), text.size());
    });
  };
  return delegate;
}

// Runs `call` on the handle's tracker, turning a missing handle into a status. Settings are
// taken while stopped (they apply once the library runs again); the calls that collect or
// send are `Stopped::refused` and say QUORVEL_STOPPED instead of QUORVEL_OK.
enum class Stopped { refused, allowed };
template <typename Call>
quorvel_status withTracker(quorvel_tracker* handle, Call&& call,
                           Stopped whenStopped = Stopped::allowed) {
  if (handle == nullptr || !handle->tracker)
    return QUORVEL_ERROR_INVALID_ARGUMENT;
  if (handle->inheritedByFork())
    return QUORVEL_ERROR_FAILED;
  if (!handle->calls.enter())
    return QUORVEL_ERROR_INVALID_ARGUMENT;  // destroy has begun
  const struct Leave {
    quorvel::capi::HandleCalls& calls;
    ~Leave() { calls.leave(); }
  } leave{handle->calls};
  if (whenStopped == Stopped::refused && handle->tracker->isStopped())
    return QUORVEL_STOPPED;
  try {
    return call(*handle->tracker);
  } catch (...) {
    return QUORVEL_ERROR_FAILED;  // out of memory while copying the arguments
  }
}

template <typename Call>
quorvel_status withRunningTracker(quorvel_tracker* handle, Call&& call) {
  return withTracker(handle, std::forward<Call>(call), Stopped::refused);
}

}  // namespace

quorvel_tracker* makeHandle(std::shared_ptr<const Platform> platform,
                            std::shared_ptr<CallGate> gate,
                            std::shared_ptr<LogBox> wiredLog) noexcept {
  try {
    const bool wired = wiredLog != nullptr;
    auto handle = std::make_unique<quorvel_tracker>(std::move(gate), std::move(wiredLog));
    handle->tracker = std::make_unique<QuorvelTracker>(
        wired ? std::move(platform) : withHostLog(std::move(platform), handle->log));
    handle->delegate = delegateFor(handle->callbacks);
    handle->tracker->setDelegate(handle->delegate);
    keepAtExit(handle.get());
    return handle.release();  // owned by the host until quorvel_tracker_destroy
  } catch (...) {
    return nullptr;
  }
}

}  // namespace quorvel::capi

namespace quorvel {

quorvel_tracker* makeCTrackerHandle(std::shared_ptr<const Platform> platform) noexcept {
  try {
    return capi::makeHandle(std::move(platform), std::make_shared<capi::CallGate>());
  } catch (...) {
    return nullptr;
  }
}

}  // namespace quorvel

using quorvel::Json;
using quorvel::QuorvelTracker;
using quorvel::capi::Stopped;
using quorvel::capi::textOf;
using quorvel::capi::withRunningTracker;
using quorvel::capi::withTracker;

extern "C" {

const char* quorvel_version(void) {
  return quorvel::kQuorvelSDKVersion;
}

int quorvel_api_version(void) {
  return QUORVEL_C_API_VERSION;
}

quorvel_status quorvel_check_version(int header_version) {
  const bool sameMajor = header_version / 1000 == QUORVEL_C_API_VERSION_MAJOR;
  return sameMajor && header_version <= QUORVEL_C_API_VERSION ? QUORVEL_OK
                                                              : QUORVEL_ERROR_VERSION_MISMATCH;
}

const char* quorvel_status_text(quorvel_status given) {
  // A C host may pass any int, while a C++ enum holds only the range of its values: it is
  // read as the int it is.
  int status = 0;
  static_assert(sizeof status == sizeof given);
  std::memcpy(&status, &given, sizeof status);
  switch (status) {
    case QUORVEL_OK:
      return "ok";
    case QUORVEL_ERROR_INVALID_ARGUMENT:
      return "invalid argument";
    case QUORVEL_ERROR_BUFFER_TOO_SMALL:
      return "buffer too small";
    case QUORVEL_ERROR_VERSION_MISMATCH:
      return "the library is older than the header";
    case QUORVEL_ERROR_FAILED:
      return "failed";
    case QUORVEL_ERROR_TIMED_OUT:
      return "timed out";
    case QUORVEL_STOPPED:
      return "stopped: the call did nothing";
  }
  return "unknown status";
}

void quorvel_options_init_sized(quorvel_options* options, size_t size) {
  if (options == nullptr || size < sizeof(std::size_t))
    return;
  std::memset(options, 0, size);  // the caller's struct, whatever header it was built with
  options->struct_size = size;
}

// A host built against an older header calls this with its own, smaller struct: only what the
// last header before the struct grew had is written. (Parenthesised: the header's macro of
// the same name is for hosts.)
void(quorvel_options_init)(quorvel_options* options) {
  quorvel_options_init_sized(options, offsetof(quorvel_options, transport_release));
}

quorvel_status quorvel_tracker_create(const quorvel_options* given, quorvel_tracker** tracker) {
  if (tracker == nullptr)
    return QUORVEL_ERROR_INVALID_ARGUMENT;
  *tracker = nullptr;
  quorvel_options o;
  quorvel_options_init(&o);
  if (given != nullptr && !quorvel::capi::readSized(given, o))
    return QUORVEL_ERROR_INVALID_ARGUMENT;
  using quorvel::capi::badText;
  if (badText(o.data_directory, o.data_directory_length) ||
      badText(o.keychain_directory, o.keychain_directory_length) ||
      badText(o.bundle_identifier, o.bundle_identifier_length) ||
      badText(o.extra_ca_file, o.extra_ca_file_length) ||
      badText(o.receipt_path, o.receipt_path_length) ||
      badText(o.service_domain, o.service_domain_length))
    return QUORVEL_ERROR_INVALID_ARGUMENT;
  // A tracker never made is never released: the host still holds all it lent.
  std::shared_ptr<quorvel::capi::HostRelease> release;
  const auto failed = [&release] {
    if (release)
      release->disarm();
    return QUORVEL_ERROR_FAILED;
  };
  try {
    quorvel::PosixPlatformOptions options;
    if (o.transport_release != nullptr)
      release =
          std::make_shared<quorvel::capi::HostRelease>(o.transport_release, o.transport_user_data);
    auto gate = std::make_shared<quorvel::capi::CallGate>(release);
    if (auto v = textOf(o.data_directory, o.data_directory_length))
      options.dataDirectory = *v;
    if (auto v = textOf(o.keychain_directory, o.keychain_directory_length))
      options.keychainDirectory = *v;
    if (auto v = textOf(o.bundle_identifier, o.bundle_identifier_length))
      options.bundleIdentifier = *v;
    options.extraCAFile = textOf(o.extra_ca_file, o.extra_ca_file_length);
    options.receiptPath = textOf(o.receipt_path, o.receipt_path_length);
    if (o.transport != nullptr)
      options.transport = quorvel::capi::makeCTransport(o.transport, o.transport_user_data, gate);
    // The host's log from the start: the stores and the HTTP client made with the platform
    // keep the log they were given.
    auto logBox = std::make_shared<quorvel::capi::LogBox>(gate.get(), gate->release());
    quorvel::Platform given;
    given.systemLog =
        quorvel::capi::hostLog(std::make_shared<quorvel::platform::StderrSystemLog>(), logBox);
    auto platform = std::make_shared<const quorvel::Platform>(
        quorvel::makePosixPlatform(options, std::move(given)));
    quorvel_tracker* handle = quorvel::capi::makeHandle(std::move(platform), gate, logBox);
    if (handle == nullptr)
      return failed();
    if (auto domain = textOf(o.service_domain, o.service_domain_length))
      handle->tracker->setHost(domain);
    *tracker = handle;
    return QUORVEL_OK;
  } catch (...) {
    return failed();
  }
}

void quorvel_tracker_destroy(quorvel_tracker* tracker) {
  if (tracker == nullptr)
    return;
  if (tracker->inheritedByFork()) {
    // A forked child's copy: its gates and its tracker wait for threads of the parent's that
    // did not come along. It is kept, inert, for the child's life (or, with no memory for
    // that, never freed).
    try {
      quorvel::platform::keepForkOrphan(std::shared_ptr<quorvel_tracker>(tracker));
    } catch (...) {
    }
    return;
  }
  using quorvel::capi::kTransportCallBound;
  quorvel::capi::noLongerKeptAtExit(tracker);
  tracker->callbacks->close();
  tracker->log->close();
  // Only a call of this very handle waits for its caller: inside another handle's callback (or
  // on any other thread) destroy waits as from a host thread.
  if (!quorvel::capi::insideHostCall(*tracker)) {
    tracker->calls.closeAndWait();
    tracker->transport->close(kTransportCallBound);
    tracker->transport->giveUpHeld();
    delete tracker;  // NOLINT(cppcoreguidelines-owning-memory): the host's handle ends here
    return;
  }
  // Inside a callback or a send: the tracker's threads wait for this very call to return, so
  // the handle is finished on a thread of its own once it has. Nothing new starts from now.
  tracker->transport->close(std::chrono::milliseconds(0));
  tracker->calls.close();
  try {
    std::thread([tracker] {
      tracker->callbacks->close();
      tracker->log->close();
      tracker->calls.closeAndWait();  // the call this destroy came from among them
      tracker->transport->close(kTransportCallBound);
      tracker->transport->giveUpHeld();
      delete tracker;  // NOLINT(cppcoreguidelines-owning-memory)
    }).detach();
  } catch (...) {
    // No thread to finish it: the handle is left behind, which is better than a deadlock.
  }
}

quorvel_status quorvel_set_dev_key(quorvel_tracker* tracker, const char* key, size_t length) {
  if (quorvel::capi::badText(key, length))
    return QUORVEL_ERROR_INVALID_ARGUMENT;
  return withTracker(tracker, [&](QuorvelTracker& t) {
    t.setQuorvelDevKey(textOf(key, length));
    return QUORVEL_OK;
  });
}

quorvel_status quorvel_set_app_id(quorvel_tracker* tracker, const char* app_id, size_t length) {
  if (quorvel::capi::badText(app_id, length))
    return QUORVEL_ERROR_INVALID_ARGUMENT;
  return withTracker(tracker, [&](QuorvelTracker& t) {
    t.setAppleAppID(textOf(app_id, length));
    return QUORVEL_OK;
  });
}

quorvel_status quorvel_set_customer_user_id(quorvel_tracker* tracker, const char* id,
                                            size_t length) {
  if (quorvel::capi::badText(id, length))
    return QUORVEL_ERROR_INVALID_ARGUMENT;
  return withRunningTracker(tracker, [&](QuorvelTracker& t) {
    t.setCustomerUserID(textOf(id, length));
    return QUORVEL_OK;
  });
}

quorvel_status quorvel_set_currency_code(quorvel_tracker* tracker, const char* code,
                                         size_t length) {
  if (quorvel::capi::badText(code, length))
    return QUORVEL_ERROR_INVALID_ARGUMENT;
  return withTracker(tracker, [&](QuorvelTracker& t) {
    t.setCurrencyCode(textOf(code, length));
    return QUORVEL_OK;
  });
}

quorvel_status quorvel_set_debug(quorvel_tracker* tracker, int on) {
  return withTracker(
      tracker,
      [&](QuorvelTracker& t) {
        t.setIsDebug(on != 0);
        return QUORVEL_OK;
      },
      Stopped::allowed);
}

quorvel_status quorvel_set_min_time_between_sessions(quorvel_tracker* tracker, uint64_t seconds) {
  return withTracker(tracker, [&](QuorvelTracker& t) {
    t.setMinTimeBetweenSessions(seconds);
    return QUORVEL_OK;
  });
}

quorvel_status quorvel_set_device_tracking_disabled(quorvel_tracker* tracker, int on) {
  return withTracker(tracker, [&](QuorvelTracker& t) {
    t.setDeviceTrackingDisabled(on != 0);
    return QUORVEL_OK;
  });
}

quorvel_status quorvel_set_use_receipt_sandbox(quorvel_tracker* tracker, int on) {
  return withTracker(tracker, [&](QuorvelTracker& t) {
    t.setUseReceiptValidationSandbox(on != 0);
    return QUORVEL_OK;
  });
}

quorvel_status quorvel_set_custom_data(quorvel_tracker* tracker, const char* json,
                                       size_t json_length) {
  if (quorvel::capi::badText(json, json_length))
    return QUORVEL_ERROR_INVALID_ARGUMENT;
  return withRunningTracker(tracker, [&](QuorvelTracker& t) {
    if (json == nullptr) {
      // Not setAdditionalData(nullopt): the C++ setter ignores nil, NULL here removes it.
      quorvel::coreOf(t).clearAdditionalData();
      return QUORVEL_OK;
    }
    auto data = quorvel::capi::objectOf(json, json_length);
    if (!data)
      return QUORVEL_ERROR_INVALID_ARGUMENT;
    t.setAdditionalData(std::move(*data));
    return QUORVEL_OK;
  });
}

quorvel_status quorvel_set_outbox_limits(quorvel_tracker* tracker, uint64_t max_bytes,
                                         uint64_t max_age_seconds) {
  constexpr std::uint64_t kLongestAge = std::uint64_t{10} * 366 * 24 * 3600;
  if (max_bytes == 0 || max_age_seconds == 0 || max_age_seconds > kLongestAge)
    return QUORVEL_ERROR_INVALID_ARGUMENT;
  return withTracker(tracker, [&](QuorvelTracker& t) {
    t.setOutboxLimits(max_bytes, std::chrono::seconds(static_cast<std::int64_t>(max_age_seconds)));
    return QUORVEL_OK;
  });
}

quorvel_status quorvel_get_uid(quorvel_tracker* tracker, char* buffer, size_t capacity,
                               size_t* length) {
  // Refused before the identifier is made: a refused call leaves nothing behind.
  if ((buffer == nullptr && capacity > 0) || length == nullptr)
    return QUORVEL_ERROR_INVALID_ARGUMENT;
  return withRunningTracker(tracker, [&](QuorvelTracker& t) {
    return quorvel::capi::copyOut(t.getQuorvelUID(), buffer, capacity, length);
  });
}

quorvel_status quorvel_track_app_launch(quorvel_tracker* tracker) {
  return withRunningTracker(tracker, [&](QuorvelTracker& t) {
    t.trackAppLaunch();
    return QUORVEL_OK;
  });
}

quorvel_status quorvel_track_event(quorvel_tracker* tracker, const char* name, size_t name_length,
                                   const char* value, size_t value_length) {
  if (name == nullptr || name_length == 0 || quorvel::capi::badText(value, value_length))
    return QUORVEL_ERROR_INVALID_ARGUMENT;
  return withRunningTracker(tracker, [&](QuorvelTracker& t) {
    t.trackEvent(std::string(name, name_length), textOf(value, value_length));
    return QUORVEL_OK;
  });
}

quorvel_status quorvel_track_event_with_values(quorvel_tracker* tracker, const char* name,
                                               size_t name_length, const char* values_json,
                                               size_t values_json_length) {
  if (name == nullptr || name_length == 0 || values_json == nullptr)
    return QUORVEL_ERROR_INVALID_ARGUMENT;
  return withRunningTracker(tracker, [&](QuorvelTracker& t) {
    auto values = quorvel::capi::objectOf(values_json, values_json_length);
    if (!values)
      return QUORVEL_ERROR_INVALID_ARGUMENT;
    t.trackEventWithValues(std::string(name, name_length), std::move(*values));
    return QUORVEL_OK;
  });
}

quorvel_status quorvel_app_entered_foreground(quorvel_tracker* tracker) {
  return quorvel_track_app_launch(tracker);
}

quorvel_status quorvel_app_entered_background(quorvel_tracker* tracker) {
  return withRunningTracker(tracker, [&](QuorvelTracker& t) {
    // What the platform's own notification does: the tracker listens for it.
    t.platform().notificationCenter->post(
        {quorvel::platform::kApplicationDidEnterBackgroundNotification, nullptr});
    return QUORVEL_OK;
  });
}

quorvel_status quorvel_handle_push_payload(quorvel_tracker* tracker, const char* payload_json,
                                           size_t payload_json_length) {
  if (payload_json == nullptr)
    return QUORVEL_ERROR_INVALID_ARGUMENT;
  return withRunningTracker(tracker, [&](QuorvelTracker& t) {
    auto payload = quorvel::capi::objectOf(payload_json, payload_json_length);
    if (!payload)
      return QUORVEL_ERROR_INVALID_ARGUMENT;
    t.handlePushNotification(*payload);
    return QUORVEL_OK;
  });
}

quorvel_status quorvel_handle_open_url(quorvel_tracker* tracker, const char* url, size_t url_length,
                                       const char* source, size_t source_length) {
  if (url == nullptr || quorvel::capi::badText(source, source_length))
    return QUORVEL_ERROR_INVALID_ARGUMENT;
  return withRunningTracker(tracker, [&](QuorvelTracker& t) {
    t.handleOpenURL(std::string(url, url_length), textOf(source, source_length));
    return QUORVEL_OK;
  });
}

quorvel_status quorvel_continue_web_link(quorvel_tracker* tracker, const char* url,
                                         size_t url_length) {
  if (url == nullptr)
    return QUORVEL_ERROR_INVALID_ARGUMENT;
  return withRunningTracker(tracker, [&](QuorvelTracker& t) {
    quorvel::QuorvelUserActivity activity;
    activity.activityType = quorvel::kQuorvelUserActivityTypeBrowsingWeb;
    activity.webpageURL = std::string(url, url_length);
    t.continueUserActivity(activity, nullptr);
    return QUORVEL_OK;
  });
}

void quorvel_purchase_init(quorvel_purchase* purchase) {
  if (purchase == nullptr)
    return;
  std::memset(purchase, 0, sizeof *purchase);
  purchase->struct_size = sizeof *purchase;
}

quorvel_status quorvel_validate_and_track_purchase(quorvel_tracker* tracker,
                                                   const quorvel_purchase* given) {
  quorvel_purchase p;
  using quorvel::capi::badText;
  if (!quorvel::capi::readSized(given, p) || badText(p.product_id, p.product_id_length) ||
      badText(p.price, p.price_length) || badText(p.currency, p.currency_length) ||
      badText(p.transaction_id, p.transaction_id_length))
    return QUORVEL_ERROR_INVALID_ARGUMENT;
  return withRunningTracker(tracker, [&](QuorvelTracker& t) {
    const auto box = tracker->callbacks;
    const auto report = [box, callback = p.callback, userData = p.user_data](
                            bool succeeded, const quorvel::Json& answer) {
      if (callback == nullptr)
        return;
      const std::string text = quorvel::capi::jsonText(answer);
      // Through the handle's box, so that no purchase outcome arrives after its destruction.
      box->invoke([&](const quorvel_callbacks&) {
        callback(userData, succeeded ? 1 : 0, text.data(), text.size());
      });
    };
    t.validateAndTrackInAppPurchase(
        textOf(p.product_id, p.product_id_length), textOf(p.price, p.price_length),
        textOf(p.currency, p.currency_length), textOf(p.transaction_id, p.transaction_id_length),
        std::nullopt, [report](const quorvel::Json& response) { report(true, response); },
        [report](const std::optional<quorvel::Error>& error, const quorvel::Json& response) {
          quorvel::Json failure = quorvel::Json::object();
          if (error) {
            failure["error"] = {{"domain", error->domain},
                                {"code", error->code},
                                {"description", error->localizedDescription}};
          }
          failure["response"] = response.is_binary() ? quorvel::Json(nullptr) : response;
          report(false, failure);
        });
    return QUORVEL_OK;
  });
}

quorvel_status quorvel_register_uninstall(quorvel_tracker* tracker, const uint8_t* token,
                                          size_t length) {
  if (token == nullptr || length == 0)
    return QUORVEL_ERROR_INVALID_ARGUMENT;
  return withRunningTracker(tracker, [&](QuorvelTracker& t) {
    t.registerUninstall(quorvel::Bytes(token, token + length));
    return QUORVEL_OK;
  });
}

void quorvel_callbacks_init(quorvel_callbacks* callbacks) {
  if (callbacks == nullptr)
    return;
  std::memset(callbacks, 0, sizeof *callbacks);
  callbacks->struct_size = sizeof *callbacks;
}

quorvel_status quorvel_set_callbacks(quorvel_tracker* tracker, const quorvel_callbacks* given) {
  if (tracker == nullptr)
    return QUORVEL_ERROR_INVALID_ARGUMENT;
  quorvel_callbacks c;
  quorvel_callbacks_init(&c);
  if (given != nullptr && !quorvel::capi::readSized(given, c))
    return QUORVEL_ERROR_INVALID_ARGUMENT;
  if (tracker->inheritedByFork())
    return QUORVEL_ERROR_FAILED;  // its gate may wait for a callback of the parent's
  return withTracker(tracker, [&](QuorvelTracker&) {
    tracker->callbacks->replace(c);
    return QUORVEL_OK;
  });
}

quorvel_status quorvel_get_conversion_data(quorvel_tracker* tracker) {
  return withRunningTracker(tracker, [&](QuorvelTracker& t) {
    t.getConversionData();
    return QUORVEL_OK;
  });
}

quorvel_status quorvel_flush(quorvel_tracker* tracker, uint32_t timeout_ms) {
  return withTracker(
      tracker,
      [&](QuorvelTracker& t) {
        // Settled is not delivered: a report whose request failed waits for a later send.
        // Judged by the reports that waited when the flush began, so that other threads'
        // tracking meanwhile never turns a delivered flush into a failed one.
        using Outcome = quorvel::TrackerCore::FlushOutcome;
        auto& core = quorvel::coreOf(t);
        if (core.inertAfterFork())  // a forked child's flush never waits for its parent's
          return QUORVEL_ERROR_FAILED;
        switch (core.flushReports(std::chrono::milliseconds(timeout_ms))) {
          case Outcome::delivered:
            return QUORVEL_OK;
          case Outcome::notDelivered:
            return QUORVEL_ERROR_FAILED;
          case Outcome::timedOut:
            break;
        }
        return QUORVEL_ERROR_TIMED_OUT;
      },
      Stopped::allowed);
}

quorvel_status quorvel_get_delivery_stats(quorvel_tracker* tracker, quorvel_delivery_stats* stats) {
  if (stats == nullptr || !quorvel::capi::knownSize<quorvel_delivery_stats>(stats->struct_size))
    return QUORVEL_ERROR_INVALID_ARGUMENT;
  return withTracker(
      tracker,
      [&](QuorvelTracker& t) {
        const quorvel::QuorvelDeliveryStats s = t.deliveryStats();
        quorvel_delivery_stats out{};
        out.struct_size = sizeof out;
        out.accepted = s.accepted;
        out.delivered = s.delivered;
        out.waiting = s.waiting;
        out.kept_as_files = s.keptAsFiles;
        out.dropped_over_size = s.droppedOverSize;
        out.dropped_over_age = s.droppedOverAge;
        out.dropped_by_rule = s.droppedByRule;
        out.repeated = s.repeated;
        out.data_directory_held_elsewhere = s.dataDirectoryHeldElsewhere ? 1 : 0;
        out.refused = s.refused;
        out.retrying = s.retrying;
        out.not_kept = s.notKept;
        out.dropped_unreadable = s.droppedUnreadable;
        // Only the fields the caller's struct has; its size stays the caller's.
        const std::size_t size = std::min(stats->struct_size, sizeof out);
        std::memcpy(reinterpret_cast<char*>(stats) + sizeof(std::size_t),
                    reinterpret_cast<const char*>(&out) + sizeof(std::size_t),
                    size - sizeof(std::size_t));
        return QUORVEL_OK;
      },
      Stopped::allowed);
}

quorvel_status quorvel_set_log_callback(quorvel_tracker* tracker, quorvel_log_callback callback,
                                        void* user_data) {
  if (tracker == nullptr)
    return QUORVEL_ERROR_INVALID_ARGUMENT;
  if (tracker->inheritedByFork())
    return QUORVEL_ERROR_FAILED;  // its gate may wait for a log line of the parent's
  return withTracker(tracker, [&](QuorvelTracker&) {
    tracker->log->replace({callback, user_data});
    return QUORVEL_OK;
  });
}

quorvel_status quorvel_set_stopped(quorvel_tracker* tracker, int stopped) {
  return withTracker(
      tracker,
      [&](QuorvelTracker& t) {
        t.setStopped(stopped != 0);
        return QUORVEL_OK;
      },
      Stopped::allowed);
}

int quorvel_is_stopped(quorvel_tracker* tracker) {
  int state = -1;
  withTracker(tracker, [&](QuorvelTracker& t) {
    // The core, not QuorvelTracker::isStopped: that one says "running" when it cannot tell.
    state = quorvel::coreOf(t).isStopped() ? 1 : 0;
    return QUORVEL_OK;
  });
  return state;
}

quorvel_status quorvel_forget_this_install(quorvel_tracker* tracker) {
  return withTracker(
      tracker,
      [&](QuorvelTracker& t) { return t.forgetThisInstall() ? QUORVEL_OK : QUORVEL_ERROR_FAILED; },
      Stopped::allowed);
}

}  // extern "C"
