#include "app/CommandLine.h"

#include "core/VelAssert.h"

#define VEL_ASSERT_SOURCE "VelExtracta"

namespace {

bool IsOption(const AString& argument, const wchar_t* slashForm, const wchar_t* dashForm) {
  return argument.MatchNoCase(slashForm) || argument.MatchNoCase(dashForm);
}

void AppendList(const char* value, std::vector<AString>& list) {
  for (const AString& piece : AString(value).TokenizeString(L",", false)) list.push_back(piece);
}

}  // namespace

CommandLine ScanCommandLine(int argc, const char* const* argv) {
  CommandLine line;
  VEL_ASSERT(argc >= 3);
  if (argc < 3) return line;
  line.enoughArguments = true;

  for (int ii = 0; ii <= argc - 3; ++ii) {
    const AString argument(argv[ii]);
    if (IsOption(argument, L"/z", L"-z")) line.zip = true;
    if (IsOption(argument, L"/cell", L"-cell")) line.standardViews = false;
    if (IsOption(argument, L"/n", L"-n")) {
      VEL_ASSERT(argc > ii);
      AppendList(argv[ii + 1], line.nets);
    }
    if (IsOption(argument, L"/add", L"-add")) {
      VEL_ASSERT(argc > ii);
      AppendList(argv[ii + 1], line.adds);
    }
  }
  return line;
}
