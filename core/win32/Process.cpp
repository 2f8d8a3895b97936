#include "core/Process.h"

#include <windows.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <vector>

#include "core/SystemCalls.h"
#include "core/win32/ChildJobs.h"

const int kVeltErrorNotFound = ERROR_FILE_NOT_FOUND;
const int kVeltErrorBadDirectory = ERROR_DIRECTORY;
const int kVeltErrorInvalidArgument = ERROR_INVALID_PARAMETER;
const bool kVeltChildrenAskedToEnd = false;

namespace {

// The exit code of a child ended from here.
constexpr UINT kTerminatedExitCode = 1;
// How long ending a child may take before it is asked again, and then given up.
constexpr DWORD kEndWaitMilliseconds = 5000;

struct ChildProcess {
  HANDLE process = nullptr;
  HANDLE job = nullptr;  // the child's tree; null where the system refused one
  DWORD pid = 0;
  bool ended = false;
  int exitCode = kVeltStillActive;

  ~ChildProcess() {
    if (job) {
      velt_win32::ReleaseChildJob(job);
      // What the child left running outlives the handle, as it outlives the
      // child: only an ended tree or a program that dies takes it along.
      JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits = {};
      SetInformationJobObject(job, JobObjectExtendedLimitInformation, &limits, sizeof limits);
      CloseHandle(job);
    }
    if (process) CloseHandle(process);
  }
};

ChildProcess* Child(VeltProcessHandle handle) { return static_cast<ChildProcess*>(handle); }

std::wstring Wide(const AString& text) { return text.wstr(); }

// A job that ends every process in it when its last handle closes, so a
// VelExtracta that is killed outright takes its child trees along.
HANDLE CreateTreeJob() {
  HANDLE job = CreateJobObjectW(nullptr, nullptr);
  if (!job) return nullptr;
  JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits = {};
  limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
  if (!SetInformationJobObject(job, JobObjectExtendedLimitInformation, &limits, sizeof limits)) {
    CloseHandle(job);
    return nullptr;
  }
  return job;
}

// Reads the end of an ended process.
void RecordEnd(ChildProcess& child) {
  DWORD code = kTerminatedExitCode;
  GetExitCodeProcess(child.process, &code);
  child.ended = true;
  child.exitCode = static_cast<int>(code);
}

bool HasEnded(ChildProcess& child) {
  if (!child.ended && WaitForSingleObject(child.process, 0) == WAIT_OBJECT_0) RecordEnd(child);
  return child.ended;
}

// An inheritable copy of a handle, for one child's standard streams.
HANDLE InheritableCopy(HANDLE handle) {
  HANDLE copy = nullptr;
  if (handle == nullptr || handle == INVALID_HANDLE_VALUE ||
      !DuplicateHandle(GetCurrentProcess(), handle, GetCurrentProcess(), &copy, 0, TRUE,
                       DUPLICATE_SAME_ACCESS))
    return nullptr;
  return copy;
}

HANDLE OpenInheritable(const std::wstring& path, DWORD access) {
  SECURITY_ATTRIBUTES attributes = {sizeof attributes, nullptr, TRUE};
  HANDLE file = CreateFileW(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE, &attributes,
                            OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  return file == INVALID_HANDLE_VALUE ? nullptr : file;
}

// The three standard streams of one child, closed once it has started.
struct ChildStreams {
  HANDLE input = nullptr, output = nullptr, error = nullptr;
  ~ChildStreams() {
    for (HANDLE handle : {input, output, error})
      if (handle) CloseHandle(handle);
  }
};

// The program name as given; wrapped in quotes when it holds a blank, so that
// the system and the child's runtime read all of it as the program.
std::wstring CommandLine(const AString* argv, int argc) {
  std::wstring program = Wide(argv[0]);
  if (program.find_first_of(L" \t") != std::wstring::npos && program.front() != L'"')
    program = L"\"" + program + L"\"";
  std::wstring line = program;
  for (int i = 1; i < argc; ++i) line += L" " + Wide(argv[i]);
  return line;
}

std::wstring EnvironmentBlock(const char* const* environment) {
  std::wstring block;
  for (const char* const* entry = environment; *entry; ++entry) {
    block += Wide(AString(*entry));
    block += L'\0';
  }
  block += L'\0';
  return block;
}

}  // namespace

int velt_system::StartProcess(const AString& applicationName, const AString* argv, int argc,
                              VeltProcessHandle& processHandle, const AString& workingDirectory,
                              const char* const* environment, const char* inputPath,
                              VeltPipeHandle outputHandle, bool inheritHandles, bool errorToOutput,
                              bool newProcessGroup, int /*endSignal: never asked for here*/,
                              int* processId) {
  // Checked here, so that a bad working directory is not mistaken for a
  // missing program.
  const std::wstring directory = Wide(workingDirectory);
  if (!directory.empty()) {
    const DWORD attributes = GetFileAttributesW(directory.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES || !(attributes & FILE_ATTRIBUTE_DIRECTORY))
      return kVeltErrorBadDirectory;
  }

  ChildStreams streams;
  streams.input =
      OpenInheritable(inputPath ? Wide(AString(inputPath)) : std::wstring(L"NUL"), GENERIC_READ);
  if (!streams.input) return static_cast<int>(GetLastError());
  streams.output =
      InheritableCopy(outputHandle != kVeltNullPipeHandle ? reinterpret_cast<HANDLE>(outputHandle)
                                                          : GetStdHandle(STD_OUTPUT_HANDLE));
  streams.error = errorToOutput ? InheritableCopy(streams.output)
                                : InheritableCopy(GetStdHandle(STD_ERROR_HANDLE));
  // A stream this program does not have itself goes nowhere in the child.
  for (HANDLE* stream : {&streams.output, &streams.error})
    if (!*stream) *stream = OpenInheritable(L"NUL", GENERIC_WRITE);

  // The child is born in its tree's job: a VelExtracta killed at any moment,
  // even while the child is being created, takes it along.
  HANDLE job = CreateTreeJob();
  struct JobRelease {
    HANDLE& job;
    ~JobRelease() {
      if (job) CloseHandle(job);
    }
  } jobRelease{job};

  // Only the three streams are inherited, whatever else is inheritable.
  HANDLE inherited[] = {streams.input, streams.output, streams.error};
  SIZE_T attributeSize = 0;
  InitializeProcThreadAttributeList(nullptr, 2, 0, &attributeSize);
  std::vector<char> attributeStorage(attributeSize);
  auto* attributeList = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(attributeStorage.data());
  if (!InitializeProcThreadAttributeList(attributeList, 2, 0, &attributeSize))
    return static_cast<int>(GetLastError());
  struct ListRelease {
    LPPROC_THREAD_ATTRIBUTE_LIST list;
    ~ListRelease() { DeleteProcThreadAttributeList(list); }
  } release{attributeList};
  if (!inheritHandles) {
    std::size_t count = 0;
    for (HANDLE handle : inherited)
      if (handle && std::find(inherited, inherited + count, handle) == inherited + count)
        inherited[count++] = handle;
    if (!UpdateProcThreadAttribute(attributeList, 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, inherited,
                                   count * sizeof(HANDLE), nullptr, nullptr))
      return static_cast<int>(GetLastError());
  }
  if (job && !UpdateProcThreadAttribute(attributeList, 0, PROC_THREAD_ATTRIBUTE_JOB_LIST, &job,
                                        sizeof job, nullptr, nullptr))
    return static_cast<int>(GetLastError());

  STARTUPINFOEXW startup = {};
  startup.StartupInfo.cb = sizeof startup;
  startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
  startup.StartupInfo.hStdInput = streams.input;
  startup.StartupInfo.hStdOutput = streams.output;
  startup.StartupInfo.hStdError = streams.error;
  startup.lpAttributeList = attributeList;

  // Suspended until its job is registered, so an interrupt cannot miss it.
  DWORD flags = CREATE_UNICODE_ENVIRONMENT | CREATE_SUSPENDED | EXTENDED_STARTUPINFO_PRESENT;
  if (newProcessGroup) flags |= CREATE_NEW_PROCESS_GROUP;
  const std::wstring application = Wide(applicationName);
  std::wstring commandLine = CommandLine(argv, argc);
  const std::wstring environmentBlock = environment ? EnvironmentBlock(environment) : L"";
  PROCESS_INFORMATION started = {};
  if (!CreateProcessW(
          application.empty() ? nullptr : application.c_str(), &commandLine[0], nullptr, nullptr,
          TRUE, flags, environment ? const_cast<wchar_t*>(environmentBlock.c_str()) : nullptr,
          directory.empty() ? nullptr : directory.c_str(), &startup.StartupInfo, &started))
    return static_cast<int>(GetLastError());

  auto* child = new ChildProcess;
  child->process = started.hProcess;
  child->pid = started.dwProcessId;
  std::swap(child->job, job);
  if (child->job) velt_win32::RegisterChildJob(child->job);
  ResumeThread(started.hThread);
  CloseHandle(started.hThread);

  processHandle = child;
  if (processId) *processId = static_cast<int>(started.dwProcessId);
  return 0;
}

int VeltGetProcessExitCode(VeltProcessHandle handle, int& exitCode) {
  ChildProcess* child = Child(handle);
  if (!child) return 0;
  // Asked of the process itself: a child may exit with 259 too.
  exitCode = HasEnded(*child) ? child->exitCode : kVeltStillActive;
  return 1;
}

int VeltTerminateProcessTree(VeltProcessHandle handle) {
  ChildProcess* child = Child(handle);
  if (!child) return 0;
  if (child->job)
    TerminateJobObject(child->job, kTerminatedExitCode);
  else if (!HasEnded(*child))
    TerminateProcess(child->process, kTerminatedExitCode);
  // A process still being started may miss the job's end (seen under wine):
  // it is asked directly too, and no wait here is without limit, so a child
  // that will not end cannot hang the run.
  if (WaitForSingleObject(child->process, kEndWaitMilliseconds) == WAIT_TIMEOUT) {
    TerminateProcess(child->process, kTerminatedExitCode);
    WaitForSingleObject(child->process, kEndWaitMilliseconds);
  }
  if (!child->ended) RecordEnd(*child);
  if (child->job) {
    // Ending a job is asynchronous: wait until its processes are gone.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    JOBOBJECT_BASIC_ACCOUNTING_INFORMATION accounting = {};
    while (QueryInformationJobObject(child->job, JobObjectBasicAccountingInformation, &accounting,
                                     sizeof accounting, nullptr) &&
           accounting.ActiveProcesses > 0 && std::chrono::steady_clock::now() < deadline)
      Sleep(1);
  }
  return 1;
}

bool VeltCloseProcessHandle(VeltProcessHandle handle) {
  ChildProcess* child = Child(handle);
  if (!child || !HasEnded(*child)) return false;
  delete child;
  return true;
}

int VeltProcessId(VeltProcessHandle handle) {
  const ChildProcess* child = Child(handle);
  return child ? static_cast<int>(child->pid) : 0;
}

void VeltWaitForChildActivity(const std::vector<VeltProcessHandle>& children,
                              const std::vector<VeltPipeHandle>& pipes, int timeoutMilliseconds) {
  std::vector<HANDLE> watched;
  if (HANDLE wake = velt_win32::InterruptWakeEvent()) watched.push_back(wake);
  for (VeltProcessHandle handle : children) {
    ChildProcess* child = Child(handle);
    if (!child || child->ended) continue;
    if (watched.size() < MAXIMUM_WAIT_OBJECTS)
      watched.push_back(child->process);
    else
      timeoutMilliseconds = std::min(timeoutMilliseconds, 1);
  }
  // An anonymous pipe cannot be waited for: it is looked at between short
  // waits on the children.
  const auto dataWaiting = [&pipes] {
    for (VeltPipeHandle pipe : pipes) {
      DWORD waiting = 0;
      if (pipe != kVeltNullPipeHandle &&
          PeekNamedPipe(reinterpret_cast<HANDLE>(pipe), nullptr, 0, nullptr, &waiting, nullptr) &&
          waiting > 0)
        return true;
    }
    return false;
  };
  constexpr int kPipeLookMilliseconds = 2;
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMilliseconds);
  for (;;) {
    if (dataWaiting()) return;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                          deadline - std::chrono::steady_clock::now())
                          .count();
    if (left <= 0) return;
    const DWORD slice =
        static_cast<DWORD>(pipes.empty() ? left : std::min<long long>(left, kPipeLookMilliseconds));
    if (watched.empty()) {
      Sleep(slice);
      continue;
    }
    if (WaitForMultipleObjects(static_cast<DWORD>(watched.size()), watched.data(), FALSE, slice) !=
        WAIT_TIMEOUT)
      return;
  }
}

int VeltFindProgram(const AString& name, AString& path) {
  // As CreateProcessW looks for a program given without its application
  // name: ".exe" added to a name without an extension, the usual folders
  // and PATH searched.
  const std::wstring wide = Wide(name);
  if (wide.empty()) return kVeltErrorNotFound;
  std::vector<wchar_t> found(MAX_PATH);
  for (;;) {
    const DWORD length = SearchPathW(nullptr, wide.c_str(), L".exe",
                                     static_cast<DWORD>(found.size()), found.data(), nullptr);
    if (length == 0) return static_cast<int>(GetLastError());
    if (length < found.size()) {
      const DWORD attributes = GetFileAttributesW(found.data());
      if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY))
        return kVeltErrorNotFound;
      path = AString(std::wstring(found.data(), length));
      return 0;
    }
    found.resize(length + 1);
  }
}

std::string velt_system::ErrorText(int errorCode) {
  constexpr DWORD kFlags =
      FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_ALLOCATE_BUFFER;
  char* text = nullptr;
  std::string message;
  if (FormatMessageA(kFlags, nullptr, static_cast<DWORD>(errorCode),
                     MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), reinterpret_cast<char*>(&text), 0,
                     nullptr) != 0 &&
      text)
    message = text;
  if (text) LocalFree(text);
  return message;
}
