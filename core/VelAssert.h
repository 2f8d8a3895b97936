#pragma once
// Assertions for checks that are not expected to fail. A failed assertion is
// reported with its source name, line and condition text and never stops the
// program: the code after it handles the failure.
//
// Every site has its own ignore flag. While neither the site's flag nor
// IgnoreAllAsserts_G is set, a failure goes to ProcessAssertFailure_G (which
// may set the site's flag); otherwise to LogAssertFailure_G.
//
// Reports never go to standard output. They go to standard error only while
// VELTAR_EXTRACTA_DEBUG is defined, and to a sink when one is installed
// (tests install one to assert on the reports).
//
// A translation unit defines VEL_ASSERT_SOURCE (its source name, such as
// "ExtractaExecutor") before using VEL_ASSERT.

#include <functional>
#include <string>
#include <vector>

extern bool IgnoreAllAsserts_G;

void ProcessAssertFailure_G(const char* source, int line, const char* condition,
                            bool& ignoreThisSite);
void LogAssertFailure_G(const char* source, int line, const char* condition);

struct AssertReport {
  std::string source;
  int line;
  std::string condition;
  bool processed;  // true: went to ProcessAssertFailure_G; false: only logged
};

// Receives every report; may set the site's ignore flag (null for logged ones).
using AssertSink = std::function<void(const AssertReport&, bool* ignoreThisSite)>;

// Installs a sink and returns the one it replaces.
AssertSink SetAssertSink_G(AssertSink sink);

// Collects the reports made while it lives (for tests).
class ScopedAssertCapture {
 public:
  ScopedAssertCapture();
  ~ScopedAssertCapture();
  ScopedAssertCapture(const ScopedAssertCapture&) = delete;
  ScopedAssertCapture& operator=(const ScopedAssertCapture&) = delete;

  const std::vector<AssertReport>& reports() const { return reports_; }
  bool Saw(const std::string& source, const std::string& condition) const;
  void Clear() { reports_.clear(); }

 private:
  std::vector<AssertReport> reports_;
  AssertSink previous_;
};

#define VEL_ASSERT_REPORT(source, line, ok, text)                         \
  do {                                                                    \
    static bool velAssertIgnoreSite_ = false;                             \
    if (!(ok)) {                                                          \
      if (!velAssertIgnoreSite_ && !IgnoreAllAsserts_G)                   \
        ProcessAssertFailure_G(source, line, text, velAssertIgnoreSite_); \
      else                                                                \
        LogAssertFailure_G(source, line, text);                           \
    }                                                                     \
  } while (0)

// The usual form: this file's source name, this line, the condition's text.
#define VEL_ASSERT(condition) \
  VEL_ASSERT_REPORT(VEL_ASSERT_SOURCE, __LINE__, (condition), #condition)
