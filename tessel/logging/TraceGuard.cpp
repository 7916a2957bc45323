#include "tessel/logging/TraceGuard.h"

#include <utility>

#include "tessel/logging/TraceUtil.h"

CTraceGuard::CTraceGuard(unsigned int category, std::string text)
    : m_strText(std::move(text)), m_uiCategory(category) {
    CTraceUtil::OutputString(m_uiCategory, (m_strText + " start\n").c_str());
}

CTraceGuard::~CTraceGuard() {
    CTraceUtil::OutputString(m_uiCategory, (m_strText + " end\n").c_str());
}
