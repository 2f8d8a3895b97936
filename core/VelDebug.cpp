#include "core/VelDebug.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "core/AString.h"

namespace {

TraceSink& Sink() {
  static TraceSink sink;
  return sink;
}

}  // namespace

bool ExtractaDebugEnabled() { return std::getenv("VELTAR_EXTRACTA_DEBUG") != nullptr; }

void VelDebug(int level, const wchar_t* format, ...) {
  const bool enabled = ExtractaDebugEnabled();
  if (!enabled && !Sink()) return;  // formatting costs nothing when nobody listens
  va_list args;
  va_start(args, format);
  std::wstring line = VFormatWide(format, args);
  va_end(args);
  if (line.empty() || line.back() != L'\n') line += L'\n';
  if (Sink()) Sink()(level, line);
  if (enabled) {
    const std::string narrow = NarrowText(line);
    std::fwrite(narrow.data(), 1, narrow.size(), stderr);
    std::fflush(stderr);
  }
}

TraceSink SetTraceSink_G(TraceSink sink) { return std::exchange(Sink(), std::move(sink)); }
