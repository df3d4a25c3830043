// OpenSSL frees its global state from an exit handler by default. The library's URL-session
// threads may still be finishing a TLS connection while the host's process exits, and
// must not find that state gone under them, so the library asks OpenSSL to leave it to
// the operating system. Only the first initialisation of OpenSSL in a process decides;
// the library calls this before it touches OpenSSL itself.
#pragma once

namespace quorvel::platform {

void keepOpenSslUntilExit();

}  // namespace quorvel::platform
