#include "process/ExtractaViewGenerator.h"

#include <chrono>
#include <fstream>
#include <thread>

#include "core/ExtractaParserException.h"
#include "core/Interrupt.h"
#include "core/UsableThreads.h"
#include "core/VelDebug.h"
#include "process/ExtractaCommandLine.h"
#include "views/ExtractaViewControl.h"

std::deque<ExtractaViewGenerator*> ExtractaViewGenerator::waitingGenerators;
std::deque<ExtractaViewGenerator*> ExtractaViewGenerator::runningGenerators;
uint32_t ExtractaViewGenerator::maxConcurrentExtractas =
    ExtractaViewGenerator::DefaultConcurrencyLimit();

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

// Ends what is left of a child's process tree and lets its handle go; a
// failure only leaves a trace, the run's outcome is decided elsewhere.
void EndChild(VeltProcessHandle handle) {
  if (VeltTerminateProcessTree(handle) == 0)
    VelDebug(1, L"*ExtractaViewGenerator: ending process %d failed\n", VeltProcessId(handle));
  if (!VeltCloseProcessHandle(handle))
    VelDebug(1, L"*ExtractaViewGenerator: closing the handle of process %d failed\n",
             VeltProcessId(handle));
}

// The command that starts the child through the launcher, as VeltCreateProcess
// takes it: the launcher's program, then every word quoted so that it is
// split back whole. The extractor is looked up here, as it would be for a
// child of this machine: the node runs the program found, by its full path
// on the file system every node sees. 0, or the lookup's error code (the
// program then named in argv[0]).
int LaunchedCommand(const Launcher& launcher, uint32_t slot, const AString& executable,
                    const std::vector<AString>& arguments, std::vector<AString>& argv) {
  AString program;
  const int lookup = VeltFindProgram(executable, program);
  if (lookup != 0) {
    argv = {executable};
    return lookup;
  }
  std::string line;
  for (const AString& argument : arguments) line += (line.empty() ? "" : " ") + VEL_ANSI(argument);
  std::vector<std::string> command{VEL_ANSI(program)};
  for (std::string& word : VeltSplitCommandLine(line)) command.push_back(std::move(word));
  const std::vector<std::string> words = launcher.commandOn(slot, command);
  argv = {AString(words[0])};
  for (std::size_t i = 1; i < words.size(); ++i) argv.emplace_back(VeltQuoteArgument(words[i]));
  AString launched = argv[0];
  for (std::size_t i = 1; i < argv.size(); ++i) launched = launched + AString(" ") + argv[i];
  VelDebug(1, L"*StartChildProcess: through %s: %s \n", AString(launcher.kind()).c_str(),
           launched.c_str());
  return 0;
}

// What a child that did not end well is reported with: the code it failed
// with, or kEndedByRun when the run ended it (an interrupt, a failure
// elsewhere, which left it running).
int FailedChildCode(VeltProcessHandle handle) {
  int code = kVeltStillActive;
  if (InterruptRequested() || VeltGetProcessExitCode(handle, code) == 0 || code == kVeltStillActive)
    return kEndedByRun;
  return code;
}

// The pipe reader's status: the child's output is then incomplete, which only
// its exit-code message would show.
void TraceDrain(int status, const AString& processName) {
  if (status == 0) return;
  VelDebug(1, L"*ProcessRunning: reading the output of %s failed (%s)\n", processName.c_str(),
           status == 1 ? L"the pipe could not be queried" : L"the pipe could not be read");
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
                                             const AString& name, RunObserver* observer,
                                             const Launcher* launcher)
    : viewType(viewDef.viewType),
      name(name),
      workingDir(workingDir),
      observer(observer),
      launcher(launcher) {
  // Without a pipe the child cannot start: its start reports the failure.
  if (!pipe.CreatePipe()) VelDebug(1, L"*ExtractaViewGenerator: CreatePipe failed\n");
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
    run_.label = VEL_ANSI(ViewTypeName(viewType) + this->name);
    run_.controlFile = controlFile.FilePath();
    run_.views = {ActiveView{viewType, outputFile.FilePath()}};
    arguments = buildExtractaArguments(designFile, controlFile, generatorOption, {outputFile});
    startOrQueue();
  } catch (...) {
    if (processHandle) {
      EndChild(processHandle);
      processHandle = nullptr;
    }
    pool().leave(*this);
    throw;
  }
}

ExtractaViewGenerator::~ExtractaViewGenerator() {
  if (processHandle) {
    reportEnd(FailedChildCode(processHandle));
    VelDebug(1, L"*ExtractaViewGenerator destructor: VeltTerminateProcessTree\n");
    EndChild(processHandle);
    processHandle = nullptr;
  }
  pool().leave(*this);
}

VeltProcessHandle ExtractaViewGenerator::StartChildProcess(const AString& executable,
                                                           const std::vector<AString>& arguments,
                                                           const LongFileName& workingDir,
                                                           VeltPipeHandle pipeWriteEnd,
                                                           const Launcher* launcher,
                                                           uint32_t slot) {
  // No child starts after an interrupt: the handler has ended the others.
  ThrowIfInterrupted();
  std::vector<AString> argv{executable};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  AString commandLine = executable;
  for (const AString& argument : arguments) commandLine = commandLine + AString(" ") + argument;
  VelDebug(1, L"*StartChildProcess: %s \n", commandLine.c_str());

  unsigned flags = 0;
  AString program = executable;
  int result = 0;
  if (launcher && *launcher->kind()) {
    result = LaunchedCommand(*launcher, slot, executable, arguments, argv);
    program = argv[0];
    if (launcher->endSignal() != 0) flags = VeltEndRequestFlags(launcher->endSignal());
  }

  VeltProcessHandle handle = nullptr;
  // All thirteen parameters: the process-creation service's established
  // interface has them; only the ones that matter here carry meaning.
  if (result == 0)
    result = VeltCreateProcess(AString(), argv.data(), static_cast<int>(argv.size()), handle,
                               workingDir.FilePath(), nullptr, nullptr, pipeWriteEnd, flags, false,
                               true, true, 0);
  if (result == 0) return handle;

  VelDebug(1, L"*StartChildProcess: VelCreateProcess result = %d \n", result);
  if (result == kVeltErrorNotFound)
    throw ExtractaParserException(
        AString("CreateProcess failed with error 2: Could not find application ") + program);
  const AString systemText(VeltFormatSystemMessage(result));
  AString message;
  message.Format(L"CreateProcess failed with error %d: %s", result, systemText.c_str());
  throw ExtractaParserException(message);
}

bool ExtractaViewGenerator::ProcessRunning(VeltProcessHandle handle, const AString& processName,
                                           VeltPipeHandle readEnd, AString& output) {
  if (!handle) return false;
  if (readEnd != kVeltNullPipeHandle) TraceDrain(drainPipe(readEnd, output), processName);
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
    TraceDrain(drainPipe(readEnd, output), processName);
    if (!output.empty()) message = message + AString(": ") + output;
  }
  throw ExtractaParserException(message);
}

void ExtractaViewGenerator::runAndWait(const AString& executable,
                                       const std::vector<AString>& arguments,
                                       const LongFileName& workingDir, RunObserver* observer,
                                       const Launcher* launcher, ChildRun& run) {
  CPipe pipe;
  if (!pipe.CreatePipe()) VelDebug(1, L"*runAndWait: CreatePipe failed\n");
  AString output;
  // Outside the pool, on its first slot: nothing else runs meanwhile.
  VeltProcessHandle handle =
      StartChildProcess(executable, arguments, workingDir, pipe.WriteHandle(), launcher, 0);
  run.slot = 0;
  run.node = launcher ? launcher->slotHost(0) : std::string();
  run.processId = VeltProcessId(handle);
  if (observer) observer->childStarted(run, false);
  try {
    // The same waits as the pool's children, outside the pool: the pool is
    // empty on this path, so its passes find nothing to do.
    pool().waitWhile([&] { return ProcessRunning(handle, executable, pipe.ReadHandle(), output); },
                     [&](const Pool::Queue&) {
                       if (observer) observer->waiting();
                       SleepBetweenPasses({handle}, {pipe.ReadHandle()});
                     });
  } catch (...) {
    if (observer) observer->childEnded(run, FailedChildCode(handle));
    // Whatever the child left running goes with the failure.
    EndChild(handle);
    throw;
  }
  // And with its success: nothing extracta leaves behind may outlive the run.
  EndChild(handle);
  if (observer) observer->childEnded(run, 0);
}

void ExtractaViewGenerator::runExtracta(const LongFileName& designFile,
                                        const LongFileName& controlFile, bool generatorOption,
                                        const std::vector<ActiveView>& views,
                                        const LongFileName& workingDir, RunObserver* observer,
                                        const Launcher* launcher) {
  std::vector<LongFileName> files;
  ChildRun run;
  for (const ActiveView& view : views) {
    files.emplace_back(view.path);
    run.label += (run.label.empty() ? "" : "+") + VEL_ANSI(ViewTypeName(view.viewType));
  }
  run.controlFile = controlFile.FilePath();
  run.views = views;
  runAndWait(extractaExecutableName(),
             buildExtractaArguments(designFile, controlFile, generatorOption, files), workingDir,
             observer, launcher, run);
}

void ExtractaViewGenerator::startOrQueue() {
  pool().startOrQueue(*this);
  if (processHandle) return;
  queued = true;
  if (observer) observer->childQueued();
}

void ExtractaViewGenerator::start(uint32_t slot) {
  slot_ = slot;
  processHandle = StartChildProcess(extractaExecutableName(), arguments, workingDir,
                                    pipe.WriteHandle(), launcher, slot);
  run_.slot = slot;
  run_.node = launcher ? launcher->slotHost(slot) : std::string();
  run_.processId = VeltProcessId(processHandle);
  endReported_ = false;
  if (observer) {
    observer->childStarted(run_, queued);
    observer->viewStarted(ActiveView{viewType, outputFile.FilePath()});
  }
}

void ExtractaViewGenerator::reportEnd(int exitCode) {
  if (endReported_) return;
  endReported_ = true;
  if (observer) observer->childEnded(run_, exitCode);
}

bool ExtractaViewGenerator::checkFinished() {
  bool running = false;
  try {
    running = ProcessRunning(processHandle, AString("extracta"), pipe.ReadHandle(), output);
  } catch (...) {
    if (processHandle) reportEnd(FailedChildCode(processHandle));
    throw;
  }
  if (!running && processHandle) {
    VelDebug(1, L"Extracta %s%s finished \n", ViewTypeName(viewType).c_str(), name.c_str());
    // The view is written once extracta has ended; whatever it left running
    // in its process group would otherwise outlive the run.
    EndChild(processHandle);
    processHandle = nullptr;
    reportEnd(0);
    if (observer) observer->viewFinished(ActiveView{viewType, outputFile.FilePath()});
  }
  return running;
}

ActiveView ExtractaViewGenerator::waitForViewFile(const std::function<void()>& check) {
  pool().waitWhile([this] { return pool().busy(*this); },
                   [this, &check](const Pool::Queue& running) {
                     if (observer) observer->waiting();
                     if (check) check();
                     std::vector<VeltProcessHandle> children;
                     std::vector<VeltPipeHandle> pipes;
                     for (const ExtractaViewGenerator* generator : running) {
                       children.push_back(generator->processHandle);
                       pipes.push_back(generator->pipe.ReadHandle());
                     }
                     SleepBetweenPasses(children, pipes);
                   });
  return ActiveView{viewType, outputFile.FilePath()};
}
