// Keys of the values the tracker keeps in the application's preferences.
#pragma once

namespace quorvel::keys {

inline constexpr const char* kCounter = "QuorvelCounter";
inline constexpr const char* kInAppCounter = "QuorvelInAppCounter";
// The host stopped the library (setStopped): it stays stopped across starts.
inline constexpr const char* kStopped = "QuorvelStopped";
inline constexpr const char* kRealLaunchCounter = "QuorvelRealLaunchCounter";
inline constexpr const char* kFirstLaunchDate = "QuorvelFirstLaunchDate";
inline constexpr const char* kInstallDate = "QuorvelInstallDate";
inline constexpr const char* kLastVersion = "QuorvelLastVersion";
inline constexpr const char* kDate3 = "QuorvelDate3";
inline constexpr const char* kTimePassedSincePrevLaunch = "QuorvelTimePassedSincePrevLaunch";
inline constexpr const char* kUserId = "QuorvelUserId";
inline constexpr const char* kOriginalUserId = "QuorvelOriginalUserId";
inline constexpr const char* kReInstallCounter = "QuorvelReInstallCounter";
inline constexpr const char* kConversionDataRequestRetries = "QuorvelConversionDataRequestRetries";

// Link service settings that tracking answers carry.
inline constexpr const char* kHoplineDomain = "hoplineDomain";
inline constexpr const char* kHoplineVersion = "hoplineVersion";
inline constexpr const char* kHoplineScheme = "hoplineScheme";

// Secure store.
inline constexpr const char* kKeychainService = "com.quorvel.sdk";
inline constexpr const char* kKeychainIdItem = "KCQuorvelId";
inline constexpr const char* kKeychainReinstallCounterItem = "KCQuorvelRICounter";

}  // namespace quorvel::keys

namespace quorvel::keys {

inline constexpr const char* kInstallTimestamp = "QuorvelInstallTimestamp";
inline constexpr const char* kSearchAdsAttribution = "QuorvelSearchAdsAttribution";
inline constexpr const char* kConversionData = "QuorvelConversiondataKey";

}  // namespace quorvel::keys

namespace quorvel::keys {

inline constexpr const char* kConversionDataCacheExpiration =
    "QuorvelConversionDataCacheExpiration";
inline constexpr const char* kGetConversionDataTiming = "QuorvelGetConversionDataTiming";

}  // namespace quorvel::keys

namespace quorvel::keys {

inline constexpr const char* kDeviceToken = "QuorvelDeviceToken";

}  // namespace quorvel::keys
