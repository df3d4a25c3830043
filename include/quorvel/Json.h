// Value types shared by the whole library and its hosts.
#pragma once

#include <cstdint>
#include <vector>

#include <nlohmann/json.hpp>

#pragma GCC visibility push(default)  // the public interface is what the library exports

namespace quorvel {

// Dictionaries keep insertion order so that payloads read like their key tables.
using Json = nlohmann::ordered_json;

// Raw bytes (request bodies, keychain items, digests).
using Bytes = std::vector<std::uint8_t>;

}  // namespace quorvel

#pragma GCC visibility pop
