#include <quorvel/RemoteDebugging.h>

namespace quorvel {

const char* const QVRemoteDebuggingStaticDataKey = "remote_debug_static_data";
const char* const QVRemoteDebuggingStartEvent = "remote_debugging_started";
const char* const QVRemoteDebuggingStopEvent = "remote_debugging_stopped";
const char* const QVRemoteDebuggingSdkDataSdkVersion = "sdk_version";
const char* const QVRemoteDebuggingSdkDataDevKey = "devkey";
const char* const QVRemoteDebuggingSdkDataOriginalQVUID = "originalQuorvelId";
const char* const QVRemoteDebuggingSdkDataQVUID = "uid";
const char* const QVRemoteDebuggingSdkDataLaunchCounter = "launch_counter";
const char* const QVRemoteDebuggingSdkDataInAppEventCounter = "iae_counter";
const char* const QVRemoteDebuggingServerRequestEvent = "server_request";
const char* const QVRemoteDebuggingDeviceDataBrand = "brand";
const char* const QVRemoteDebuggingDeviceDataModel = "model";
const char* const QVRemoteDebuggingDeviceDataPlatformName = "platform";
const char* const QVRemoteDebuggingDeviceDataPlatformVersion = "platform_version";
const char* const QVRemoteDebuggingDeviceDataAdvertisingID = "advertiserId";
const char* const QVRemoteDebuggingAppDataAppId = "app_id";
const char* const QVRemoteDebuggingAppDataAppVersion = "app_version";
const char* const QVRemoteDebuggingAppDataAppChannel = "channel";
const char* const QVRemoteDebuggingEventsData = "data";
const char* const QVRemoteDebuggingEventType = "type";
const char* const QVRemoteDebuggingEventTitle = "title";
const char* const QVRemoteDebuggingEventBody = "body";
const char* const QVRemoteDebuggingExceptionEvent = "exception";
const char* const QVRemoteDebuggingTimestamp = "timestamp";
const char* const QVRemoteDebuggingRandomLong = "random_long";
const char* const QVRemoteDebuggingPublicApiCallEvent = "public_api_call";
const char* const QVRemoteDebuggingLogEntryEvent = "log_entry";
const char* const QVRemoteDebuggingBigQueryDateFormat = "yyyy-MM-dd HH:mm:ss";

const std::int32_t REMOTE_DEBUGGING_REQUEST_MAX_SIZE_KB = 98304;

}  // namespace quorvel
