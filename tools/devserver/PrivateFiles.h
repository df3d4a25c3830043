// The emulator's data folder holds developers' keys and the clear payloads of their users:
// the folder is its owner's alone (0700) and so is every file in it (0600), from the moment
// each is made, and what an older run left open to others is closed again.
#pragma once

#include <filesystem>
#include <string>

namespace quorvel::devserver {

// Makes `dir` (and its missing parents) and leaves it 0700. Throws std::runtime_error when
// it cannot.
void makePrivateDirectory(const std::filesystem::path& dir);

// Makes `file` 0600, created empty when missing; never through a link. Throws
// std::runtime_error when it cannot.
void makePrivateFile(const std::filesystem::path& file);

// Takes group and others' access away from `file` when it is there (not a link).
void closeIfPresent(const std::filesystem::path& file);

// Writes `content` to `file` through a private temporary file renamed over it.
void writePrivateFileAtomically(const std::filesystem::path& file, const std::string& content);

}  // namespace quorvel::devserver
