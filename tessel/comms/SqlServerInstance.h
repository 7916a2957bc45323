// CSqlServerInstance: a database server instance of this machine, as the registry records it,
// and the choice of the instance that the system uses.
//
// The instances are the values of "<root>Instance Names\SQL" in the local machine hive: each
// value's name is the instance name and its text the registry name, the instance's own key
// below the root. Below that key, "MSSQLServer\CurrentVersion" holds "CurrentVersion" (four
// dotted numbers) and "Setup" holds "Edition". The two roots are
// "SOFTWARE\Microsoft\Microsoft SQL Server\" and
// "SOFTWARE\Wow6432Node\Microsoft\Microsoft SQL Server\", both read. On Linux the library's
// registry stands in for the system's: an installer or the operator (tessel-reg) records the
// instances there, under the same keys.
//
// An instance is compatible from version m_szMinSqlServerVersion on. The default instance is
// named "MSSQLSERVER" and runs as the service of that name; any other instance <name> runs as
// "MSSQL$<name>".
//
// Lifetime: a plain value; copies are independent. Thread safety: the static operations read
// the registry and may be called from any thread; one object belongs to one thread at a time.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tessel/Export.h"

class TESSEL_API CSqlServerInstance {
  public:
    // The oldest compatible version.
    static constexpr const char* m_szMinSqlServerVersion = "11.0.2100.60";

    CSqlServerInstance() = default;
    CSqlServerInstance(const CSqlServerInstance&) = default;
    CSqlServerInstance& operator=(const CSqlServerInstance&) = default;
    virtual ~CSqlServerInstance();

    // Appends the instances of both roots, the 64-bit root first.
    static void FindSqlServerInstances(std::vector<CSqlServerInstance>& instances);
    // Appends the instances listed below rootKey (ending in '\'), in the order of the
    // listing (see REG::GetKeyValues for where a listing ends). An instance without a registry
    // name is skipped; a missing version is "0.0.0.0", a missing edition "Express Edition".
    static void FindSqlServerInstances(const char* rootKey, bool use64BitView,
                                       std::vector<CSqlServerInstance>& instances);
    // Chooses among the compatible instances: the first whose instance or service name is
    // wantedName (when that is neither null nor empty; exact, case-sensitive comparison), else
    // the default instance, else the first. true if one was chosen; result's instance name is
    // empty otherwise.
    static bool FindCompatibleSqlServerInstance(CSqlServerInstance& result, char* wantedName);
    // 1 if version a is higher than b, -1 if lower, 0 if equal, comparing four numbers.
    static long CompareVersion(std::string a, std::string b);
    // Splits text at dots into at most the four numbers of numbers (atoi; an empty piece is
    // 0); the numbers of missing pieces stay as they were.
    static void DecodeVersion(std::string text, int* numbers);
    // "MSSQLSERVER", both.
    static std::string GetDefaultDBInstanceName();
    static std::string GetDefaultDBInstanceString();

    // The name of the instance's service into buffer of size bytes: the instance name for the
    // default instance, else "MSSQL$<name>". A name that does not fit is an invalid parameter.
    void GetServiceName(char* buffer, std::size_t size) const;
    // The instance name is "MSSQLSERVER".
    bool IsDefaultInstance() const;
    // The edition contains "Express".
    bool IsExpressEdition() const;
    // The version is m_szMinSqlServerVersion or higher.
    bool IsVelkorCompatible() const;

    std::string m_strInstanceName;
    // The instance's key name below the root.
    std::string m_strRegistryName;
    // Four dotted numbers.
    std::string m_strVersion;
    std::string m_strEdition;
};
