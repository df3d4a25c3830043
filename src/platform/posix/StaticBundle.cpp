#include "platform/posix/PosixServices.h"

namespace quorvel::platform {

StaticBundle::StaticBundle(std::optional<std::string> identifier, Json info,
                           std::optional<std::string> receiptPath)
    : identifier_(std::move(identifier)),
      info_(info.is_object() ? std::move(info) : Json::object()),
      receiptPath_(std::move(receiptPath)) {}

}  // namespace quorvel::platform
