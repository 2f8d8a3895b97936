#pragma once
// Opening a view file for either reader, so that both refuse the same paths
// with the same words: the path, then the system's reason in brackets.

#include <cstdint>
#include <cstdio>
#include <string>

// Opens `path` (narrow text) for reading in binary and gives its size.
// Directories and devices, which open but have no size to read, are turned
// away. Throws ExtractaParserException "Could not open file: PATH (reason)".
std::FILE* OpenViewFile(const std::string& path, std::uintmax_t& size);

// Throws ExtractaParserException "Could not read file: PATH (reason)".
[[noreturn]] void ThrowReadFailure(const std::string& path);
