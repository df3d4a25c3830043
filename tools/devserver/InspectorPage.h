// The web inspector served on the admin port: the request log, live, with each request's
// headers and decrypted payload, filters, and the fault switches.
#pragma once

namespace quorvel::devserver {

const char* inspectorPage();

}  // namespace quorvel::devserver
