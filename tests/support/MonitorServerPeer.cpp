// A second process with a monitor server, for the tests of shared ports and of load.
//
// Usage: tessel_monitor_server_peer OWN_PORT HOST_INFO_PORT ELEMENTS NAME
// Creates ELEMENTS elements "/NAME/G<g>/E<i>" (100 per group), starts a CTelnetServer on the
// two ports (0: none), prints "ready" and serves until its standard input ends.
#include <iostream>
#include <string>

#include "tessel/monitoring/MonitorElementDatabase.h"
#include "tessel/monitoring/TelnetServer.h"

int main(int argc, char** argv) {
    if (argc != 5) {
        std::cerr << "usage: " << argv[0] << " OWN_PORT HOST_INFO_PORT ELEMENTS NAME\n";
        return 2;
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
