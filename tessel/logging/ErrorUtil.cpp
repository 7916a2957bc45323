#include "tessel/logging/ErrorUtil.h"

#include <map>
#include <string>

#include "tessel/base/ReadWriteLock.h"
#include "tessel/base/ReaderWriterSyncGuard.h"
#include "tessel/logging/TraceUtil.h"
#include "tessel/platform/CheckedPrint.h"
#include "tessel/platform/Process.h"

namespace {

struct Entry {
    std::string text;
    unsigned int first = 0;
    unsigned int second = 0;
};

struct LastErrors {
    CReaderWriterSyncGuard lock;
    std::map<unsigned int, Entry> entries;  // by thread id; guarded by lock
};

LastErrors& lastErrors() {
    static LastErrors* const errors = new LastErrors();  // lives with the process
    return *errors;
}

}  // namespace

void CErrorUtil::SetLast(unsigned int trace, const CStringA& text, unsigned int first,
                         unsigned int second) {
    if (trace != 0 && CTraceUtil::IsCategorySet(1)) {
        std::string line(text.size() + 64, '\0');
        Tessel::Platform::_snprintf_s(line.data(), line.size(), Tessel::Platform::_TRUNCATE,
                                      "CLastError::SetLast '%s', [%d], [%d]\n", text.c_str(),
                                      static_cast<int>(first), static_cast<int>(second));
        CTraceUtil::OutputString(1, line.c_str());
    }
    LastErrors& errors = lastErrors();
    CReadWriteLock hold(errors.lock, false, true);
    errors.entries[Tessel::Platform::GetCurrentThreadId()] = Entry{text, first, second};
}

void CErrorUtil::SetLastByRes(unsigned int trace, Tessel::Platform::HINSTANCE module,
                              unsigned int resourceId, unsigned int first, unsigned int second) {
    char text[4096] = {};
    Tessel::Platform::LoadStringA(module, resourceId, text, sizeof text);
    SetLast(trace, text, first, second);
}

// A thread without an entry is answered without adding one, so that readers never change the
// table under the read lock.
bool CErrorUtil::GetLast(CStringA& text, unsigned int* first, unsigned int* second) {
    LastErrors& errors = lastErrors();
    CReadWriteLock hold(errors.lock, true, true);
    const auto found = errors.entries.find(Tessel::Platform::GetCurrentThreadId());
    const Entry empty;
    const Entry& entry = found != errors.entries.end() ? found->second : empty;
    text = entry.text;
    if (first != nullptr) {
        *first = entry.first;
    }
    if (second != nullptr) {
        *second = entry.second;
    }
    return !text.empty();
}
