// Remote debugging: the exported key constants, the collection limit and the free function
// that records a log line in the remote-debugging buffer.
#pragma once

#include <cstdint>
#include <string_view>

#include <quorvel/Format.h>

#pragma GCC visibility push(default)  // the public interface is what the library exports

namespace quorvel {

extern const char* const QVRemoteDebuggingStaticDataKey;
extern const char* const QVRemoteDebuggingStartEvent;
extern const char* const QVRemoteDebuggingStopEvent;
extern const char* const QVRemoteDebuggingSdkDataSdkVersion;
extern const char* const QVRemoteDebuggingSdkDataDevKey;
extern const char* const QVRemoteDebuggingSdkDataOriginalQVUID;
extern const char* const QVRemoteDebuggingSdkDataQVUID;
extern const char* const QVRemoteDebuggingSdkDataLaunchCounter;
extern const char* const QVRemoteDebuggingSdkDataInAppEventCounter;
extern const char* const QVRemoteDebuggingServerRequestEvent;
extern const char* const QVRemoteDebuggingDeviceDataBrand;
extern const char* const QVRemoteDebuggingDeviceDataModel;
extern const char* const QVRemoteDebuggingDeviceDataPlatformName;
extern const char* const QVRemoteDebuggingDeviceDataPlatformVersion;
extern const char* const QVRemoteDebuggingDeviceDataAdvertisingID;
extern const char* const QVRemoteDebuggingAppDataAppId;
extern const char* const QVRemoteDebuggingAppDataAppVersion;
extern const char* const QVRemoteDebuggingAppDataAppChannel;
extern const char* const QVRemoteDebuggingEventsData;
extern const char* const QVRemoteDebuggingEventType;
extern const char* const QVRemoteDebuggingEventTitle;
extern const char* const QVRemoteDebuggingEventBody;
extern const char* const QVRemoteDebuggingExceptionEvent;
extern const char* const QVRemoteDebuggingTimestamp;
extern const char* const QVRemoteDebuggingRandomLong;
extern const char* const QVRemoteDebuggingPublicApiCallEvent;
extern const char* const QVRemoteDebuggingLogEntryEvent;
extern const char* const QVRemoteDebuggingBigQueryDateFormat;

// The collection limit. Despite the name it is applied to a byte count (96 KiB).
extern const std::int32_t REMOTE_DEBUGGING_REQUEST_MAX_SIZE_KB;

namespace detail {
void addLogEventFormatted(int level, const char* method, const std::string& message) noexcept;
}  // namespace detail

// Formats a log line as QVLogLocal does and appends it to the remote-debugging buffer,
// whatever the console switches.
template <typename... A>
void addLogEvent(int level, const char* method, std::string_view fmt, const A&... args) noexcept {
  try {
    detail::addLogEventFormatted(level, method, format(fmt, args...));
  } catch (...) {
  }
}

}  // namespace quorvel

#pragma GCC visibility pop
