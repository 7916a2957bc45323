#include "tessel/monitoring/MonitorElementContainer.h"

#include <fmt/format.h>

#include <algorithm>

#include "tessel/logging/ILogging.h"
#include "tessel/monitoring/MonitorElementDatabase.h"

CMonitorElementContainer::CMonitorElementContainer(const std::string& base)
    : m_strBase(base), m_pDatabase(&MonitorElementDatabase::getInstance()) {}

CMonitorElementContainer::~CMonitorElementContainer() {
    for (const auto& entry : m_ownElements) {
        if (entry.second.removeOnDestruction) {
            removeLogged(entry.second, "CMonitorElementContainer::~CMonitorElementContainer");
        }
    }
}

void CMonitorElementContainer::removeLogged(const OwnElement& own, const char* scope) {
    if (!m_pDatabase->remove(own.element)) {
        ILogging::getInstance().log(
            scope, ILogging::Error,
            fmt::format("Monitor element ({}) has already been removed.", own.fullPath));
    }
}

CMonitorElement* CMonitorElementContainer::add(const std::string& name, const std::string& unit,
                                               bool removeOnDestruction) {
    const std::string path = buildPath(name);
    CMonitorElement* element = m_pDatabase->add(path, unit);
    if (element != nullptr) {
        m_ownElements[path] = OwnElement{element, removeOnDestruction, element->getPath()};
    }
    return element;
}

CMonitorElement* CMonitorElementContainer::findOrAdd(const std::string& name,
                                                     const std::string& unit,
                                                     bool removeOnDestruction) {
    const std::string path = buildPath(name);
    const auto found = m_ownElements.find(path);
    if (found != m_ownElements.end()) {
        return found->second.element;
    }
    CMonitorElement* element = m_pDatabase->findOrAdd(path, unit);
    if (element != nullptr) {
        m_ownElements.emplace(path, OwnElement{element, removeOnDestruction, element->getPath()});
    }
    return element;
}

void CMonitorElementContainer::clear() {
    while (!m_ownElements.empty()) {
        const auto first = m_ownElements.begin();
        removeLogged(first->second, "CMonitorElementContainer::clear");
        m_ownElements.erase(first);
    }
}

void CMonitorElementContainer::setBase(const std::string& name) {
    m_strBase.clear();
    m_strBase = buildPath(name);
}

void CMonitorElementContainer::setBaseWithUniqeName(const std::string& name) {
    m_strSubBase.clear();
    m_strBase.clear();
    m_strBase = buildPath(name);
    m_strBase = m_pDatabase->generateUniqueName(m_strBase);
}

void CMonitorElementContainer::setSubBase(const std::string& name) {
    m_strSubBase = name;
}

void CMonitorElementContainer::setContainerMonitorElementsToValue(const double& value) {
    for (const auto& entry : m_ownElements) {
        entry.second.element->set(value);
    }
}

std::string CMonitorElementContainer::buildPath(const std::string& name) const {
    std::string path;
    if (m_strBase.empty()) {
        path = name;  // the sub-base is ignored
    } else {
        path = m_strBase;
        if (!m_strSubBase.empty()) {
            path += CMonitorElement::DELIMITER;
            path += m_strSubBase;
        }
        path += CMonitorElement::DELIMITER;
        path += name;
    }
    std::replace(path.begin(), path.end(), ' ', '_');
    std::replace(path.begin(), path.end(), CMonitorElement::WILDCARD, '_');
    return path;
}
