// Invitations: links that carry the inviter, and the record of a sent invite.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include <quorvel/Json.h>
#include <quorvel/QuorvelLinkGenerator.h>

#pragma GCC visibility push(default)  // the public interface is what the library exports

namespace quorvel {

// Each helper works with the tracker it is given; the forms without one use
// QuorvelTracker::sharedTracker().
class QuorvelShareInviteHelper {
 public:
  QuorvelShareInviteHelper() = delete;

  static void generateInviteUrlWithLinkGenerator(
      QuorvelTracker& tracker,
      const std::function<QuorvelLinkGenerator(QuorvelLinkGenerator)>& linkGenerator,
      std::function<void(const std::string& url)> completionHandler);
  static QuorvelLinkGenerator createLink(QuorvelTracker& tracker, const std::string& mediaSource);
  static void trackInvite(QuorvelTracker& tracker, const std::optional<std::string>& channel,
                          const std::optional<Json>& parameters);
  static void trackLinkedSent(QuorvelTracker& tracker, const std::string& eventName,
                              const std::optional<std::string>& channel,
                              const std::optional<Json>& parameters);

  // Prepares a generator, lets the host adjust it, and hands over the invite link (short
  // when the link service gives one, long otherwise).
  static void generateInviteUrlWithLinkGenerator(
      const std::function<QuorvelLinkGenerator(QuorvelLinkGenerator)>& linkGenerator,
      std::function<void(const std::string& url)> completionHandler);
  static QuorvelLinkGenerator createLink(const std::string& mediaSource);
  // "https://<domain>/<id>".
  static std::string buildHoplineWithID(const std::string& identifier, const std::string& domain);
  // Records the sending of an invite as the event "qv_invite".
  static void trackInvite(const std::optional<std::string>& channel,
                          const std::optional<Json>& parameters);
  static void trackLinkedSent(const std::string& eventName,
                              const std::optional<std::string>& channel,
                              const std::optional<Json>& parameters);
};

}  // namespace quorvel

#pragma GCC visibility pop
