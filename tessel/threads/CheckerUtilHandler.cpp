#include "tessel/threads/CheckerUtilHandler.h"

#include "tessel/base/ReadWriteLock.h"

CCriticalSectionSyncGuard CheckerUtilHandler::s_csGuard;
CheckerUtil* CheckerUtilHandler::s_pCheckerUtil = nullptr;
std::uint32_t CheckerUtilHandler::s_ulInstanceCounter = 0;

CheckerUtilHandler::CheckerUtilHandler() {
    CReadWriteLock lock(s_csGuard, false, true);
    if (s_pCheckerUtil == nullptr) {
        s_pCheckerUtil = new CheckerUtil();
    }
    ++s_ulInstanceCounter;
}

CheckerUtilHandler::~CheckerUtilHandler() {
    CReadWriteLock lock(s_csGuard, false, true);
    if (--s_ulInstanceCounter == 0) {
        delete s_pCheckerUtil;
        s_pCheckerUtil = nullptr;
    }
}

bool CheckerUtilHandler::AddThreadInfo(unsigned int /*threadId*/) {
    return true;
}

bool CheckerUtilHandler::EraseThreadInfo(unsigned int /*threadId*/) {
    return true;
}

bool CheckerUtilHandler::HasThreadDBAccess(unsigned int /*threadId*/, bool) {
    return true;
}

void CheckerUtilHandler::EmptyThreadMap() {}

CheckerUtil* CheckerUtilHandler::GetGlobalCheckerUtil() {
    return s_pCheckerUtil;
}
