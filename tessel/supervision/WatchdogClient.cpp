#include "tessel/supervision/WatchdogClient.h"

#include <cstdint>
#include <new>

#include "tessel/platform/CheckedPrint.h"
#include "tessel/platform/Handle.h"
#include "tessel/platform/LastError.h"
#include "tessel/platform/Process.h"
#include "tessel/platform/ProcessStart.h"
#include "tessel/platform/SystemEvent.h"
#include "tessel/platform/Window.h"

namespace Platform = Tessel::Platform;

namespace {

// How long the watchdog has to set the start event, and to answer a message.
constexpr Platform::DWORD kStartTimeoutMs = 2000;
constexpr Platform::UINT kSendTimeoutMs = 2000;

}  // namespace

void CWatchdogClient::CSimpleHandle::Close() noexcept {
    if (m_h != nullptr) {
        Platform::CloseHandle(m_h);
        m_h = nullptr;
    }
}

CWatchdogClient::CWatchdogClient()
    : m_hWnd(nullptr), m_hEvent(), m_pMessage(new (std::nothrow) CWatchdogMessage) {}

CWatchdogClient::~CWatchdogClient() {
    ShutdownWatchdog();
    delete m_pMessage;
    m_pMessage = nullptr;
    m_hEvent.Close();
}

int CWatchdogClient::CreateWatchdog(int show, unsigned long interval, unsigned long timeout,
                                    unsigned long b) {
    if (m_hEvent != nullptr) {
        return 1;
    }

    char buffer[256];
    const unsigned long processId = Platform::GetCurrentProcessId();
    Platform::sprintf_s(buffer, sizeof buffer, "Watchdog%lu", processId);
    HANDLE event = Platform::CreateSystemEvent(buffer);
    if (event == nullptr) {
        return 0;
    }
    // Kept also when the event existed: a repeated call then returns 1, and this client
    // counts as the owner at its destruction.
    m_hEvent.Attach(event);
    if (Platform::GetLastError() == Platform::ERROR_ALREADY_EXISTS) {
        return 0;  // a watchdog for this process exists already
    }

    Platform::sprintf_s(buffer, sizeof buffer, "TarvoWD.exe /P %lu %s/I %lu /T %lu /B %lu",
                        processId, show == 0 ? "/H " : "", interval, timeout, b);
    Platform::STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    Platform::PROCESS_INFORMATION process{};
    if (!Platform::CreateProcessA(nullptr, buffer, nullptr, nullptr, Platform::FALSE, 0, nullptr,
                                  nullptr, &startup, &process)) {
        return 0;
    }
    // The process handle is left open, as the watchdog is left to run.

    if (Platform::WaitForSingleObject(m_hEvent, kStartTimeoutMs) == Platform::WAIT_TIMEOUT) {
        m_hEvent.Close();
        return 0;
    }
    return 1;
}

void CWatchdogClient::ShutdownWatchdog() {
    SendMessageA(CWatchdogMessage::eWatchDogShutdown, 0, nullptr, 0);
}

void CWatchdogClient::SetWatchdogThreadInfo(const char* name, int flag) {
    SendMessageA(CWatchdogMessage::eWatchDogThreadInfo,
                 static_cast<long>(Platform::GetCurrentThreadId()), name, flag != 0 ? 2 : 1);
}

void CWatchdogClient::NotifyWatchdogThisThreadClosing() {
    SendMessageA(CWatchdogMessage::eWatchDogThreadClosing,
                 static_cast<long>(Platform::GetCurrentThreadId()), nullptr, 0);
}

void CWatchdogClient::NotifyWatchdogThreadClosing(unsigned long threadId) {
    SendMessageA(CWatchdogMessage::eWatchDogThreadClosing, static_cast<long>(threadId), nullptr, 0);
}

void CWatchdogClient::NotifyWatchdogLongOperationIsOk(unsigned long data) {
    SendMessageA(CWatchdogMessage::eWatchDogLongOperationIsOk,
                 static_cast<long>(Platform::GetCurrentThreadId()), nullptr,
                 static_cast<long long>(data));
}

void CWatchdogClient::SetWatchdogThreadIdleHandler(void* handler) {
    SendMessageA(CWatchdogMessage::eWatchDogThreadIdleHandler,
                 static_cast<long>(Platform::GetCurrentThreadId()), nullptr,
                 static_cast<long long>(reinterpret_cast<std::intptr_t>(handler)));
}

void CWatchdogClient::NotifyUnhandledExceptionHandlerCalled() {
    SendMessageA(CWatchdogMessage::eWatchDogUnhandledException,
                 static_cast<long>(Platform::GetCurrentThreadId()), nullptr, 0);
}

void CWatchdogClient::APCIdleHandler(std::size_t /*parameter*/) {
    CWatchdogClient client;
    client.NotifyWatchdogLongOperationIsOk(0);
}

int CWatchdogClient::SendMessageA(CWatchdogMessage::enumWatchDogMessageType type, long threadId,
                                  const char* text, long long data) {
    if (type == CWatchdogMessage::eWatchDogShutdown && m_hEvent == nullptr) {
        return 0;
    }
    if (m_pMessage == nullptr || !GetWatchdogWnd()) {
        return 0;
    }

    m_pMessage->m_lThreadId = static_cast<std::int32_t>(threadId);
    m_pMessage->m_llData = static_cast<std::int64_t>(data);
    if (text != nullptr) {
        Platform::sprintf_s(m_pMessage->m_szText, sizeof m_pMessage->m_szText, "%s", text);
    }

    Platform::COPYDATASTRUCT copyData;
    copyData.dwData = static_cast<Platform::ULONG_PTR>(type);
    copyData.cbData = sizeof(CWatchdogMessage);
    copyData.lpData = m_pMessage;
    Platform::DWORD_PTR result = 0;
    return Platform::SendMessageTimeoutA(
               m_hWnd, Platform::WM_COPYDATA, 0, reinterpret_cast<Platform::LPARAM>(&copyData),
               Platform::SMTO_BLOCK | Platform::SMTO_ABORTIFHUNG, kSendTimeoutMs, &result) != 0
               ? 1
               : 0;
}

int CWatchdogClient::GetWatchdogWnd() {
    char title[32];
    Platform::sprintf_s(title, sizeof title, "Watchdog_%lu",
                        static_cast<unsigned long>(Platform::GetCurrentProcessId()));
    m_hWnd = Platform::FindWindowA(nullptr, title);
    return m_hWnd != nullptr ? 1 : 0;
}
