#include "tessel/comms/SqlServerInstance.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

#include "support/TestSupport.h"
#include "tessel/host/Registry.h"

namespace {

const std::string k64 = "SOFTWARE\\Microsoft\\Microsoft SQL Server\\";
const std::string k32 = "SOFTWARE\\Wow6432Node\\Microsoft\\Microsoft SQL Server\\";

// An instance as its installer records it; empty texts are not written.
struct Recorded {
    std::string root, name, key, version, edition;
};

void record(const std::vector<Recorded>& instances) {
    for (const Recorded& r : instances) {
        const std::string values[][3] = {
            {"Instance Names\\SQL", r.name, r.key},
            {r.key + "\\MSSQLServer\\CurrentVersion", "CurrentVersion", r.version},
            {r.key + "\\Setup", "Edition", r.edition}};
        for (const auto& [key, name, text] : values) {
            if (!text.empty()) {
                REG::Write(r.root + key, name, text.c_str());
            }
        }
    }
}

// Each root lists its names in the order written, up to a name that is not shorter than the
// one before: one instance per root keeps every listing whole.
const Recorded kNamed{k64, "VELKOR", "MSSQL11.VELKOR", "11.0.2100.60", "Standard Edition"};
const Recorded kDefault{k32, "MSSQLSERVER", "MSSQL12.MSSQLSERVER", "12.0.2000.8", ""};
const Recorded kOld{k64, "OLD", "MSSQL10_50.OLD", "10.50.1600.1", ""};
const Recorded kLater{k32, "LATER", "MSSQL13.LATER", "13.0.1601.5", ""};

struct Choice {
    std::string name;
    std::vector<Recorded> instances;
    std::string wanted;  // empty: none
    std::string chosen;  // empty: false
};
// Shown by its name in the test names.
void PrintTo(const Choice& value, std::ostream* out) {
    *out << value.name;
}

class SqlServerChoice : public testing::TestWithParam<Choice> {};

TEST_P(SqlServerChoice, PicksTheWantedThenTheDefaultThenTheFirstCompatible) {
    record(GetParam().instances);
    CSqlServerInstance result;
    result.m_strInstanceName = "stale";
    std::string wanted = GetParam().wanted;
    EXPECT_EQ(CSqlServerInstance::FindCompatibleSqlServerInstance(
                  result, wanted.empty() ? nullptr : wanted.data()),
              !GetParam().chosen.empty());
    EXPECT_EQ(result.m_strInstanceName, GetParam().chosen);
}

INSTANTIATE_TEST_SUITE_P(
    Registry, SqlServerChoice,
    testing::Values(Choice{"None", {}, "", ""},
                    Choice{"DefaultOverridesNamed", {kNamed, kDefault}, "", "MSSQLSERVER"},
                    Choice{"WantedServiceName", {kNamed, kDefault}, "MSSQL$VELKOR", "VELKOR"},
                    Choice{"WantedInstanceName", {kNamed, kDefault}, "VELKOR", "VELKOR"},
                    Choice{"UnknownWantedFallsBack", {kNamed, kDefault}, "NOSUCH", "MSSQLSERVER"},
                    Choice{"FirstNamedStays", {kNamed, kLater}, "", "VELKOR"},
                    Choice{"OldNeverChosen", {kOld}, "OLD", ""},
                    Choice{"OldSkipped", {kOld, kLater}, "OLD", "LATER"},
                    Choice{"NoVersionIsOld", {{k64, "BARE", "MSSQL.BARE", "", ""}}, "", ""}),
    TesselTest::ParamName());

TEST(SqlServerInstance, ReadsBothRootsWithDefaultsAndSkipsAnInstanceWithoutKey) {
    record({kNamed, kDefault});
    REG::Write(k64 + "Instance Names\\SQL", "NOKEY", "");
    std::vector<CSqlServerInstance> found;
    CSqlServerInstance::FindSqlServerInstances(found);
    std::string all;
    for (const CSqlServerInstance& i : found) {
        char service[32];
        i.GetServiceName(service, sizeof(service));
        all += i.m_strRegistryName + "|" + i.m_strVersion + "|" + i.m_strEdition + "|" + service +
               (i.IsExpressEdition() ? "|E" : "") + (i.IsDefaultInstance() ? "|D" : "") + ";";
    }
    EXPECT_EQ(all,
              "MSSQL11.VELKOR|11.0.2100.60|Standard Edition|MSSQL$VELKOR;"
              "MSSQL12.MSSQLSERVER|12.0.2000.8|Express Edition|MSSQLSERVER|E|D;");
}

TEST(SqlServerInstance, ComparesFourNumbersLeavingMissingPiecesAlone) {
    const char* const min = CSqlServerInstance::m_szMinSqlServerVersion;
    EXPECT_EQ(CSqlServerInstance::CompareVersion(min, "11.0.2100.60"), 0);
    EXPECT_EQ(CSqlServerInstance::CompareVersion("11.0.2100", min), -1);
    EXPECT_EQ(CSqlServerInstance::CompareVersion("12", min), 1);
    EXPECT_EQ(CSqlServerInstance::CompareVersion("9.0.0.0", "10.0.0.0"), -1);  // numbers, not text
    int numbers[4] = {7, 7, 7, 7};
    CSqlServerInstance::DecodeVersion("3..5", numbers);
    EXPECT_EQ(std::vector<int>(numbers, numbers + 4), (std::vector<int>{3, 0, 5, 7}));
}

}  // namespace
