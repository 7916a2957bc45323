// Uses the installed library as a host process would: publishes elements in a container,
// updates them, walks the table with an observer and logs through ILogging. Exits 0 when
// everything behaved.
#include <iostream>
#include <string>

#include "tessel/logging/ILogging.h"
#include "tessel/monitoring/MonitorElementContainer.h"
#include "tessel/monitoring/MonitorElementDatabase.h"
#include "tessel/monitoring/MonitorElementObserver.h"

namespace {

class Counter : public CMonitorElementObserver {
  public:
    void updateElement(CMonitorElement& element) override {
        ++matched;
        sum += element.get();
    }
    int matched = 0;
    double sum = 0.0;
};

}  // namespace

int main() {
    MonitorElementDatabase::init("Consumer");
    CMonitorElementContainer container("Feed");
    CMonitorElement* epochs = container.add("Epochs", "");
    CMonitorElement* ratio = container.add("Ratio", "%");
    epochs->increment(41);
    ++*epochs;
    ratio->setRatio(1, 4);

    Counter counter;
    counter.setFilter("consumer/*/feed/*");
    MonitorElementDatabase::getInstance().update(counter);

    ILogging::getInstance().log("tessel-consumer", ILogging::Info,
                                "matched " + std::to_string(counter.matched));
    const bool ok = counter.matched == 2 && counter.sum == 67.0;
    std::cout << (ok ? "consumer ok" : "consumer FAILED") << std::endl;
    return ok ? 0 : 1;
}
