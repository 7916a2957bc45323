// The registry against raw SQLite on the same database, measured in the same run.
#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>

#include "support/RatioReporter.h"
#include "tessel/host/Registry.h"
#include "tessel/platform/Registry.h"

namespace {

const char* const kKey = "SOFTWARE\\Tarvo Works\\GPS Velkor\\Bench";

// A second connection to the HKLM database, with the journal settings of the store.
struct RawConnection {
    sqlite3* db = nullptr;
    sqlite3_stmt* select = nullptr;
    sqlite3_stmt* begin = nullptr;
    sqlite3_stmt* upsert = nullptr;
    sqlite3_stmt* commit = nullptr;
    std::int64_t keyId = 0;

    RawConnection() {
        const std::string file =
            Tessel::Platform::RegistryHiveFile(Tessel::Platform::HKEY_LOCAL_MACHINE);
        sqlite3_open(file.c_str(), &db);
        sqlite3_busy_timeout(db, 10000);
        sqlite3_exec(db, "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;", nullptr, nullptr,
                     nullptr);
        sqlite3_stmt* find = nullptr;
        sqlite3_prepare_v2(db, "SELECT id FROM keys WHERE path = ?1", -1, &find, nullptr);
        sqlite3_bind_text(find, 1, kKey, -1, SQLITE_STATIC);
        if (sqlite3_step(find) == SQLITE_ROW) {
            keyId = sqlite3_column_int64(find, 0);
        }
        sqlite3_finalize(find);
        sqlite3_prepare_v2(db, "SELECT type, data FROM vals WHERE key = ?1 AND name = ?2", -1,
                           &select, nullptr);
        sqlite3_prepare_v2(db, "BEGIN IMMEDIATE", -1, &begin, nullptr);
        sqlite3_prepare_v2(db,
                           "INSERT INTO vals(key, name, type, data, seq) VALUES(?1, ?2, 1, ?3, 1) "
                           "ON CONFLICT(key, name) DO UPDATE SET data = excluded.data",
                           -1, &upsert, nullptr);
        sqlite3_prepare_v2(db, "COMMIT", -1, &commit, nullptr);
    }
};

RawConnection& raw() {
    static RawConnection connection;
    return connection;
}

void prepare() {
    static bool done = false;
    if (!done) {
        done = true;
        REG::WriteLong(kKey, "Number", 42);
        REG::Write(kKey, "Text", "initial");
    }
}

void Raw_PreparedSelect(benchmark::State& state) {
    prepare();
    RawConnection& c = raw();
    for (auto _ : state) {
        sqlite3_bind_int64(c.select, 1, c.keyId);
        sqlite3_bind_text(c.select, 2, "Number", -1, SQLITE_STATIC);
        if (sqlite3_step(c.select) == SQLITE_ROW) {
            std::uint32_t value;
            std::memcpy(&value, sqlite3_column_blob(c.select, 1), sizeof value);
            benchmark::DoNotOptimize(value);
        }
        sqlite3_reset(c.select);
    }
}
BENCHMARK(Raw_PreparedSelect);

void Reg_GetLong(benchmark::State& state) {
    prepare();
    for (auto _ : state) {
        benchmark::DoNotOptimize(REG::GetLong(kKey, "Number", 0));
    }
}
BENCHMARK(Reg_GetLong);

void Raw_UpsertTransaction(benchmark::State& state) {
    prepare();
    RawConnection& c = raw();
    // The text alternates, since SQLite writes nothing for a row overwritten unchanged.
    const char* const texts[2] = {"a value of text", "another value!!"};
    std::uint64_t i = 0;
    for (auto _ : state) {
        sqlite3_step(c.begin);
        sqlite3_reset(c.begin);
        sqlite3_bind_int64(c.upsert, 1, c.keyId);
        sqlite3_bind_text(c.upsert, 2, "RawText", -1, SQLITE_STATIC);
        sqlite3_bind_blob(c.upsert, 3, texts[i++ & 1], 16, SQLITE_STATIC);
        sqlite3_step(c.upsert);
        sqlite3_reset(c.upsert);
        sqlite3_step(c.commit);
        sqlite3_reset(c.commit);
    }
}
BENCHMARK(Raw_UpsertTransaction);

void Reg_Write(benchmark::State& state) {
    prepare();
    const char* const texts[2] = {"a value of text", "another value!!"};
    std::uint64_t i = 0;
    for (auto _ : state) {
        REG::Write(kKey, "Text", texts[i++ & 1]);
    }
}
BENCHMARK(Reg_Write);

void EventHelper_Unchanged(benchmark::State& state) {
    prepare();
    REG::CRegistryDWord record{false, 0, kKey, "Number"};
    REG::CRegistryKeyDWordEventHelper helper(record);
    unsigned long value = 0;
    helper.GetRegistryValue(value);  // the first call reads and arms the notification
    for (auto _ : state) {
        benchmark::DoNotOptimize(helper.GetRegistryValue(value));
    }
}
BENCHMARK(EventHelper_Unchanged);

}  // namespace

int main(int argc, char** argv) {
    char dir[] = "/tmp/tessel-bench-registry-XXXXXX";
    if (::mkdtemp(dir) == nullptr) {
        return 1;
    }
    ::setenv("TESSEL_REGISTRY_DIR", dir, 1);
    const int rc = TesselBench::RunWithRatios(argc, argv,
                                              {
                                                  {"EventHelper_Unchanged", "", 50.0},
                                                  {"Reg_GetLong", "Raw_PreparedSelect", 3.0},
                                                  {"Reg_Write", "Raw_UpsertTransaction", 1.5},
                                              });
    std::error_code ignored;
    std::filesystem::remove_all(dir, ignored);
    return rc;
}
