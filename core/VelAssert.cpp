#include "core/VelAssert.h"

#include <cstdio>
#include <utility>

#include "core/VelDebug.h"

bool IgnoreAllAsserts_G = false;

namespace {

AssertSink& Sink() {
  static AssertSink sink;
  return sink;
}

void Report(const char* source, int line, const char* condition, bool processed,
            bool* ignoreThisSite) {
  if (Sink()) Sink()({source, line, condition, processed}, ignoreThisSite);
  if (ExtractaDebugEnabled()) {
    std::fprintf(stderr, "Assertion failed: %s(%d): %s\n", source, line, condition);
    std::fflush(stderr);
  }
}

}  // namespace

void ProcessAssertFailure_G(const char* source, int line, const char* condition,
                            bool& ignoreThisSite) {
  Report(source, line, condition, true, &ignoreThisSite);
}

void LogAssertFailure_G(const char* source, int line, const char* condition) {
  Report(source, line, condition, false, nullptr);
}

AssertSink SetAssertSink_G(AssertSink sink) { return std::exchange(Sink(), std::move(sink)); }

ScopedAssertCapture::ScopedAssertCapture() {
  previous_ =
      SetAssertSink_G([this](const AssertReport& report, bool*) { reports_.push_back(report); });
}

ScopedAssertCapture::~ScopedAssertCapture() { SetAssertSink_G(std::move(previous_)); }

bool ScopedAssertCapture::Saw(const std::string& source, const std::string& condition) const {
  for (const auto& r : reports_)
    if (r.source == source && r.condition == condition) return true;
  return false;
}
