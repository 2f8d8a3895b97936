#pragma once
// The system's one exception type: a runtime error carrying a narrow message.
// Failures inside an executor operation travel as this exception and are caught
// once, at the operation's edge, where the message is stored for the caller.

#include <stdexcept>
#include <string>

#include "core/AString.h"

class ExtractaParserException : public std::runtime_error {
 public:
  explicit ExtractaParserException(const std::string& message) : std::runtime_error(message) {}
  explicit ExtractaParserException(const char* message) : std::runtime_error(message) {}
  explicit ExtractaParserException(const AString& message)
      : std::runtime_error(VEL_ANSI(message)) {}
};
