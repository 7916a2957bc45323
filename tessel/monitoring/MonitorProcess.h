// MonitorProcess: the standard metrics of every process, and stack traces on request.
//
// Publishes, without any code of the host process, the machine's CPU load, memory, disks
// and network interfaces, and the process's CPU load, memory, threads, handles and uptime,
// a heartbeat and the number of crash dump files, refreshed by one update thread about once
// a second (one cycle: the update steps, then a pause of 1000 ms, then UpTime + 1).
//
// The element tree:
//   Server/Stats/CPU "%", Server/Stats/Processors, Server/Memory/{MemoryLoad "%", TotalPhys,
//   AvailPhys, TotalPageFile, AvailPageFile, TotalVirtual, AvailVirtual,
//   AvailExtendedVirtual "MB"}, Server/Dev/{C,D}/{Free "%", Used "MB", Total "MB"},
//   Server/DumpCount, Server/Net/<Eth|Loopback|Wlan><index>/{Upload "kB", Download "kB",
//   UpLoadSpeed "kB/s", DownLoadSpeed "kB/s", Bandwidth "kB/s", Mtu "bytes"}: outside the
//   process's own path, the same for every process of the machine;
//   <root>/<pid>/ProcessInfo/Stats/{ThreadCount, HandleCount, CPU "%", UpTime "s", Build,
//   ApplicationVersionNumber, PID, HeartBeat}, <root>/<pid>/ProcessInfo/Memory/* (the nine
//   process memory counters, sizes in "MB") and <root>/<pid>/Threads/<tid>/Load "%".
// Drive c: is the root file system; drive d: is the file system of the temp directory when
// that is another mount than the root's, and absent otherwise (its elements stay 0).
//
// Lifetime: made, started and deleted by MonitorElementDatabase (init). The destructor
// stops the update thread and removes every element of the tree. Must die before the
// element database.
//
// Thread safety: start and stop belong to the owner (the database). The update thread is
// the only writer of the elements; readers read them atomically. getStackTrace may be
// called from any thread while the update thread runs.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <iosfwd>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include <boost/filesystem/path.hpp>
#include <boost/thread/thread.hpp>

#include "tessel/Export.h"
#include "tessel/monitoring/MonitorElement.h"
#include "tessel/monitoring/MonitorElementContainer.h"
#include "tessel/platform/ProcessMetrics.h"

class TESSEL_API MonitorProcess {
  public:
    // "ProcessInfo/Stats": the base of the process's statistics elements.
    static const std::string PROCESS_STATS_IDENTIFIER;

    // Creates the element tree, sets the constant elements (Processors, Build,
    // ApplicationVersionNumber, PID), sets both last-sample times to now, stores the temp
    // directories and finds the network interfaces to publish.
    MonitorProcess();
    // Stops the update thread; the containers then remove every element.
    ~MonitorProcess();
    MonitorProcess(const MonitorProcess&) = delete;
    MonitorProcess& operator=(const MonitorProcess&) = delete;

    // Starts the update thread. Call once, after construction or after stop().
    void start();
    // If running: ends the update thread and joins it. It leaves its pause at once; a cycle
    // in progress is finished first. A second call does nothing.
    void stop();

    // Writes the stack of thread threadId of process processId onto stream, one line per
    // frame from #0 (where the thread was interrupted): "#<n>  <name>" with every blank of
    // the name removed, or "---" without a name; then " --> <file>" if known, and ":<line>"
    // if positive; then "\r\n". Writes nothing for an id of 0, a process other than this
    // one, a thread id that is not a thread of this process, or a thread that does not
    // answer within one second (one that blocks the trace signal, for one). Runs on the
    // caller's thread.
    void getStackTrace(long processId, long threadId, std::ostream& stream);

  private:
    friend class MonitorProcessBenchAccess;
    friend class MonitorProcessTestAccess;

    // Kernel and user time of the process or of a thread at its last sample, in ticks of
    // 100 ns.
    class CProcessingTime {
      public:
        virtual ~CProcessingTime() = default;
        std::uint64_t m_kernelTime = 0;
        std::uint64_t m_userTime = 0;
    };

    // One live thread of the process: its times and its element "Threads/<tid>/Load".
    // Destroying it removes the element.
    struct ThreadData : public CProcessingTime {
        explicit ThreadData(std::uint64_t threadId);
        ThreadData(const ThreadData&) = delete;
        ThreadData& operator=(const ThreadData&) = delete;

        std::uint64_t m_generation = 0;     // the sample in which the thread was last seen
        CMonitorElement* m_load = nullptr;  // "%" of one processor
        CMonitorElementContainer m_container;
    };

    // One network interface: its elements under "/Server/Net/<name><index>", and a
    // stopwatch element (in no table) that times the traffic between two cycles.
    struct NetworkDevice {
        NetworkDevice(const std::string& name, std::uint32_t index);
        NetworkDevice(const NetworkDevice&) = delete;
        NetworkDevice& operator=(const NetworkDevice&) = delete;

        std::uint32_t m_index;
        std::string m_name;
        CMonitorElementContainer m_container;
        CMonitorElement* m_upload;         // "kB" sent
        CMonitorElement* m_download;       // "kB" received
        CMonitorElement* m_uploadSpeed;    // "kB/s"
        CMonitorElement* m_downloadSpeed;  // "kB/s"
        CMonitorElement* m_bandwidth;      // "kB/s"
        CMonitorElement* m_mtu;            // "bytes"
        CMonitorElement m_stopwatch;
    };

    // The update thread: updateOnce, the pause of 1000 ms, UpTime + 1, while running.
    void update();
    // Steps 1 to 9 of a cycle: every update step and the heartbeat, without the pause.
    void updateOnce();
    void updateProcessMemoryStats();
    void updateProcessCPUStats();
    bool calculateThreadsCpuLoad();
    void calculateServerCPULoad();
    void updateServerMemoryStats();
    void updateFreeDiskSpace();
    void updateDiskSpace(const std::string& path, CMonitorElement* free, CMonitorElement* used,
                         CMonitorElement* total);
    void updateDumpCounter();
    void updateNetworkTraffic();
    void setupNetworkMonitoring();
    // System time now, in ticks of 100 ns since 1601-01-01 UTC.
    static std::int64_t getCurrentSysTime();
    static std::uint64_t fileTimeToInt64(const Tessel::Platform::FILETIME& time);
    // ((a * 100 + b) * 100 + c) * 10000 + d of the executable's version a.b.c.d, computed in
    // unsigned 32 bits; 0.0 when the executable has no version.
    static double GetExecutableVersion();

    CMonitorElement* m_processors;  // Server/Stats/Processors
    std::atomic<bool> m_running;

    CMonitorElementContainer m_memoryContainer;  // "ProcessInfo/Memory"
    CMonitorElement* m_pageFaultCount;
    CMonitorElement* m_peakWorkingSetSize;
    CMonitorElement* m_workingSetSize;
    CMonitorElement* m_quotaPeakPagedPoolUsage;
    CMonitorElement* m_quotaPeakNonPagedPoolUsage;
    CMonitorElement* m_quotaNonPagedPoolUsage;
    CMonitorElement* m_pagefileUsage;
    CMonitorElement* m_peakPagefileUsage;
    CMonitorElement* m_privateUsage;

    CMonitorElementContainer m_statsContainer;  // PROCESS_STATS_IDENTIFIER
    CMonitorElement* m_threadCount;
    CMonitorElement* m_handleCount;
    CMonitorElement* m_cpu;
    CMonitorElement* m_upTime;
    CMonitorElement* m_build;
    CMonitorElement* m_applicationVersionNumber;
    CMonitorElement* m_pid;
    CMonitorElement* m_heartBeat;
    CMonitorElement* m_serverCpu;
    CMonitorElement* m_memoryLoad;
    CMonitorElement* m_totalPhys;
    CMonitorElement* m_availPhys;
    CMonitorElement* m_totalPageFile;
    CMonitorElement* m_availPageFile;
    CMonitorElement* m_totalVirtual;
    CMonitorElement* m_availVirtual;
    CMonitorElement* m_availExtendedVirtual;
    CMonitorElement* m_driveCFree;
    CMonitorElement* m_driveCUsed;
    CMonitorElement* m_driveCTotal;
    CMonitorElement* m_driveDFree;
    CMonitorElement* m_driveDUsed;
    CMonitorElement* m_driveDTotal;
    CMonitorElement* m_dumpCount;

    CMonitorElementContainer m_serverContainer;  // "/Server"

    boost::thread m_updateThread;

    // The members below belong to the update thread (and to the constructor).
    CProcessingTime m_processTimes;
    std::int64_t m_lastProcessSample;                                // system time, 100 ns ticks
    std::int64_t m_lastThreadSample;                                 // system time, 100 ns ticks
    std::map<std::uint64_t, std::shared_ptr<ThreadData>> m_threads;  // by thread id
    std::uint64_t m_generation;
    std::uint64_t m_lastTotal;
    std::uint64_t m_lastIdle;
    Tessel::Platform::FILETIME m_idle;
    Tessel::Platform::FILETIME m_kernel;
    Tessel::Platform::FILETIME m_user;
    boost::filesystem::path m_tempDirectory;
    boost::filesystem::path m_secondTempDirectory;
    std::map<std::uint32_t, std::shared_ptr<NetworkDevice>> m_networkDevices;  // by index

    std::string m_driveC;  // "/"
    std::string m_driveD;  // the temp directory when it is another mount, else empty

    // The pause between cycles, which stop() cuts short.
    std::mutex m_sleepMutex;
    std::condition_variable m_sleepCondition;  // notified by stop(); guarded by m_sleepMutex
};
