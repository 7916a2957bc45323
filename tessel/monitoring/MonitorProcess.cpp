#include "tessel/monitoring/MonitorProcess.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <exception>
#include <ostream>
#include <vector>

#include <boost/filesystem/operations.hpp>

#include "tessel/host/TempDirectory.h"
#include "tessel/logging/ILogging.h"
#include "tessel/platform/Clock.h"
#include "tessel/platform/CrashHandling.h"
#include "tessel/platform/ExecutableVersion.h"
#include "tessel/platform/Process.h"
#include "tessel/platform/StackTrace.h"
#include "tessel/platform/Thread.h"

namespace Platform = Tessel::Platform;

const std::string MonitorProcess::PROCESS_STATS_IDENTIFIER =
    std::string("ProcessInfo") + CMonitorElement::DELIMITER + "Stats";

namespace {

// The library's build number.
const char* const kBuildNumber = "9062";

constexpr double kBytesPerMegabyte = 1048576.0;

// An element that stands in where the table refused a name (a root name so long that the
// path exceeds the limits): it is in no table, so its values are simply not published.
CMonitorElement* orUnlisted(CMonitorElement* element) {
    static CMonitorElement unlisted;
    return element != nullptr ? element : &unlisted;
}

// Counts the entries with the extension ".dmp" directly in folder, if it exists, adding to
// count as it goes. Throws what Boost.Filesystem throws.
void countDumpFiles(const boost::filesystem::path& folder, std::uint64_t& count) {
    if (!boost::filesystem::exists(folder)) {
        return;
    }
    for (boost::filesystem::directory_iterator it(folder), end; it != end; ++it) {
        if (it->path().extension() == ".dmp") {
            ++count;
        }
    }
}

}  // namespace

MonitorProcess::ThreadData::ThreadData(std::uint64_t threadId) {
    m_container.setBase("Threads/" + std::to_string(threadId));
    m_load = orUnlisted(m_container.add("Load", "%", true));
}

MonitorProcess::NetworkDevice::NetworkDevice(const std::string& name, std::uint32_t index)
    : m_index(index), m_name(name), m_container("/Server/Net/" + name + std::to_string(index)) {
    m_upload = orUnlisted(m_container.findOrAdd("Upload", "kB", true));
    m_download = orUnlisted(m_container.findOrAdd("Download", "kB", true));
    m_uploadSpeed = orUnlisted(m_container.findOrAdd("UpLoadSpeed", "kB/s", true));
    m_downloadSpeed = orUnlisted(m_container.findOrAdd("DownLoadSpeed", "kB/s", true));
    m_bandwidth = orUnlisted(m_container.findOrAdd("Bandwidth", "kB/s", true));
    m_mtu = orUnlisted(m_container.findOrAdd("Mtu", "bytes", true));
}

MonitorProcess::MonitorProcess()
    : m_processors(nullptr),
      m_running(false),
      m_memoryContainer(std::string("ProcessInfo") + CMonitorElement::DELIMITER + "Memory"),
      m_statsContainer(PROCESS_STATS_IDENTIFIER),
      m_serverContainer(std::string(1, CMonitorElement::DELIMITER) + "Server"),
      m_lastProcessSample(getCurrentSysTime()),
      m_lastThreadSample(m_lastProcessSample),
      m_generation(0),
      m_lastTotal(0),
      m_lastIdle(0),
      m_idle{0, 0},
      m_kernel{0, 0},
      m_user{0, 0},
      m_tempDirectory(CTempDirectory::GetTempDirectory()),
      m_secondTempDirectory(CTempDirectory::GetOndrelTempDirectory()),
      m_driveC("/") {
    m_processors = orUnlisted(m_serverContainer.findOrAdd("Stats/Processors", "", true));

    m_pageFaultCount = orUnlisted(m_memoryContainer.add("PageFaultCount", "", true));
    m_peakWorkingSetSize = orUnlisted(m_memoryContainer.add("PeakWorkingSetSize", "MB", true));
    m_workingSetSize = orUnlisted(m_memoryContainer.add("WorkingSetSize", "MB", true));
    m_quotaPeakPagedPoolUsage =
        orUnlisted(m_memoryContainer.add("QuotaPeakPagedPoolUsage", "MB", true));
    m_quotaPeakNonPagedPoolUsage =
        orUnlisted(m_memoryContainer.add("QuotaPeakNonPagedPoolUsage", "MB", true));
    m_quotaNonPagedPoolUsage =
        orUnlisted(m_memoryContainer.add("QuotaNonPagedPoolUsage", "MB", true));
    m_pagefileUsage = orUnlisted(m_memoryContainer.add("PagefileUsage", "MB", true));
    m_peakPagefileUsage = orUnlisted(m_memoryContainer.add("PeakPagefileUsage", "MB", true));
    m_privateUsage = orUnlisted(m_memoryContainer.add("PrivateUsage", "MB", true));

    m_threadCount = orUnlisted(m_statsContainer.add("ThreadCount", "", true));
    m_handleCount = orUnlisted(m_statsContainer.add("HandleCount", "", true));
    m_cpu = orUnlisted(m_statsContainer.add("CPU", "%", true));
    m_upTime = orUnlisted(m_statsContainer.add("UpTime", "s", true));
    m_build = orUnlisted(m_statsContainer.add("Build", "", true));
    m_applicationVersionNumber =
        orUnlisted(m_statsContainer.add("ApplicationVersionNumber", "", true));
    m_pid = orUnlisted(m_statsContainer.add("PID", "", true));
    m_heartBeat = orUnlisted(m_statsContainer.add("HeartBeat", "", true));

    m_serverCpu = orUnlisted(m_serverContainer.findOrAdd("Stats/CPU", "%", true));
    m_memoryLoad = orUnlisted(m_serverContainer.findOrAdd("Memory/MemoryLoad", "%", true));
    m_totalPhys = orUnlisted(m_serverContainer.findOrAdd("Memory/TotalPhys", "MB", true));
    m_availPhys = orUnlisted(m_serverContainer.findOrAdd("Memory/AvailPhys", "MB", true));
    m_totalPageFile = orUnlisted(m_serverContainer.findOrAdd("Memory/TotalPageFile", "MB", true));
    m_availPageFile = orUnlisted(m_serverContainer.findOrAdd("Memory/AvailPageFile", "MB", true));
    m_totalVirtual = orUnlisted(m_serverContainer.findOrAdd("Memory/TotalVirtual", "MB", true));
    m_availVirtual = orUnlisted(m_serverContainer.findOrAdd("Memory/AvailVirtual", "MB", true));
    m_availExtendedVirtual =
        orUnlisted(m_serverContainer.findOrAdd("Memory/AvailExtendedVirtual", "MB", true));
    m_driveCFree = orUnlisted(m_serverContainer.findOrAdd("Dev/C/Free", "%", true));
    m_driveCUsed = orUnlisted(m_serverContainer.findOrAdd("Dev/C/Used", "MB", true));
    m_driveCTotal = orUnlisted(m_serverContainer.findOrAdd("Dev/C/Total", "MB", true));
    m_driveDFree = orUnlisted(m_serverContainer.findOrAdd("Dev/D/Free", "%", true));
    m_driveDUsed = orUnlisted(m_serverContainer.findOrAdd("Dev/D/Used", "MB", true));
    m_driveDTotal = orUnlisted(m_serverContainer.findOrAdd("Dev/D/Total", "MB", true));
    m_dumpCount = orUnlisted(m_serverContainer.findOrAdd("DumpCount", "", true));

    m_processors->set(static_cast<double>(Platform::GetNumberOfProcessors()));
    m_build->set(std::atof(kBuildNumber));
    m_applicationVersionNumber->set(GetExecutableVersion());
    m_pid->set(static_cast<double>(Platform::GetCurrentProcessId()));

    // Drive d: is the temp directory's file system when that is not the root's.
    std::uint64_t rootId = 0;
    std::uint64_t tempId = 0;
    const std::string temp = m_tempDirectory.string();
    if (!temp.empty() && Platform::GetFileSystemId(m_driveC.c_str(), &rootId) &&
        Platform::GetFileSystemId(temp.c_str(), &tempId) && rootId != tempId) {
        m_driveD = temp;
    }

    setupNetworkMonitoring();
}

MonitorProcess::~MonitorProcess() {
    stop();
}

void MonitorProcess::start() {
    if (m_running.exchange(true)) {
        return;
    }
    m_updateThread = boost::thread([this] { update(); });
}

void MonitorProcess::stop() {
    bool wasRunning = false;
    {
        // Under the pause's mutex, so that the update thread cannot miss the change between
        // testing running and starting its pause.
        std::lock_guard<std::mutex> lock(m_sleepMutex);
        wasRunning = m_running.exchange(false);
    }
    if (!wasRunning) {
        return;
    }
    m_sleepCondition.notify_all();
    if (m_updateThread.joinable()) {
        m_updateThread.join();
    }
}

void MonitorProcess::update() {
    Platform::EnsureAlternateSignalStack();
    while (m_running) {
        updateOnce();
        {
            std::unique_lock<std::mutex> lock(m_sleepMutex);
            m_sleepCondition.wait_for(lock, std::chrono::milliseconds(1000),
                                      [this] { return !m_running; });
        }
        if (!m_running) {
            break;
        }
        m_upTime->increment(1);
    }
}

void MonitorProcess::updateOnce() {
    updateProcessMemoryStats();
    updateProcessCPUStats();
    calculateThreadsCpuLoad();
    calculateServerCPULoad();
    updateServerMemoryStats();
    updateFreeDiskSpace();
    updateDumpCounter();
    updateNetworkTraffic();
    m_heartBeat->start();
}

void MonitorProcess::updateProcessMemoryStats() {
    // The handle count has no step of its own; it is read with the process's memory.
    m_handleCount->set(static_cast<double>(Platform::GetProcessHandleCount()));
    Platform::PROCESS_MEMORY_COUNTERS_EX counters;
    if (!Platform::GetProcessMemoryInfo(&counters)) {
        return;
    }
    const auto megabytes = [](std::uint64_t bytes) {
        return static_cast<double>(bytes) / kBytesPerMegabyte;
    };
    m_pageFaultCount->set(static_cast<double>(counters.PageFaultCount));
    m_peakWorkingSetSize->set(megabytes(counters.PeakWorkingSetSize));
    m_workingSetSize->set(megabytes(counters.WorkingSetSize));
    m_quotaPeakPagedPoolUsage->set(megabytes(counters.QuotaPeakPagedPoolUsage));
    m_quotaPeakNonPagedPoolUsage->set(megabytes(counters.QuotaPeakNonPagedPoolUsage));
    m_quotaNonPagedPoolUsage->set(megabytes(counters.QuotaNonPagedPoolUsage));
    m_pagefileUsage->set(megabytes(counters.PagefileUsage));
    m_peakPagefileUsage->set(megabytes(counters.PeakPagefileUsage));
    m_privateUsage->set(megabytes(counters.PrivateUsage));
}

void MonitorProcess::updateProcessCPUStats() {
    const std::int64_t now = getCurrentSysTime();
    Platform::FILETIME kernel;
    Platform::FILETIME user;
    if (Platform::GetProcessTimes(&kernel, &user)) {
        const std::uint64_t kernelTime = fileTimeToInt64(kernel);
        const std::uint64_t userTime = fileTimeToInt64(user);
        double load = static_cast<double>((userTime - m_processTimes.m_userTime) +
                                          (kernelTime - m_processTimes.m_kernelTime)) /
                      static_cast<double>(now - m_lastProcessSample) * 100.0 / m_processors->get();
        if (load > 100.0) {
            load = 100.0;
        }
        m_cpu->set(std::floor(load));
        m_processTimes.m_kernelTime = kernelTime;
        m_processTimes.m_userTime = userTime;
    }
    m_lastProcessSample = now;
}

bool MonitorProcess::calculateThreadsCpuLoad() {
    std::vector<std::uint64_t> threadIds;
    if (!Platform::GetProcessThreadIds(threadIds) || threadIds.empty()) {
        return false;
    }
    const std::int64_t now = getCurrentSysTime();
    ++m_generation;
    const double elapsed = static_cast<double>(now - m_lastThreadSample);

    for (const std::uint64_t threadId : threadIds) {
        // Reading the times is what opening the thread is on this platform: a thread that
        // has ended since the listing is passed over.
        Platform::FILETIME kernel;
        Platform::FILETIME user;
        if (!Platform::GetThreadTimes(threadId, &kernel, &user)) {
            continue;
        }
        std::shared_ptr<ThreadData>& data = m_threads[threadId];
        if (!data) {
            data = std::make_shared<ThreadData>(threadId);
        }
        data->m_generation = m_generation;
        const std::uint64_t kernelTime = fileTimeToInt64(kernel);
        const std::uint64_t userTime = fileTimeToInt64(user);
        const double load = std::floor(
            static_cast<double>((kernelTime - data->m_kernelTime) + (userTime - data->m_userTime)) /
            elapsed * 100.0);
        data->m_load->set(load);
        data->m_kernelTime = kernelTime;
        data->m_userTime = userTime;
    }

    // Threads not seen in this sample have ended; their elements go with them.
    for (auto it = m_threads.begin(); it != m_threads.end();) {
        if (it->second->m_generation < m_generation) {
            it = m_threads.erase(it);
        } else {
            ++it;
        }
    }
    m_threadCount->set(static_cast<double>(m_threads.size()));
    m_lastThreadSample = now;
    return true;
}

void MonitorProcess::calculateServerCPULoad() {
    if (!Platform::GetSystemTimes(&m_idle, &m_kernel, &m_user)) {
        return;
    }
    const std::uint64_t idle = fileTimeToInt64(m_idle);
    const std::uint64_t total = fileTimeToInt64(m_kernel) + fileTimeToInt64(m_user);
    float ratio = 0.0f;
    if (total != m_lastTotal) {
        ratio = static_cast<float>(idle - m_lastIdle) / static_cast<float>(total - m_lastTotal);
    }
    m_serverCpu->set(static_cast<double>(static_cast<int>((1.0f - ratio) * 100.0f)));
    m_lastIdle = idle;
    m_lastTotal = total;
}

void MonitorProcess::updateServerMemoryStats() {
    Platform::MEMORYSTATUSEX status;
    if (!Platform::GlobalMemoryStatusEx(&status)) {
        return;
    }
    const auto megabytes = [](std::uint64_t bytes) { return static_cast<double>(bytes >> 20); };
    m_memoryLoad->set(static_cast<double>(status.dwMemoryLoad));
    m_totalPhys->set(megabytes(status.ullTotalPhys));
    m_availPhys->set(megabytes(status.ullAvailPhys));
    m_totalPageFile->set(megabytes(status.ullTotalPageFile));
    m_availPageFile->set(megabytes(status.ullAvailPageFile));
    m_totalVirtual->set(megabytes(status.ullTotalVirtual));
    m_availVirtual->set(megabytes(status.ullAvailVirtual));
    m_availExtendedVirtual->set(megabytes(status.ullAvailExtendedVirtual));
}

void MonitorProcess::updateDiskSpace(const std::string& path, CMonitorElement* free,
                                     CMonitorElement* used, CMonitorElement* total) {
    std::uint64_t available = 0;
    std::uint64_t size = 0;
    std::uint64_t freeBytes = 0;
    if (!Platform::GetDiskFreeSpaceExA(path.c_str(), &available, &size, &freeBytes)) {
        return;
    }
    used->set(static_cast<double>((size - available) / 1048576u));
    total->set(static_cast<double>(size / 1024u / 1024u));
    // A file system of size 0 has no share to show.
    free->set(size == 0
                  ? 0.0
                  : std::floor(static_cast<double>(available) / static_cast<double>(size) * 100.0));
}

void MonitorProcess::updateFreeDiskSpace() {
    updateDiskSpace(m_driveC, m_driveCFree, m_driveCUsed, m_driveCTotal);
    if (!m_driveD.empty()) {
        updateDiskSpace(m_driveD, m_driveDFree, m_driveDUsed, m_driveDTotal);
    }
}

void MonitorProcess::updateDumpCounter() {
    std::uint64_t count = 0;
    try {
        countDumpFiles(m_tempDirectory, count);
        if (!m_secondTempDirectory.empty()) {
            countDumpFiles(m_secondTempDirectory, count);
        }
    } catch (const std::exception& e) {
        ILogging::getInstance().log("MonitorProcess::updateDumpCounter", ILogging::Error,
                                    fmt::format("Exception: {}", e.what()));
    }
    m_dumpCount->set(static_cast<double>(count));
}

void MonitorProcess::setupNetworkMonitoring() {
    std::vector<Platform::DWORD> indexes;
    if (!Platform::GetIpAddrTableInterfaceIndexes(indexes)) {
        return;
    }
    for (const Platform::DWORD index : indexes) {
        Platform::MIB_IFROW row;
        row.dwIndex = index;
        if (!Platform::GetIfEntry(&row)) {
            continue;
        }
        const char* name = nullptr;
        switch (row.dwType) {
            case Platform::IF_TYPE_ETHERNET_CSMACD:
                name = "Eth";
                break;
            case Platform::IF_TYPE_SOFTWARE_LOOPBACK:
                name = "Loopback";
                break;
            case Platform::IF_TYPE_WIRELESS:
                name = "Wlan";
                break;
            default:
                continue;
        }
        // The entry of an interface with several addresses is replaced. The old device goes
        // first: the new one finds the same elements, which the old one's removal would
        // otherwise take from under it.
        m_networkDevices.erase(index);
        m_networkDevices[index] = std::make_shared<NetworkDevice>(name, index);
    }
}

void MonitorProcess::updateNetworkTraffic() {
    for (auto& entry : m_networkDevices) {
        NetworkDevice& device = *entry.second;
        Platform::MIB_IFROW row;
        row.dwIndex = device.m_index;
        if (!Platform::GetIfEntry(&row)) {
            continue;
        }
        const double sent = static_cast<double>(row.dwOutOctets >> 10);
        const double received = static_cast<double>(row.dwInOctets >> 10);
        const double upDelta = sent - device.m_upload->get();
        const double downDelta = received - device.m_download->get();
        device.m_upload->set(sent);
        device.m_download->set(received);
        device.m_bandwidth->set(static_cast<double>(row.dwSpeed >> 10));
        device.m_mtu->set(static_cast<double>(row.dwMtu));
        device.m_stopwatch.stop();
        const double seconds = device.m_stopwatch.get();
        device.m_downloadSpeed->set(downDelta / seconds);
        device.m_uploadSpeed->set(upDelta / seconds);
        device.m_stopwatch.start();
    }
}

void MonitorProcess::getStackTrace(long processId, long threadId, std::ostream& stream) {
    if (processId == 0 || threadId == 0) {
        return;
    }
    std::vector<std::uintptr_t> addresses;
    if (!Platform::CaptureThreadStack(processId, threadId, addresses)) {
        return;
    }
    const std::vector<Platform::StackFrameInfo> frames = Platform::DescribeStack(addresses);
    for (std::size_t number = 0; number < frames.size(); ++number) {
        std::string name = frames[number].name;
        name.erase(std::remove(name.begin(), name.end(), ' '), name.end());
        stream << '#' << number << "  " << (name.empty() ? std::string("---") : name);
        if (!frames[number].file.empty()) {
            stream << " --> " << frames[number].file;
        }
        if (frames[number].line > 0) {
            stream << ':' << frames[number].line;
        }
        stream << "\r\n";
    }
}

std::int64_t MonitorProcess::getCurrentSysTime() {
    return Platform::GetSystemTimeTicks();
}

std::uint64_t MonitorProcess::fileTimeToInt64(const Platform::FILETIME& time) {
    return Platform::FromFileTime(time);
}

double MonitorProcess::GetExecutableVersion() {
    std::uint16_t parts[4] = {};
    if (!Platform::GetExecutableFileVersion(parts)) {
        return 0.0;
    }
    const std::uint32_t version =
        ((static_cast<std::uint32_t>(parts[0]) * 100u + parts[1]) * 100u + parts[2]) * 10000u +
        parts[3];
    return static_cast<double>(version);
}
