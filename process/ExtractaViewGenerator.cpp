#include "process/ExtractaViewGenerator.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <thread>

#include "core/ExtractaParserException.h"
#include "core/Interrupt.h"
#include "core/UsableThreads.h"
#include "core/VelDebug.h"
#include "views/ExtractaViewControl.h"

std::deque<ExtractaViewGenerator*> ExtractaViewGenerator::waitingGenerators;
std::deque<ExtractaViewGenerator*> ExtractaViewGenerator::runningGenerators;
std::size_t ExtractaViewGenerator::endedChildren = 0;
std::function<void(const ExtractaViewGenerator::PoolState&)> ExtractaViewGenerator::observer;
uint32_t ExtractaViewGenerator::maxConcurrentExtractas =
    ExtractaViewGenerator::DefaultConcurrencyLimit();
std::function<void(const ActiveView&)> ExtractaViewGenerator::viewFinished;

namespace {

// Between two passes over the children: the 1 millisecond poll interval, then
// on while nothing happens, until a child ends, has printed something or an
// interrupt arrives. Waking every millisecond through a long extraction would
// cost a few percent of a core for nothing; a child that prints a lot still
// gets its pipe drained every millisecond. The cap only bounds how late
// anything the watch could miss is noticed.
constexpr int kQuietPassMilliseconds = 100;

void SleepBetweenPasses(const std::vector<VeltProcessHandle>& children,
                        const std::vector<VeltPipeHandle>& pipes) {
  std::this_thread::sleep_for(std::chrono::milliseconds(1));
  VeltWaitForChildActivity(children, pipes, kQuietPassMilliseconds);
}

void RemoveAll(std::deque<ExtractaViewGenerator*>& queue, ExtractaViewGenerator* generator) {
  queue.erase(std::remove(queue.begin(), queue.end(), generator), queue.end());
}

bool Contains(const std::deque<ExtractaViewGenerator*>& queue,
              const ExtractaViewGenerator* generator) {
  return std::find(queue.begin(), queue.end(), generator) != queue.end();
}

bool IsNameCharacter(wchar_t c) {
  return (c >= L'a' && c <= L'z') || (c >= L'A' && c <= L'Z') || (c >= L'0' && c <= L'9') ||
         c == L'-' || c == L'_';
}

// The name goes into file names: anything but letters, digits, "-" and "_"
// becomes "_", one for one.
AString SanitisedName(const AString& name) {
  std::wstring text = name.wstr();
  for (wchar_t& c : text)
    if (!IsNameCharacter(c)) c = L'_';
  return AString(std::move(text));
}

}  // namespace

uint32_t ExtractaViewGenerator::ConcurrencyLimitFor(unsigned hardwareThreads) {
  const uint32_t half = hardwareThreads / 2;
  return half == 0 ? 1 : half;
}

uint32_t ExtractaViewGenerator::DefaultConcurrencyLimit() {
  return ConcurrencyLimitFor(VeltUsableThreads());
}

ExtractaViewGenerator::ExtractaViewGenerator(const LongFileName& designFile,
                                             const ExtractaViewDef& viewDef,
                                             const LongFileName& workingDir, bool generatorOption,
                                             const AString& name)
    : viewType(viewDef.viewType), name(name), workingDir(workingDir) {
  pipe.CreatePipe();
  try {
    this->name = SanitisedName(this->name);
    const AString directory = workingDir.FilePath();
    const LongFileName controlFile(directory + AString("extracta_control_") +
                                   ViewTypeName(viewType) + this->name + AString(".txt"));
    {
      // Binary: the writer ends each line with CR LF itself, which a text
      // stream on Windows would turn into CR CR LF.
      std::ofstream control(VEL_ANSI(controlFile.FilePath()),
                            std::ios::out | std::ios::trunc | std::ios::binary);
      WriteViewBlock(viewDef, control);
      // A full disk may show only when the stream writes its buffer out.
      control.flush();
      if (control.eof() || control.fail() || control.bad())
        throw ExtractaParserException(AString("ExtractaViewGenerator failed to write file ") +
                                      directory);
    }
    outputFile = LongFileName(directory + MakeViewFileName(viewType, this->name));
    arguments = buildExtractaArguments(designFile, controlFile, generatorOption, {outputFile});
    startOrQueue();
  } catch (...) {
    if (processHandle) {
      VeltTerminateProcessTree(processHandle);
      VeltCloseProcessHandle(processHandle);
      processHandle = nullptr;
    }
    leaveQueues();
    throw;
  }
}

ExtractaViewGenerator::~ExtractaViewGenerator() {
  if (processHandle) {
    VelDebug(1, L"*ExtractaViewGenerator destructor: VeltTerminateProcessTree\n");
    VeltTerminateProcessTree(processHandle);
    VeltCloseProcessHandle(processHandle);
    processHandle = nullptr;
  }
  leaveQueues();
}

void ExtractaViewGenerator::leaveQueues() {
  RemoveAll(waitingGenerators, this);
  RemoveAll(runningGenerators, this);
}

AString ExtractaViewGenerator::extractaExecutableName() {
  AString executable("extracta.exe");
  if (const char* override = std::getenv("VELTAR_EXTRACTA_PATHOVERRIDE"))
    executable = AString(override);
  VelDebug(2, L"*ExtractaViewGenerator: extractaname %s\n", executable.c_str());
  return executable;
}

AString ExtractaViewGenerator::quotedPath(const LongFileName& file) {
  // The child splits its command line by the Windows runtime's rules, which
  // read \" as a literal quote and halve the backslashes before a quote. A
  // Windows path holds no quote, but a POSIX one may, and a path ending in a
  // backslash would swallow its closing quote: both are escaped, so the child
  // gets every path back as it is. Any other path is only wrapped in quotes.
  std::wstring quoted = L"\"";
  std::size_t backslashes = 0;
  for (const wchar_t c : file.FilePath().wstr()) {
    if (c == L'\\') {
      ++backslashes;
      continue;
    }
    quoted.append(c == L'"' ? 2 * backslashes + 1 : backslashes, L'\\');
    quoted += c;
    backslashes = 0;
  }
  quoted.append(2 * backslashes, L'\\');
  quoted += L'"';
  return AString(std::move(quoted));
}

std::vector<AString> ExtractaViewGenerator::buildExtractaArguments(
    const LongFileName& first, const LongFileName& second, bool generatorOption,
    const std::vector<LongFileName>& files) {
  std::vector<AString> list{AString("-k")};
  if (generatorOption) list.emplace_back("-c");
  list.emplace_back("-m");
  list.push_back(quotedPath(first));
  list.push_back(quotedPath(second));
  for (const LongFileName& file : files) list.push_back(quotedPath(file));
  return list;
}

VeltProcessHandle ExtractaViewGenerator::StartChildProcess(const AString& executable,
                                                           const std::vector<AString>& arguments,
                                                           const LongFileName& workingDir,
                                                           VeltPipeHandle pipeWriteEnd) {
  // No child starts after an interrupt: the handler has ended the others.
  ThrowIfInterrupted();
  std::vector<AString> argv{executable};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  AString commandLine = executable;
  for (const AString& argument : arguments) commandLine = commandLine + AString(" ") + argument;
  VelDebug(1, L"*StartChildProcess: %s \n", commandLine.c_str());

  VeltProcessHandle handle = nullptr;
  const int result = VeltCreateProcess(AString(), argv.data(), static_cast<int>(argv.size()),
                                       handle, workingDir.FilePath(), nullptr, nullptr,
                                       pipeWriteEnd, 0, false, true, true, 0);
  if (result == 0) return handle;

  VelDebug(1, L"*StartChildProcess: VelCreateProcess result = %d \n", result);
  if (result == kVeltErrorNotFound)
    throw ExtractaParserException(
        AString("CreateProcess failed with error 2: Could not find application ") + executable);
  const AString systemText(VeltFormatSystemMessage(result));
  AString message;
  message.Format(L"CreateProcess failed with error %d: %s", result, systemText.c_str());
  throw ExtractaParserException(message);
}

bool ExtractaViewGenerator::ProcessRunning(VeltProcessHandle handle, const AString& processName,
                                           VeltPipeHandle readEnd, AString& output) {
  if (!handle) return false;
  if (readEnd != kVeltNullPipeHandle) drainPipe(readEnd, output);
  int code = 0;
  if (VeltGetProcessExitCode(handle, code) == 0) {
    AString message;
    message.Format(
        L"ExtractaViewGenerator ProcessRunning check failed, VeltGetProcessExitCode returned zero "
        L"for %s process",
        processName.c_str());
    throw ExtractaParserException(message);
  }
  if (code == kVeltStillActive) return true;
  if (code == 0) return false;

  // A child the interrupt handler killed failed because of the interrupt.
  ThrowIfInterrupted();
  AString message;
  message.Format(L"%s exited with non-zero exit code %d", processName.c_str(), code);
  if (readEnd != kVeltNullPipeHandle) {
    drainPipe(readEnd, output);
    if (!output.empty()) message = message + AString(": ") + output;
  }
  throw ExtractaParserException(message);
}

void ExtractaViewGenerator::runAndWait(const AString& executable,
                                       const std::vector<AString>& arguments,
                                       const LongFileName& workingDir) {
  CPipe pipe;
  pipe.CreatePipe();
  AString output;
  VeltProcessHandle handle =
      StartChildProcess(executable, arguments, workingDir, pipe.WriteHandle());
  try {
    while (ProcessRunning(handle, executable, pipe.ReadHandle(), output)) {
      ThrowIfInterrupted();
      tellObserver(1);
      SleepBetweenPasses({handle}, {pipe.ReadHandle()});
    }
  } catch (...) {
    // Whatever the child left running goes with the failure.
    VeltTerminateProcessTree(handle);
    VeltCloseProcessHandle(handle);
    throw;
  }
  // And with its success: nothing extracta leaves behind may outlive the run.
  VeltTerminateProcessTree(handle);
  VeltCloseProcessHandle(handle);
  ++endedChildren;
  tellObserver(0);
}

void ExtractaViewGenerator::runExtracta(const LongFileName& designFile,
                                        const LongFileName& controlFile, bool generatorOption,
                                        const std::vector<ActiveView>& views,
                                        const LongFileName& workingDir) {
  std::vector<LongFileName> files;
  for (const ActiveView& view : views) files.emplace_back(view.path);
  runAndWait(extractaExecutableName(),
             buildExtractaArguments(designFile, controlFile, generatorOption, files), workingDir);
}

void ExtractaViewGenerator::startOrQueue() {
  if (runningGenerators.size() < maxConcurrentExtractas) {
    RemoveAll(waitingGenerators, this);
    processHandle =
        StartChildProcess(extractaExecutableName(), arguments, workingDir, pipe.WriteHandle());
    runningGenerators.push_back(this);
  } else {
    waitingGenerators.push_back(this);
  }
}

bool ExtractaViewGenerator::checkFinished() {
  const bool running =
      ProcessRunning(processHandle, AString("extracta"), pipe.ReadHandle(), output);
  if (!running && processHandle) {
    VelDebug(1, L"Extracta %s%s finished \n", ViewTypeName(viewType).c_str(), name.c_str());
    // The view is written once extracta has ended; whatever it left running
    // in its process group would otherwise outlive the run.
    VeltTerminateProcessTree(processHandle);
    VeltCloseProcessHandle(processHandle);
    processHandle = nullptr;
    RemoveAll(runningGenerators, this);
    ++endedChildren;
    if (viewFinished) viewFinished(ActiveView{viewType, outputFile.FilePath()});
  }
  return running;
}

void ExtractaViewGenerator::pollProcesses() {
  // Reaping changes the queue; walk a copy.
  const std::deque<ExtractaViewGenerator*> running = runningGenerators;
  for (ExtractaViewGenerator* generator : running) generator->checkFinished();
  while (!waitingGenerators.empty() && runningGenerators.size() < maxConcurrentExtractas)
    waitingGenerators.front()->startOrQueue();
}

void ExtractaViewGenerator::tellObserver(std::size_t runningOutsidePool) {
  if (!observer) return;
  PoolState state = poolState();
  state.running += runningOutsidePool;
  observer(state);
}

ActiveView ExtractaViewGenerator::waitForViewFile() {
  for (;;) {
    ThrowIfInterrupted();
    if (!Contains(waitingGenerators, this) && !checkFinished()) break;
    pollProcesses();
    tellObserver(0);
    std::vector<VeltProcessHandle> children;
    std::vector<VeltPipeHandle> pipes;
    for (const ExtractaViewGenerator* generator : runningGenerators) {
      children.push_back(generator->processHandle);
      pipes.push_back(generator->pipe.ReadHandle());
    }
    SleepBetweenPasses(children, pipes);
  }
  tellObserver(0);
  return ActiveView{viewType, outputFile.FilePath()};
}
