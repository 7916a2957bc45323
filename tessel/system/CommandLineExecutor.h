// CCommandLineExecutor: runs the external commands that an operator configured for a product
// file, each watched by a thread of its own with a time limit.
//
// A command is a program and its arguments, split by the quoting rules of CreateProcessA
// (tessel/platform/ProcessStart.h); a program ending in ".bat" or ".cmd" runs with /bin/sh.
// Behind the program the arguments may name variables as "$(name)", names in any case: the
// four product variables "product", "productpath", "productname" and "productext", which Init
// takes from the product path, and those added with AddVariableArgument (keys are looked up
// in lower case, so a key that is to be found must be given in lower case). A command with a
// variable runs only when a product is known. A "$" or "(" in the arguments that does not belong
// to a variable is a syntax error, once the arguments hold a "$" at all; a command without one
// is left as it is.
//
// Each started command leads a process group of its own and is watched by a worker thread
// (a CActiveObject named "TerminateThread"). The thread waits for the process's end, the time
// limit (clamped to 10 s .. 2 h whatever the caller passes) or AbortPendingProcess; the last
// two kill the process together with every process it started. The process's own exit code
// is not read. The command's output is not captured: the process writes to the standard
// output and error of the caller.
//
// Every command that gets as far as a CmdLineData ends in exactly one report to the
// executor's notify, if it has one: on the watcher thread when the process was started, on
// the caller's thread for earlier failures. The notify parameter is released once, after the
// report. An executor without a notify starts the process and leaves it to run unwatched,
// with no time limit.
//
// Lifetime: a started command belongs to its watcher thread, not to the executor, which may
// be destroyed while its commands run; the notify must outlive them.
//
// Thread safety: the set of pending commands is process-wide and guarded; any thread may call
// Execute, ExecuteAsBat and AbortPendingProcess. One executor's variables are not guarded:
// its Execute, ExecuteAsBat, AddVariableArgument and Init belong to one thread at a time.
// All calls of the process share one batch file name, so two concurrent ExecuteAsBat calls
// may overwrite each other's file, and the first watcher to finish deletes it.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>

#include "tessel/Export.h"
#include "tessel/base/CriticalSectionSyncGuard.h"
#include "tessel/base/Event.h"
#include "tessel/platform/ProcessStart.h"

class CActiveObject;

// The outcome of a command, as its report gives it.
enum CmdStatus : int {
    CmdStatusFinished = 1,  // started and ended by itself, or nothing went wrong so far
    CmdStatusNotRun = 2,    // valid syntax, but no product is known: nothing was started
    CmdStatusError = 3,     // syntax error, or the process could not be created
    CmdStatusTimedOut = 4,  // the time limit ran out and the process was killed
    CmdStatusAborted = 5,   // the process was killed by AbortPendingProcess
};

// The host's own record of one command, handed through to the report.
class TESSEL_API ICommandLineExecutorNotifyParam {
  public:
    virtual ~ICommandLineExecutorNotifyParam() = default;
    // Called once, after the report: the record is no longer used by the executor.
    virtual void Release() = 0;
};

// Receives the end of each command; implemented by the host.
class TESSEL_API ICommandLineExecutorNotify {
  public:
    virtual ~ICommandLineExecutorNotify() = default;
    // The end of one command: status a CmdStatus; command the command as run (with the
    // variables put in; "" when it was not run); message "" or the text of what happened;
    // exitCode -1, or the 0-based character position of a syntax error, or 0 after an abort
    // or for an empty command; param as given to Execute (may be null). Runs on the
    // command's watcher thread, or on the caller's thread when nothing was started.
    virtual void OnCommandLineExecuted(int status, const std::string& command,
                                       const std::string& message, int exitCode,
                                       ICommandLineExecutorNotifyParam* param) = 0;
};

// One started command; owned by its watcher thread once that runs. Destroying it makes the
// report (if there is a notify), closes the process handle and releases the parameter.
struct TESSEL_API CmdLineData {
    // timeoutMs: the time limit in milliseconds before the clamp; notify and param may be null.
    CmdLineData(unsigned long const& timeoutMs, ICommandLineExecutorNotify* notify,
                ICommandLineExecutorNotifyParam* param, std::string const& command);
    ~CmdLineData();
    CmdLineData(const CmdLineData&) = delete;
    CmdLineData& operator=(const CmdLineData&) = delete;

    Tessel::Platform::PROCESS_INFORMATION m_processInformation{};
    // Runs CCommandLineExecutor::ProcessTerminatorThread with this data. Its object outlives
    // the data briefly when the thread itself destroys the data (see the source).
    std::unique_ptr<CActiveObject> m_pWorkerThread;
    // Manual reset, set by AbortPendingProcess.
    Tessel::CEvent m_hAbortEvent;
    unsigned long m_ulTimeout;
    int m_lExitCode = -1;
    int m_lStatus = CmdStatusFinished;
    ICommandLineExecutorNotify* m_pNotify;
    ICommandLineExecutorNotifyParam* m_pNotifyParam;
    std::string m_strCommand;
    std::string m_strMessage;
};

class TESSEL_API CCommandLineExecutor {
  public:
    // product: the path of the product file, '/' or '\' separated, may be empty; notify may
    // be null and is not owned.
    CCommandLineExecutor(std::string const& product, ICommandLineExecutorNotify* notify);
    // Copy the variables, the product and the notify.
    CCommandLineExecutor(const CCommandLineExecutor& other);
    CCommandLineExecutor& operator=(const CCommandLineExecutor& other);
    virtual ~CCommandLineExecutor();

    // Sets the variable name (give it in lower case) to value; nothing when either is empty.
    void AddVariableArgument(std::string const& name, std::string const& value);

    // Runs command with the variables put in, watched for timeoutMs milliseconds (clamped to
    // 10,000 .. 7,200,000). param (may be null) comes back in the report. Non-zero when the
    // process was created; everything else reaches the host through the report.
    int Execute(std::string const& command, unsigned long timeoutMs,
                ICommandLineExecutorNotifyParam* param);
    // Writes text to the batch file "CmdLineWrapper.bat" of the temp directory and runs it
    // with /bin/sh as Execute does; the watcher deletes the file at the end. 0 when the file
    // cannot be written.
    int ExecuteAsBat(std::string const& text, unsigned long timeoutMs,
                     ICommandLineExecutorNotifyParam* param);

    // Kills the processes of every pending command, and waits up to 8 s for their watchers to
    // have reported. A wait that fails or times out is logged at error level, and with the
    // second-stage crash activated ends the process with a dump.
    static void AbortPendingProcess();
    // The body of a command's watcher thread; data is its CmdLineData, which it destroys.
    // Returns 999.
    static unsigned long ProcessTerminatorThread(void* data);

    // The name of the batch file, in the temp directory.
    static const char* const s_szBatchFileName;

  protected:
    // Sets the four product variables from the product path: "product" the whole path,
    // "productpath" its drive ("C:" where it has the platform's drive form) and folder with
    // the trailing separator, "productname" the file name without, and "productext" its
    // extension with the dot; separators become '/'. All "" for an empty product. A piece
    // longer than 255 characters is an invalid parameter; if the handler returns, all four
    // are "".
    virtual void Init();

  private:
    // Puts the variables into data's command. true when a command remains to run; false
    // with status, message and exit code set in data and its command emptied otherwise.
    int CreateCommand(CmdLineData* data);

    std::map<std::string, std::string> m_mapVariableArguments;
    std::string m_strProduct;
    ICommandLineExecutorNotify* m_pNotify;

    // Guards the set; never held while waiting.
    static CCriticalSectionSyncGuard& s_GuardSetCmdLineData;
    // The commands whose watcher thread runs.
    static std::set<CmdLineData*>& s_SetCmdLineData;
    // Manual reset; set when the set has become empty.
    static Tessel::CEvent& s_ProcessTerminatorSetEmpty;
};
