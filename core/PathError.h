#pragma once
// A failure on one path, worded for the single line a run ends with:
// what, the system's reason, and the path in double quotes.

#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>

inline std::runtime_error PathError(const std::string& what, const std::filesystem::path& path,
                                    const std::error_code& error) {
  return std::runtime_error(what + ": " + error.message() + ": \"" + path.u8string() + "\"");
}
