#include "tessel/monitoring/MonitorElementDatabase.h"

#include <fmt/format.h>

#include <vector>

#include <boost/thread/locks.hpp>

#include "tessel/logging/ILogging.h"
#include "tessel/monitoring/MonitorElementObserver.h"
#include "tessel/monitoring/MonitorProcess.h"
#include "tessel/platform/Process.h"

using Lock = boost::unique_lock<boost::recursive_mutex>;

boost::recursive_mutex MonitorElementDatabase::gProcessMutex;

MonitorElementDatabase::MonitorElementDatabase() {
    getBaseName("UnknownRootName", m_baseName);
}

// The process monitor goes first: its containers remove their elements from the table,
// which must still be alive then.
MonitorElementDatabase::~MonitorElementDatabase() {
    stop();
}

MonitorElementDatabase& MonitorElementDatabase::getInstance() {
    static MonitorElementDatabase instance;
    return instance;
}

// A running process monitor is stopped before the table is re-rooted: its update thread
// creates elements (through containers that read the new element's path outside the lock),
// and must not do so while every path is rewritten. startIPC replaces it afterwards.
void MonitorElementDatabase::init(const std::string& rootName) {
    MonitorElementDatabase& database = getInstance();
    database.stop();
    database.replaceDefaultRootName(rootName);
    database.startIPC();
}

void MonitorElementDatabase::getBaseName(const std::string& name, std::string& out) {
    out = name;
    out += CMonitorElement::DELIMITER;
    out += std::to_string(Tessel::Platform::GetCurrentProcessId());
}

std::string MonitorElementDatabase::fullPath(const std::string& name) const {
    if (!name.empty() && name[0] == CMonitorElement::DELIMITER) {
        return name.substr(1);
    }
    return m_baseName + CMonitorElement::DELIMITER + name;
}

CMonitorElement* MonitorElementDatabase::insert(const std::string& path, const std::string& unit) {
    if (!CMonitorElement::IsValidName(path)) {
        ILogging::getInstance().log(
            "MonitorElementDatabase::add", ILogging::Error,
            fmt::format("Monitor element ({}) not created: a path must be shorter than {} bytes "
                        "and have at most {} path elements.",
                        path, CMonitorElement::MAX_NAME_LENGTH,
                        CMonitorElement::MAX_PATH_ELEMENTS));
        return nullptr;
    }
    const CMonitorElement element(path, unit);
    // An existing key keeps its element: try_emplace inserts nothing then.
    CMonitorElement* live = &m_elements.try_emplace(element, element).first->second;
    m_live.insert(live);
    return live;
}

CMonitorElement* MonitorElementDatabase::add(const std::string& name, const std::string& unit) {
    Lock lock(m_mutex);
    const std::string path = fullPath(name);
    if (!CMonitorElement::IsValidName(path)) {
        return insert(path, unit);  // refuses with the error line
    }
    return insert(generateUniqueName(path), unit);
}

CMonitorElement* MonitorElementDatabase::findOrAdd(const std::string& name,
                                                   const std::string& unit) {
    Lock lock(m_mutex);
    return insert(fullPath(name), unit);
}

std::string MonitorElementDatabase::generateUniqueName(const std::string& name) {
    Lock lock(m_mutex);
    const auto found = m_nameCounts.find(name);
    if (found == m_nameCounts.end()) {
        m_nameCounts.emplace(name, 0);
        return name;
    }
    return name + std::to_string(found->second++);
}

bool MonitorElementDatabase::removeBaseName(const std::string& name) {
    Lock lock(m_mutex);
    const auto found = m_nameCounts.find(name);
    if (found == m_nameCounts.end() || found->second != 0) {
        return false;
    }
    m_nameCounts.erase(found);
    return true;
}

bool MonitorElementDatabase::remove(CMonitorElement* element) {
    Lock lock(m_mutex);
    if (m_live.count(element) == 0) {
        return false;
    }
    const auto found = m_elements.find(*element);
    if (found == m_elements.end() || &found->second != element) {
        return false;  // an unlisted element, which stays alive with the database
    }
    m_live.erase(element);
    removeBaseName(element->getPath());
    m_elements.erase(found);
    return true;
}

void MonitorElementDatabase::update(CMonitorElementObserver& observer) {
    Lock lock(m_mutex);
    observer.beginUpdate();
    for (auto& entry : m_elements) {
        entry.second.update(observer);
    }
    observer.endUpdate();
}

std::uint64_t MonitorElementDatabase::getLocalElementCount() {
    Lock lock(m_mutex);
    return m_elements.size();
}

std::uint64_t MonitorElementDatabase::getGlobalElementCount() {
    Lock lock(m_mutex);
    return getLocalElementCount();
}

MonitorProcess* MonitorElementDatabase::getProcessMonitor() {
    Lock lock(m_mutex);
    return m_processMonitor.get();
}

// Every node is taken out of the table, re-rooted and put back, so that the table stays
// sorted also when elements had different root names; nodes keep their addresses, so element
// pointers stay valid. Two elements that come to the same path (absolute names whose roots
// differed) cannot both stay in the table: the later one is kept alive outside it, so that
// its pointer stays valid, and no longer listed.
void MonitorElementDatabase::replaceDefaultRootName(const std::string& root) {
    Lock lock(m_mutex);
    std::string baseName;
    getBaseName(root, baseName);
    if (baseName == m_baseName) {
        return;
    }
    m_baseName = baseName;
    m_nameCounts.clear();

    std::vector<ElementTable::node_type> nodes;
    nodes.reserve(m_elements.size());
    while (!m_elements.empty()) {
        nodes.push_back(m_elements.extract(m_elements.begin()));
    }
    for (ElementTable::node_type& node : nodes) {
        node.key().setRootName(root);
        node.mapped().setRootName(root);
        const std::string path = node.mapped().getPath();
        auto inserted = m_elements.insert(std::move(node));
        if (inserted.inserted) {
            generateUniqueName(path);
        } else {
            ILogging::getInstance().log(
                "MonitorElementDatabase::replaceDefaultRootName", ILogging::Error,
                fmt::format("Monitor element ({}) exists twice under the root name {}; the "
                            "second one is no longer listed.",
                            path, root));
            m_unlisted.push_back(std::move(inserted.node));
        }
    }
}

void MonitorElementDatabase::startIPC() {
    stop();
    auto monitor = std::make_unique<MonitorProcess>();
    MonitorProcess* started = monitor.get();
    {
        Lock lock(m_mutex);
        m_processMonitor = std::move(monitor);
    }
    started->start();
}

// The update thread is joined outside the lock: a cycle in progress creates and removes
// elements, which takes the lock.
void MonitorElementDatabase::stop() {
    MonitorProcess* monitor = nullptr;
    {
        Lock lock(m_mutex);
        monitor = m_processMonitor.get();
    }
    if (monitor != nullptr) {
        monitor->stop();
    }
    Lock lock(m_mutex);
    m_processMonitor.reset();
}
