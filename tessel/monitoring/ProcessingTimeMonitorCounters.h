// ProcessingTimeMonitorCounters: duration statistics of numbered activities.
//
// A host process reports each duration of an activity with its id; for every id three
// elements are published in the given container, under the prefix: "<prefix><id>/average"
// (unit "t"), "<prefix><id>/count" and "<prefix><id>/duration" (unit "t", the sum). The
// elements are created at the first duration of an id and removed when the container goes.
//
// Lifetime: the container must outlive every object that adds to it. Copies share one map of
// counters, so all copies add to the same statistics.
//
// Thread safety: none. One object (and its copies) is used from one thread, or the caller
// serialises the calls. Each element store is atomic on its own, the three of an id are not
// updated as a whole.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "tessel/Export.h"
#include "tessel/monitoring/MonitorElement.h"
#include "tessel/monitoring/MonitorElementContainer.h"

class TESSEL_API ProcessingTimeMonitorCounters {
  public:
    // No counters yet; elements will go into container, their names begin with prefix.
    ProcessingTimeMonitorCounters(CMonitorElementContainer& container, const std::string& prefix);
    // Shares the counters and the container of other; copies the prefix.
    ProcessingTimeMonitorCounters(const ProcessingTimeMonitorCounters& other);
    ProcessingTimeMonitorCounters& operator=(const ProcessingTimeMonitorCounters&) = delete;

    // Counts one duration (in the caller's unit, e.g. ms) of activity id and publishes
    // average = total / count, count and the total duration.
    void UpdateDurationCounters(long id, std::uint64_t duration);

  private:
    struct CounterContainer {
        std::uint64_t m_count = 0;
        std::uint64_t m_totalDuration = 0;
        CMonitorElement* m_average = nullptr;
        CMonitorElement* m_countElement = nullptr;
        CMonitorElement* m_duration = nullptr;
    };
    using CounterMap = std::map<long, std::shared_ptr<CounterContainer>>;

    std::shared_ptr<CounterMap> m_counters;  // shared between copies
    CMonitorElementContainer& m_container;
    std::string m_prefix;
};
