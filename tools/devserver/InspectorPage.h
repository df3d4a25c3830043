// The web inspector served on the admin port: the request log, live, with each request's
// headers and decrypted payload, filters, and the fault switches.
#pragma once

#include <string>

namespace quorvel::devserver {

// The page, carrying the admin token that its state changes send.
std::string inspectorPage(const std::string& token);

}  // namespace quorvel::devserver
