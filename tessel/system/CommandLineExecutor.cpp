// The watcher thread destroys its own CmdLineData, and with it the CActiveObject it runs on:
// its stop does not wait for the thread itself, and the thread object is detached when it goes,
// so the thread returns on its own afterwards without touching either.
#include "tessel/system/CommandLineExecutor.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <new>
#include <vector>

#include "tessel/base/ReadWriteLock.h"
#include "tessel/host/StringFormat.h"
#include "tessel/host/TempDirectory.h"
#include "tessel/host/Util.h"
#include "tessel/logging/ILogging.h"
#include "tessel/logging/TraceUtil.h"
#include "tessel/platform/DebugOutput.h"
#include "tessel/platform/ErrorText.h"
#include "tessel/platform/File.h"
#include "tessel/platform/Handle.h"
#include "tessel/platform/InvalidParameter.h"
#include "tessel/platform/LastError.h"
#include "tessel/platform/Process.h"
#include "tessel/platform/Resources.h"
#include "tessel/threads/ActiveObject.h"

using namespace Tessel::Platform;

namespace {

constexpr unsigned int kSyntaxErrorText = 6000;
constexpr unsigned int kNotRunText = 6001;
constexpr unsigned int kTimedOutText = 6002;
constexpr unsigned int kShutdownText = 6003;

constexpr unsigned long kMinimumTimeoutMs = 10000;
constexpr unsigned long kMaximumTimeoutMs = 7200000;
constexpr DWORD kAbortWaitMs = 8000;
// The longest piece of a split product path: its buffer holds 256 characters.
constexpr std::size_t kPieceLimit = 255;
// The stop time of a watcher's active object: a watcher's own stop never waits, so it is
// only granted to a thread that another thread stops.
constexpr unsigned int kWorkerStopTimeoutMs = 5000;

std::string resourceText(unsigned int id) {
    return Tessel::LoadStringA(LibraryModule(), id);
}

bool containsBatchFile(const std::string& command) {
    return command.find(CCommandLineExecutor::s_szBatchFileName) != std::string::npos;
}

// Deletes the batch file that command names, its quotes removed.
void deleteBatchFile(std::string command) {
    command.erase(std::remove(command.begin(), command.end(), '"'), command.end());
    DeleteFileA(command.c_str());
}

bool isSeparator(char c) {
    return c == '/' || c == '\\';
}

std::string withSlashes(std::string text) {
    std::replace(text.begin(), text.end(), '\\', '/');
    return text;
}

void trim(std::string& text) {
    const char* const blanks = " \t\r\n\v\f";
    const std::size_t first = text.find_first_not_of(blanks);
    if (first == std::string::npos) {
        text.clear();
        return;
    }
    text.erase(text.find_last_not_of(blanks) + 1);
    text.erase(0, first);
}

}  // namespace

const char* const CCommandLineExecutor::s_szBatchFileName = "CmdLineWrapper.bat";
CCriticalSectionSyncGuard& CCommandLineExecutor::s_GuardSetCmdLineData =
    *new CCriticalSectionSyncGuard;
std::set<CmdLineData*>& CCommandLineExecutor::s_SetCmdLineData = *new std::set<CmdLineData*>;
Tessel::CEvent& CCommandLineExecutor::s_ProcessTerminatorSetEmpty = *new Tessel::CEvent(1, 1);

// --- CmdLineData ---

CmdLineData::CmdLineData(unsigned long const& timeoutMs, ICommandLineExecutorNotify* notify,
                         ICommandLineExecutorNotifyParam* param, std::string const& command)
    : m_pWorkerThread(std::make_unique<CActiveObject>(
          "TerminateThread", &CCommandLineExecutor::ProcessTerminatorThread, this,
          kWorkerStopTimeoutMs)),
      m_hAbortEvent(1, 0),
      m_ulTimeout(timeoutMs),
      m_pNotify(notify),
      m_pNotifyParam(param),
      m_strCommand(command) {}

CmdLineData::~CmdLineData() {
    if (m_pNotify != nullptr) {
        m_pNotify->OnCommandLineExecuted(m_lStatus, m_strCommand, m_strMessage, m_lExitCode,
                                         m_pNotifyParam);
    }
    if (m_processInformation.hThread != nullptr) {
        CloseHandle(m_processInformation.hThread);
    }
    if (m_processInformation.hProcess != nullptr) {
        CloseHandle(m_processInformation.hProcess);
    }
    if (m_pNotifyParam != nullptr) {
        m_pNotifyParam->Release();
    }
}

// --- CCommandLineExecutor ---

CCommandLineExecutor::CCommandLineExecutor(std::string const& product,
                                           ICommandLineExecutorNotify* notify)
    : m_strProduct(product), m_pNotify(notify) {}

CCommandLineExecutor::CCommandLineExecutor(const CCommandLineExecutor& other)
    : m_mapVariableArguments(other.m_mapVariableArguments),
      m_strProduct(other.m_strProduct),
      m_pNotify(other.m_pNotify) {}

CCommandLineExecutor& CCommandLineExecutor::operator=(const CCommandLineExecutor& other) {
    if (this != &other) {
        m_mapVariableArguments = other.m_mapVariableArguments;
        m_strProduct = other.m_strProduct;
        m_pNotify = other.m_pNotify;
    }
    return *this;
}

CCommandLineExecutor::~CCommandLineExecutor() = default;

void CCommandLineExecutor::AddVariableArgument(std::string const& name, std::string const& value) {
    if (name.empty() || value.empty()) {
        return;
    }
    m_mapVariableArguments[name] = value;
}

void CCommandLineExecutor::Init() {
    const std::string& path = m_strProduct;
    std::string drive;
    std::size_t start = 0;
    if (path.size() >= 2 && std::isalpha(static_cast<unsigned char>(path[0])) && path[1] == ':') {
        drive = path.substr(0, 2);
        start = 2;
    }
    std::size_t nameStart = start;
    for (std::size_t i = start; i < path.size(); ++i) {
        if (isSeparator(path[i])) {
            nameStart = i + 1;
        }
    }
    std::string directory = withSlashes(path.substr(start, nameStart - start));
    std::string name = path.substr(nameStart);
    std::string extension;
    const std::size_t dot = name.rfind('.');
    if (dot != std::string::npos) {
        extension = name.substr(dot);
        name.erase(dot);
    }
    if (directory.size() > kPieceLimit || name.size() > kPieceLimit ||
        extension.size() > kPieceLimit) {
        InvokeInvalidParameter("product path piece longer than 255 characters",
                               "CCommandLineExecutor::Init", __FILE__, __LINE__);
        drive.clear();
        directory.clear();
        name.clear();
        extension.clear();
    }
    m_mapVariableArguments["product"] = drive + directory + name + extension;
    m_mapVariableArguments["productpath"] = drive + directory;
    m_mapVariableArguments["productname"] = name;
    m_mapVariableArguments["productext"] = extension;
}

int CCommandLineExecutor::CreateCommand(CmdLineData* data) {
    std::string& command = data->m_strCommand;
    trim(command);

    const std::size_t programEnd =
        command.empty() ? std::string::npos
                        : (command[0] == '"' ? command.find('"', 1) : command.find(' '));
    if (programEnd == std::string::npos) {
        return command.empty() ? 0 : 1;
    }
    if (command.find('$', programEnd) == std::string::npos) {
        return 1;
    }

    Init();
    const std::size_t dollars =
        static_cast<std::size_t>(std::count(command.begin(), command.end(), '$'));
    std::string output;
    output.reserve(command.size() + dollars * m_strProduct.size());
    output.assign(command, 0, programEnd + 1);

    enum class State { Normal, AfterDollar, InName };
    State state = State::Normal;
    std::size_t nameStart = 0;
    std::size_t errorAt = std::string::npos;
    std::size_t i = programEnd + 1;
    for (; i < command.size() && errorAt == std::string::npos; ++i) {
        const char c = command[i];
        if (c == '$') {
            if (state != State::Normal) {
                errorAt = i;
            }
            state = State::AfterDollar;
        } else if (c == '(') {
            if (state != State::AfterDollar) {
                errorAt = i;
            }
            state = State::InName;
            nameStart = i + 1;
        } else if (c == ')') {
            if (state != State::InName) {
                errorAt = i;
                continue;
            }
            std::string name = command.substr(nameStart, i - nameStart);
            for (char& n : name) {
                n = static_cast<char>(std::tolower(static_cast<unsigned char>(n)));
            }
            const auto variable = m_mapVariableArguments.find(name);
            if (variable == m_mapVariableArguments.end()) {
                errorAt = i;
                continue;
            }
            output += variable->second;
            state = State::Normal;
        } else if (state == State::Normal) {
            output += c;
        } else if (state == State::AfterDollar) {
            errorAt = i;
        }
    }
    if (errorAt == std::string::npos && state != State::Normal) {
        errorAt = command.size();  // the text ended inside a variable
    }

    if (errorAt == std::string::npos && !m_strProduct.empty()) {
        command = std::move(output);
        return 1;
    }
    if (errorAt == std::string::npos) {
        data->m_strMessage = resourceText(kNotRunText);
        data->m_lStatus = CmdStatusNotRun;
    } else {
        data->m_strMessage =
            Tessel::Format(resourceText(kSyntaxErrorText).c_str(), static_cast<int>(errorAt));
        data->m_lExitCode = static_cast<int>(errorAt);
        data->m_lStatus = CmdStatusError;
    }
    command.clear();
    return 0;
}

int CCommandLineExecutor::Execute(std::string const& command, unsigned long timeoutMs,
                                  ICommandLineExecutorNotifyParam* param) {
    CmdLineData* data = nullptr;
    try {
        data = new CmdLineData(timeoutMs, m_pNotify, param, command);
    } catch (...) {
        return 0;
    }
    if (command.empty()) {
        data->m_lStatus = CmdStatusError;
        data->m_lExitCode = 0;
        data->m_strMessage = Tessel::Format(resourceText(kSyntaxErrorText).c_str(), 0);
        delete data;
        return 0;
    }
    if (CreateCommand(data) == 0) {
        delete data;
        return 0;
    }

    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESHOWWINDOW;
    startup.wShowWindow = SW_SHOW;
    std::vector<char> commandLine(data->m_strCommand.begin(), data->m_strCommand.end());
    commandLine.push_back('\0');
    // A group of its own, so that a time-out or an abort kills what the command started too.
    const BOOL created = CreateProcessA(nullptr, commandLine.data(), nullptr, nullptr, FALSE,
                                        CREATE_NEW_PROCESS_GROUP, nullptr, nullptr, &startup,
                                        &data->m_processInformation);
    if (created == FALSE) {
        char text[256] = {};
        FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                       GetLastError(), 0, text, sizeof text, nullptr);
        CUtil::CleanUnprintableString(text, sizeof text);
        data->m_strMessage = text;
        data->m_lStatus = CmdStatusError;
    }

    bool watched = false;
    if (created != FALSE && m_pNotify != nullptr) {
        // In the set before the thread runs: a short command's watcher may end before the
        // start returns, and then finds itself there to remove.
        {
            CReadWriteLock lock(s_GuardSetCmdLineData, false, true);
            s_SetCmdLineData.insert(data);
        }
        try {
            watched = data->m_pWorkerThread->StartThread(
                          __FILE__, __LINE__, "CCommandLineExecutor::Execute", 0, nullptr, 0) != 0;
        } catch (...) {
            watched = false;
        }
        if (!watched) {
            CReadWriteLock lock(s_GuardSetCmdLineData, false, true);
            s_SetCmdLineData.erase(data);
            if (s_SetCmdLineData.empty()) {
                s_ProcessTerminatorSetEmpty.Set();
            }
        }
    }
    if (!watched) {
        if (containsBatchFile(data->m_strCommand)) {
            deleteBatchFile(data->m_strCommand);
        }
        delete data;  // a created process runs on unwatched
    }
    return created;
}

int CCommandLineExecutor::ExecuteAsBat(std::string const& text, unsigned long timeoutMs,
                                       ICommandLineExecutorNotifyParam* param) {
    const std::string name = CTempDirectory::GetTempDirectory() + s_szBatchFileName;
    std::FILE* file = std::fopen(name.c_str(), "w");
    if (file == nullptr) {
        return 0;
    }
    const bool written = std::fwrite(text.data(), 1, text.size(), file) == text.size();
    if (std::fclose(file) != 0 || !written) {
        return 0;
    }
    return Execute("\"" + name + "\"", timeoutMs, param);
}

unsigned long CCommandLineExecutor::ProcessTerminatorThread(void* parameter) {
    auto* data = static_cast<CmdLineData*>(parameter);
    const std::string& command = data->m_strCommand;
    const std::string tail = command.size() > 23 ? command.substr(command.size() - 23) : command;
    CActiveObject::SetThreadName(GetCurrentThreadId(), "CmdExe [%s]", tail.c_str());

    const unsigned long timeoutMs =
        std::clamp(data->m_ulTimeout, kMinimumTimeoutMs, kMaximumTimeoutMs);
    const HANDLE handles[2] = {data->m_hAbortEvent, data->m_processInformation.hProcess};
    const DWORD result = WaitForMultipleObjects(2, handles, FALSE, static_cast<DWORD>(timeoutMs));
    if (result == WAIT_TIMEOUT) {
        TerminateProcess(data->m_processInformation.hProcess, 0);
        data->m_lStatus = CmdStatusTimedOut;
        data->m_strMessage =
            Tessel::Format(resourceText(kTimedOutText).c_str(), static_cast<int>(timeoutMs / 1000));
    } else if (result == WAIT_OBJECT_0) {
        TerminateProcess(data->m_processInformation.hProcess, 0);
        data->m_lStatus = CmdStatusAborted;
        data->m_lExitCode = 0;
        data->m_strMessage = resourceText(kShutdownText);
    } else {
        OutputDebugStringA(
            "CCommandLineExecutor::ProcessTerminatorThread process returned / finished\n");
    }

    {
        CReadWriteLock lock(s_GuardSetCmdLineData, false, true);
        s_SetCmdLineData.erase(data);
        if (s_SetCmdLineData.empty()) {
            s_ProcessTerminatorSetEmpty.Set();
        }
        if (containsBatchFile(command)) {
            deleteBatchFile(command);
        }
    }
    data->m_pWorkerThread->StopThreadByWorkerThread();
    delete data;
    return 999;
}

void CCommandLineExecutor::AbortPendingProcess() {
    {
        CReadWriteLock lock(s_GuardSetCmdLineData, false, true);
        const int pending = static_cast<int>(s_SetCmdLineData.size());
        OutputDebugStringA(
            Tessel::Format("CCommandLineExecutor::AbortPendingProcess() pending threads before "
                           "abort : %d\n",
                           pending)
                .c_str());
        if (pending == 0) {
            return;
        }
        for (CmdLineData* data : s_SetCmdLineData) {
            data->m_hAbortEvent.Set();
        }
        s_ProcessTerminatorSetEmpty.Reset();
    }

    const DWORD result = WaitForSingleObjectEx(s_ProcessTerminatorSetEmpty, kAbortWaitMs, TRUE);
    if (result == WAIT_TIMEOUT || result == WAIT_FAILED) {
        char exeName[2048];
        CTraceUtil::GetExeName(exeName, sizeof exeName);
        const std::string text = Tessel::Format(
            "BASE(%s,%d): CCommandLineExecutor unexpected problem [%d]: %s\n", exeName,
            static_cast<int>(GetCurrentThreadId()), static_cast<int>(result),
            " Activate 2ndStageCrash to write dump file for further analysis.");
        ILogging::getInstance().log("CCommandLineExecutor::AbortPendingProcess", ILogging::Error,
                                    text);
        if (CActiveObject::IsSecondStageCrashActivated()) {
            if (IsDebuggerPresent()) {
                DebugBreak();
            } else {
                // A fault on purpose, which the crash handler turns into a dump.
                volatile int* volatile nowhere = nullptr;
                *nowhere = *nowhere;
            }
        }
    }

    CReadWriteLock lock(s_GuardSetCmdLineData, false, true);
    OutputDebugStringA(Tessel::Format("CCommandLineExecutor::AbortPendingProcess() pending "
                                      "threads after abort : %d\n",
                                      static_cast<int>(s_SetCmdLineData.size()))
                           .c_str());
}
