#include "tessel/comms/SqlServerInstance.h"

#include <cstdlib>

#include "tessel/host/Registry.h"
#include "tessel/platform/CheckedPrint.h"

namespace {

const char kDefaultInstanceName[] = "MSSQLSERVER";
const char kRoot64[] = "SOFTWARE\\Microsoft\\Microsoft SQL Server\\";
const char kRoot32[] = "SOFTWARE\\Wow6432Node\\Microsoft\\Microsoft SQL Server\\";
// Room for "MSSQL$" and the longest name that a registry listing gives.
const std::size_t kServiceNameSize = 512;

}  // namespace

CSqlServerInstance::~CSqlServerInstance() = default;

void CSqlServerInstance::FindSqlServerInstances(std::vector<CSqlServerInstance>& instances) {
    FindSqlServerInstances(kRoot64, true, instances);
    FindSqlServerInstances(kRoot32, false, instances);
}

void CSqlServerInstance::FindSqlServerInstances(const char* rootKey, bool use64BitView,
                                                std::vector<CSqlServerInstance>& instances) {
    const std::string root = rootKey != nullptr ? rootKey : "";
    const std::string namesKey = root + "Instance Names\\SQL";
    std::vector<std::string> names;
    REG::GetKeyValues(namesKey, names, use64BitView);
    for (const std::string& name : names) {
        CSqlServerInstance instance;
        instance.m_strInstanceName = name;
        instance.m_strRegistryName = REG::Get(namesKey, name, "", use64BitView);
        if (instance.m_strRegistryName.empty()) {
            continue;
        }
        instance.m_strVersion =
            REG::Get(root + instance.m_strRegistryName + "\\MSSQLServer\\CurrentVersion",
                     "CurrentVersion", "0.0.0.0", use64BitView);
        instance.m_strEdition = REG::Get(root + instance.m_strRegistryName + "\\Setup", "Edition",
                                         "Express Edition", use64BitView);
        instances.push_back(instance);
    }
}

bool CSqlServerInstance::FindCompatibleSqlServerInstance(CSqlServerInstance& result,
                                                         char* wantedName) {
    std::vector<CSqlServerInstance> instances;
    FindSqlServerInstances(instances);
    result.m_strInstanceName.clear();
    const bool wanted = wantedName != nullptr && wantedName[0] != '\0';
    for (const CSqlServerInstance& instance : instances) {
        if (!instance.IsVelkorCompatible()) {
            continue;
        }
        char serviceName[kServiceNameSize];
        instance.GetServiceName(serviceName, sizeof(serviceName));
        if (wanted &&
            (instance.m_strInstanceName == wantedName || std::string(serviceName) == wantedName)) {
            result = instance;
            return true;
        }
        // The default instance overrides an earlier choice; a later named one does not.
        if (instance.IsDefaultInstance() || result.m_strInstanceName.empty()) {
            result = instance;
        }
    }
    return !result.m_strInstanceName.empty();
}

long CSqlServerInstance::CompareVersion(std::string a, std::string b) {
    int first[4] = {0, 0, 0, 0};
    int second[4] = {0, 0, 0, 0};
    DecodeVersion(a, first);
    DecodeVersion(b, second);
    for (int i = 0; i < 4; ++i) {
        if (first[i] != second[i]) {
            return first[i] > second[i] ? 1 : -1;
        }
    }
    return 0;
}

void CSqlServerInstance::DecodeVersion(std::string text, int* numbers) {
    std::size_t start = 0;
    for (int i = 0; i < 4; ++i) {
        const std::size_t dot = text.find('.', start);
        numbers[i] = std::atoi(text.substr(start, dot - start).c_str());
        if (dot == std::string::npos) {
            return;
        }
        start = dot + 1;
    }
}

std::string CSqlServerInstance::GetDefaultDBInstanceName() {
    return kDefaultInstanceName;
}

std::string CSqlServerInstance::GetDefaultDBInstanceString() {
    return kDefaultInstanceName;
}

void CSqlServerInstance::GetServiceName(char* buffer, std::size_t size) const {
    if (IsDefaultInstance()) {
        Tessel::Platform::sprintf_s(buffer, size, "%s", m_strInstanceName.c_str());
    } else {
        Tessel::Platform::sprintf_s(buffer, size, "MSSQL$%s", m_strInstanceName.c_str());
    }
}

bool CSqlServerInstance::IsDefaultInstance() const {
    return m_strInstanceName == kDefaultInstanceName;
}

bool CSqlServerInstance::IsExpressEdition() const {
    return m_strEdition.find("Express") != std::string::npos;
}

bool CSqlServerInstance::IsVelkorCompatible() const {
    return CompareVersion(m_strVersion, m_szMinSqlServerVersion) >= 0;
}
