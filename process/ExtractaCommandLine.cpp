#include "process/ExtractaCommandLine.h"

#include <cstdlib>
#include <string>

#include "core/Process.h"
#include "core/VelDebug.h"

AString extractaExecutableName() {
  AString executable("extracta.exe");
  if (const char* override = std::getenv("VELTAR_EXTRACTA_PATHOVERRIDE"))
    executable = AString(override);
  VelDebug(2, L"*ExtractaViewGenerator: extractaname %s\n", executable.c_str());
  return executable;
}

AString quotedPath(const LongFileName& file) {
  // The child splits its command line by the Windows runtime's rules, which
  // read \" as a literal quote and halve the backslashes before a quote. A
  // Windows path holds no quote, but a POSIX one may, and a path ending in a
  // backslash would swallow its closing quote: both are escaped, so the child
  // gets every path back as it is. Any other path is only wrapped in quotes.
  return AString(VeltQuoteArgument(VEL_ANSI(file.FilePath()), true));
}

std::vector<AString> buildExtractaArguments(const LongFileName& first, const LongFileName& second,
                                            bool generatorOption,
                                            const std::vector<LongFileName>& files) {
  std::vector<AString> list{AString("-k")};
  if (generatorOption) list.emplace_back("-c");
  list.emplace_back("-m");
  list.push_back(quotedPath(first));
  list.push_back(quotedPath(second));
  for (const LongFileName& file : files) list.push_back(quotedPath(file));
  return list;
}
