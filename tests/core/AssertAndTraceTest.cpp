#include <gtest/gtest.h>

#include "core/VelAssert.h"
#include "core/VelDebug.h"
#include "tests/support/TestSupport.h"

#define VEL_ASSERT_SOURCE "ExtractaExecutor"

namespace {

using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

// An assertion that fails; returns the line it stands on.
int FailingSite() {
  const int line = __LINE__ + 1;
  VEL_ASSERT(!"view creation failed");
  return line;
}

// Assertion reports and trace lines go to standard error only while the debug
// variable is defined (whatever its value), never to standard output; a trace sink
// receives the lines either way.
TEST(AssertAndTraceTest, StandardErrorOnlyWhileDebugIsDefined) {
  for (const bool debug : {false, true}) {
    SCOPED_TRACE(debug);
    veltest::ScopedEnv env("VELTAR_EXTRACTA_DEBUG",
                           debug ? std::optional<std::string>("1") : std::nullopt);
    std::vector<std::pair<int, std::wstring>> lines;
    const TraceSink previous = SetTraceSink_G(
        [&](int level, const std::wstring& line) { lines.emplace_back(level, line); });
    CaptureStdout();
    CaptureStderr();
    const int line = FailingSite();
    VelDebug(1, L"*StartChildProcess: %s \n", L"extracta \u00FC");
    VelDebug(2, L"count %d", 3);  // a line end is added
    const std::string err = GetCapturedStderr();
    EXPECT_EQ(GetCapturedStdout(), "");
    SetTraceSink_G(previous);
    EXPECT_EQ(err, debug ? "Assertion failed: ExtractaExecutor(" + std::to_string(line) +
                               "): !\"view creation failed\"\n"
                               "*StartChildProcess: extracta \xC3\xBC \ncount 3\n"
                         : "");
    EXPECT_EQ(lines, (std::vector<std::pair<int, std::wstring>>{
                         {1, L"*StartChildProcess: extracta \u00FC \n"}, {2, L"count 3\n"}}));
  }
}

}  // namespace
