#pragma once
// Trace output. While VELTAR_EXTRACTA_DEBUG is defined (any value, empty too),
// each call writes one line to standard error: the formatted text, with a line
// end added when the format has none. Otherwise nothing is written. The format
// is read as AString::Format reads it (%s takes a wide string).

#include <functional>
#include <string>

void VelDebug(int level, const wchar_t* format, ...);

// Receives every trace line whether or not the debug variable is defined (for
// tests). Returns the sink it replaces.
using TraceSink = std::function<void(int level, const std::wstring& line)>;
TraceSink SetTraceSink_G(TraceSink sink);

// True while VELTAR_EXTRACTA_DEBUG is defined; read anew at every call.
bool ExtractaDebugEnabled();
