// A second process with a monitor server, for the tests of shared ports, of load and of
// running out of descriptors.
//
// Usage: tessel_monitor_server_peer OWN_PORT HOST_INFO_PORT ELEMENTS NAME [MAX_OPEN_FILES]
// Creates ELEMENTS elements "/NAME/G<g>/E<i>" (100 per group), lowers its limit of open
// descriptors (RLIMIT_NOFILE) to MAX_OPEN_FILES if given, starts a CTelnetServer on the two
// ports (0: none) with the settings of the registry, prints "ready" and serves until its
// standard input ends.
#include <sys/resource.h>

#include <iostream>
#include <string>

#include "tessel/logging/ILogging.h"
#include "tessel/monitoring/MonitorElementDatabase.h"
#include "tessel/monitoring/TelnetServer.h"

int main(int argc, char** argv) {
    if (argc != 5 && argc != 6) {
        std::cerr << "usage: " << argv[0]
                  << " OWN_PORT HOST_INFO_PORT ELEMENTS NAME [MAX_OPEN_FILES]\n";
        return 2;
    }
    if (argc == 6) {
        // As in a host process, the log stands and has written before the descriptors can
        // run out. (In a build with the undefined-behaviour sanitizer, the first check of a
        // virtual call on a type needs a descriptor: this call makes it for the log.)
        rlimit limit{};
        ::getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = std::stoul(argv[5]);
        ILogging::getInstance().log("MonitorServerPeer", ILogging::Info,
                                    "Open descriptors limited to " + std::string(argv[5]) + ".");
        if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) {
            std::cout << "failed: setrlimit" << std::endl;
            return 1;
        }
    }
    const int ownPort = std::stoi(argv[1]);
    const int hostInfoPort = std::stoi(argv[2]);
    const int elements = std::stoi(argv[3]);
    const std::string name = argv[4];

    MonitorElementDatabase& database = MonitorElementDatabase::getInstance();
    for (int i = 0; i < elements; ++i) {
        CMonitorElement* element = database.add(
            "/" + name + "/G" + std::to_string(i / 100) + "/E" + std::to_string(i % 100), "ms");
        element->set(i * 1.5);
    }
    try {
        CTelnetServer server(ownPort, hostInfoPort);
        server.start();
        std::cout << "ready" << std::endl;
        std::string line;
        while (std::getline(std::cin, line)) {
        }
    } catch (const std::exception& e) {
        std::cout << "failed: " << e.what() << std::endl;
        return 1;
    }
    return 0;
}
