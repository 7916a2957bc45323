#include "tessel/monitoring/MonitorElementObserver.h"

CMonitorElementObserver::~CMonitorElementObserver() = default;

void CMonitorElementObserver::beginUpdate() {}

void CMonitorElementObserver::updateElement(CMonitorElement&) {}

void CMonitorElementObserver::endUpdate() {}
