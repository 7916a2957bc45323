#include "tessel/monitoring/MonitorElementObserver.h"

#include <array>
#include <cmath>
#include <iomanip>
#include <limits>
#include <ostream>

#include "tessel/monitoring/MonitorElementDatabase.h"
#include "tessel/monitoring/MonitorProcess.h"
#include "tessel/monitoring/detail/PrometheusText.h"
#include "tessel/platform/Clock.h"

namespace {

constexpr double TICKS_PER_SECOND = 10000000.0;

std::int64_t now() {
    return Tessel::Platform::GetSystemTimeTicks();
}

// A duration in whole units; a negative or NaN value counts as 0.
std::uint64_t wholeUnits(double value) {
    return value > 0.0 ? static_cast<std::uint64_t>(value) : 0;
}

// The server elements that the List overview shows, in the table's key order.
const std::array<CMonitorElement, 7>& serverOverviewPaths() {
    static const std::array<CMonitorElement, 7> paths = {
        CMonitorElement("Server/DumpCount", ""),
        CMonitorElement("Server/Memory/MemoryLoad", ""),
        CMonitorElement("Server/Monitor/Free", ""),
        CMonitorElement("Server/Monitor/Replication", ""),
        CMonitorElement("Server/Dev/C/Free", ""),
        CMonitorElement("Server/Stats/CPU", ""),
        CMonitorElement("Server/Stats/Processors", ""),
    };
    return paths;
}

}  // namespace

CMonitorElementObserver::HistoryRecord::HistoryRecord() : time(now()), initialised(false) {}

bool CMonitorElementObserver::ValueLess::operator()(double a, double b) const {
    if (std::isnan(a)) {
        return !std::isnan(b);
    }
    return !std::isnan(b) && a < b;
}

CMonitorElementObserver::CMonitorElementObserver(std::ostream* output)
    : m_dMinimumValue(-std::numeric_limits<double>::infinity()), m_pOutput(output) {}

CMonitorElementObserver::~CMonitorElementObserver() = default;

void CMonitorElementObserver::beginUpdate() {
    m_ullRecordCount = 0;
    m_pending.clear();
    m_commonPath.clear();
    m_ullSkipLength = 0;
    switch (m_eMode) {
        case Top:
            m_top.clear();
            break;
        case Json:
            *m_pOutput << "{";
            break;
        case Aggregate:
            m_dAggregateSum = 0.0;
            m_history.clear();
            break;
        case List:
            m_history.clear();
            break;
        case Prtg:
            *m_pOutput << "{ \"prtg\": { \"result\": [ ";
            break;
        case Prometheus:
            if (!m_prometheus) {
                m_prometheus = std::make_unique<Tessel::Monitoring::PrometheusText>();
            }
            m_prometheus->begin();
            break;
        default:
            break;
    }
}

void CMonitorElementObserver::updateElement(CMonitorElement& element) {
    if (m_dMinimumValue > element.get()) {
        return;
    }
    if (m_bStripCommonPath) {
        updateCommonPath(element);
    }
    m_pending.push_back(element);
}

// The common path is the longest run of leading path elements that every element of the
// pass shares; the first element offers all its elements but the last. A later element that
// is shorter than the candidate leaves the rest of the candidate in place.
void CMonitorElementObserver::updateCommonPath(const CMonitorElement& element) {
    if (m_pending.empty()) {
        m_commonPath.clear();
        m_commonPath.reserve(10);
        element.iterateIdentifier(
            [this](unsigned char index, unsigned char count, const char* text) {
                if (index + 1 < count) {
                    m_commonPath.emplace_back(text);
                }
                return true;
            });
        return;
    }
    element.iterateIdentifier([this](unsigned char index, unsigned char, const char* text) {
        if (index >= m_commonPath.size()) {
            return false;
        }
        if (m_commonPath[index] != text) {
            m_commonPath.erase(m_commonPath.begin() + index, m_commonPath.end());
            return false;
        }
        return true;
    });
}

void CMonitorElementObserver::endUpdate() {
    if (m_bStripCommonPath && m_ullRecordCount == 0) {
        for (const std::string& entry : m_commonPath) {
            m_ullSkipLength += entry.size() + 1;
        }
    }
    const std::uint64_t rendered = m_pending.size();
    for (CMonitorElement& element : m_pending) {
        render(element);
        ++m_ullRecordCount;
    }
    m_pending.clear();
    writeClosingText(rendered);
}

void CMonitorElementObserver::render(CMonitorElement& element) {
    switch (m_eMode) {
        case Print:
            printLine(element);
            break;
        case Top:
            m_top.emplace(element.get(), element);
            break;
        case Json:
            printJsonLine(element);
            break;
        case Reset:
            // The copy shows the reset value; the live element keeps its own.
            element.set(m_resetValue.get());
            printLine(element);
            break;
        case Aggregate:
            printLine(element);
            m_dAggregateSum += element.get();
            break;
        case Watch: {
            auto entry = m_history.find(element);
            if (entry != m_history.end() && entry->second.first.get() == element.get()) {
                break;
            }
            printLine(element);
            HistoryRecord& record = m_history[element];
            record = HistoryRecord();
            record.first = element;
            break;
        }
        case List:
            renderList(element);
            break;
        case Rate:
            renderRate(element);
            break;
        case Backtrace: {
            // Path element 1 is the process id and 3 the thread id of a thread's Load element;
            // a filter that selects other elements fails the conversion.
            const long process = std::stoi(element.getPathElement(1));
            const long thread = std::stoi(element.getPathElement(3));
            MonitorProcess* monitor = MonitorElementDatabase::getInstance().getProcessMonitor();
            if (monitor != nullptr) {
                m_pOutput->clear();
                monitor->getStackTrace(process, thread, *m_pOutput);
            }
            break;
        }
        case Prtg:
            printPrtgLine(element);
            break;
        case Prometheus:
            m_prometheus->add(element.getIdentifier(0),
                              m_bStripCommonPath ? m_commonPath.size() : 0, element.getUnit(),
                              element.get());
            break;
        default:
            break;
    }
}

// The entry's time is that of its creation and is not refreshed, so later passes divide the
// last change by the whole time since the first pass.
void CMonitorElementObserver::renderRate(const CMonitorElement& element) {
    HistoryRecord& record = m_history[element];
    double rate = 0.0;
    if (!record.initialised) {
        record.second = element;
        record.initialised = true;
    } else {
        rate = (element.get() - record.first.get()) /
               (static_cast<double>(now() - record.time) / TICKS_PER_SECOND);
    }
    record.first.set(element.get());
    record.second.set(rate);
    printLine(record.second);
}

CMonitorElementObserver::HistoryRecord& CMonitorElementObserver::processEntry(
    const CMonitorElement& element) {
    const CMonitorElement key(
        element.getPathElement(0) + CMonitorElement::DELIMITER + element.getPathElement(1), "");
    return m_history[key];
}

void CMonitorElementObserver::renderList(const CMonitorElement& element) {
    static const std::string upTime = "**processinfo**uptime";
    static const std::string server = "Server/*";
    static const std::string heartBeat = "**processinfo**heartbeat";
    if (element.match(upTime)) {
        processEntry(element).first = element;
    } else if (element.match(server)) {
        HistoryRecord& record = m_history[element];
        record = HistoryRecord();
        record.first = element;
    } else if (element.match(heartBeat)) {
        processEntry(element).second = element;
    }
}

void CMonitorElementObserver::printLine(const CMonitorElement& element) {
    std::ostream& out = *m_pOutput;
    out.clear();
    out.flags(std::ios::left);
    out.width(100);
    out << element.getIdentifier(m_ullSkipLength);
    out.flags(std::ios::right);
    element.printCounter(out);
    out << "\r\n";
}

void CMonitorElementObserver::printJsonLine(const CMonitorElement& element) {
    std::ostream& out = *m_pOutput;
    out.clear();
    if (m_ullRecordCount != 0) {
        out << ",";
    }
    out << '"' << element.getIdentifier(m_ullSkipLength) << "\":";
    element.printCounterForJSON(out, false);
    out << "\r\n";
}

void CMonitorElementObserver::printPrtgLine(const CMonitorElement& element) {
    std::ostream& out = *m_pOutput;
    out.clear();
    if (m_ullRecordCount != 0) {
        out << ",";
    }
    out << "{"
        << "\"channel\": \"" << element.getIdentifier(m_ullSkipLength) << "\", \"customunit\": \""
        << element.getUnit() << "\", \"float\": 1,\"value\": ";
    element.printCounterForPRTG(out);
    out << "}\r\n";
}

void CMonitorElementObserver::writeClosingText(std::uint64_t renderedCount) {
    switch (m_eMode) {
        case Print:
        case Backtrace:
            *m_pOutput << "\r\n"
                       << m_ullRecordCount << " record(s) found"
                       << "\r\n";
            break;
        case Top: {
            int written = 0;
            for (auto entry = m_top.rbegin(); entry != m_top.rend() && written < 10;
                 ++entry, ++written) {
                printLine(entry->second);
            }
            break;
        }
        case Json:
            *m_pOutput << "}"
                       << "\r\n";
            break;
        case Aggregate:
            // The sum takes the notation that the last print line left on the stream.
            *m_pOutput << "-------------------------"
                       << "\r\n"
                       << "Aggregate: " << m_dAggregateSum << "\r\n";
            break;
        case List:
            writeListClosingText();
            break;
        case Prtg:
            if (renderedCount != 0) {
                *m_pOutput << ",";
            }
            *m_pOutput << "{ \"channel\":\"Channel count\",\"value\": " << renderedCount << "}\r\n"
                       << "] } }"
                       << "\r\n";
            break;
        case Prometheus:
            m_prometheus->write(*m_pOutput);
            break;
        default:
            break;
    }
}

// First the processes, with their up-time and whether their heartbeat is younger than three
// seconds; then the chosen server elements.
void CMonitorElementObserver::writeListClosingText() {
    std::ostream& out = *m_pOutput;
    for (const auto& [key, record] : m_history) {
        if (key.getPathElement(0) == "Server") {
            continue;
        }
        out.clear();
        out.flags(std::ios::left);
        out.width(45);
        key.printIdentifier(out);
        out.flags(std::ios::right);

        const double u = record.first.get();
        const std::uint64_t days = wholeUnits(u / 60 / 60 / 24);
        const std::uint64_t hours = wholeUnits(u / 60 / 60 - static_cast<double>(days) * 24);
        const std::uint64_t minutes =
            wholeUnits(u / 60 - static_cast<double>(days) * 1440 - static_cast<double>(hours) * 60);
        const std::uint64_t seconds =
            wholeUnits(u - static_cast<double>(days) * 86400 - static_cast<double>(hours) * 3600 -
                       static_cast<double>(minutes) * 60);
        out << " " << std::setw(4) << days << "d " << std::setw(2) << hours << "h " << std::setw(2)
            << minutes << "m " << std::setw(2) << seconds << "s";
        out << std::setw(5) << "[ ";
        out << (record.second.getTimeDiffFromStart() < 3.0 ? "UP" : "--");
        out << " ]"
            << "\r\n";
    }
    out << "\r\n";

    for (const auto& [key, record] : m_history) {
        bool shown = false;
        for (const CMonitorElement& path : serverOverviewPaths()) {
            shown = shown || key == path;
        }
        if (!shown) {
            continue;
        }
        out.clear();
        out.flags(std::ios::left);
        out.width(50);
        record.first.printIdentifier(out);
        out.flags(std::ios::right);
        record.first.printCounter(out);
        out << "\r\n";
    }
}
