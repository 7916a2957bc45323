#include "tessel/monitoring/ProcessingTimeMonitorCounters.h"

namespace {

// An element that stands in where the table refused a name (too long a path): in no table.
CMonitorElement* orUnlisted(CMonitorElement* element) {
    static CMonitorElement unlisted;
    return element != nullptr ? element : &unlisted;
}

}  // namespace

ProcessingTimeMonitorCounters::ProcessingTimeMonitorCounters(CMonitorElementContainer& container,
                                                             const std::string& prefix)
    : m_counters(std::make_shared<CounterMap>()), m_container(container), m_prefix(prefix) {}

ProcessingTimeMonitorCounters::ProcessingTimeMonitorCounters(
    const ProcessingTimeMonitorCounters& other)
    : m_counters(other.m_counters), m_container(other.m_container), m_prefix(other.m_prefix) {}

void ProcessingTimeMonitorCounters::UpdateDurationCounters(long id, std::uint64_t duration) {
    std::shared_ptr<CounterContainer>& counter = (*m_counters)[id];
    if (!counter) {
        counter = std::make_shared<CounterContainer>();
        const std::string base = m_prefix + std::to_string(id);
        counter->m_average = orUnlisted(m_container.add(base + "/average", "t", true));
        counter->m_countElement = orUnlisted(m_container.add(base + "/count", "", true));
        counter->m_duration = orUnlisted(m_container.add(base + "/duration", "t", true));
    }
    counter->m_count += 1;
    counter->m_totalDuration += duration;
    counter->m_average->set(static_cast<double>(counter->m_totalDuration) /
                            static_cast<double>(counter->m_count));
    counter->m_countElement->set(static_cast<double>(counter->m_count));
    counter->m_duration->set(static_cast<double>(counter->m_totalDuration));
}
