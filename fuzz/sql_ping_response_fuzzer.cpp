// Fuzz target for CSQLPing::DecodeResponse, which decodes every datagram that reaches the
// discovery socket: any host of the network may send one.
//
// Input: the whole datagram, header included, handed over in a buffer of exactly its size.
//
// Checks that hold for every input (a broken one aborts with the input's size on stderr):
//  - the datagram is not changed;
//  - true appends exactly one server to the list, false appends nothing;
//  - no text field of a server holds a ';', and together they are no longer than the text;
//  - where the text names "ServerName;", the server name is what follows its first
//    occurrence up to the next ';'.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "tessel/comms/SQLPing.h"

namespace {

// Opens the discovery object's decoder to the target. Its search runs once, at the start.
class Decoder : public CSQLPing {
  public:
    Decoder() : CSQLPing("127.0.0.1") {}
    using CSQLPing::DecodeResponse;
};

Decoder* decoder = nullptr;

void fail(const char* what, std::size_t size) {
    std::fprintf(stderr, "%s (input of %zu bytes)\n", what, size);
    std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // The log and the registry of this run stay in a folder of its own.
    char folder[] = "/tmp/tessel-fuzz-XXXXXX";
    if (mkdtemp(folder) != nullptr) {
        setenv("TESSEL_REGISTRY_DIR", folder, 1);
        setenv("TMPDIR", folder, 1);
    }
    decoder = new Decoder();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > 64000) {
        return 0;  // longer than any datagram the listener receives
    }
    std::unique_ptr<char[]> datagram(new char[size == 0 ? 1 : size]);
    std::memcpy(datagram.get(), data, size);
    auto& servers = *decoder->GetAllSQLServers();
    servers.clear();

    const bool decoded = decoder->DecodeResponse(datagram.get(), static_cast<int>(size), decoder);
    if (std::memcmp(datagram.get(), data, size) != 0) {
        fail("the datagram was changed", size);
    }
    if (servers.size() != (decoded ? 1u : 0u)) {
        fail("the list does not match the result", size);
    }
    if (!decoded) {
        return 0;
    }
    const CSQLPing::_SQL_SERVER_DATA& server = servers.front();
    const std::string text =
        size > 3 ? std::string(reinterpret_cast<const char*>(data) + 3, size - 3) : std::string();
    std::size_t total = 0;
    for (const std::string* field : {&server.strServerName, &server.strInstanceName,
                                     &server.strVersion, &server.strNamedPipe}) {
        if (field->find(';') != std::string::npos) {
            fail("a field holds a ';'", size);
        }
        total += field->size();
    }
    if (total > text.size()) {
        fail("the fields are longer than the text", size);
    }
    const std::size_t key = text.find("ServerName;");
    if (key != std::string::npos) {
        const std::size_t start = key + std::strlen("ServerName;");
        if (server.strServerName != text.substr(start, text.find(';', start) - start)) {
            fail("the server name is not the text behind the first key", size);
        }
    }
    return 0;
}
