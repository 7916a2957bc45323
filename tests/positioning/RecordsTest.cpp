// The coordinate and the rover records: their exact bytes, every truncated input, and the
// coordinate's unset state and longitude trimming.
#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "support/Bytes.h"
#include "tessel/positioning/GeoCoordPersist.h"
#include "tessel/positioning/ZemblaRequest.h"
#include "tessel/positioning/ZemblaResponse.h"

namespace {

using TesselTest::Bytes;

// What record saves into a buffer of size bytes that held 0xEE.
Bytes Saved(const IPersistData& record, std::size_t size) {
    Bytes buffer(size, 0xEE);
    record.saveData(buffer.data(), buffer.size());
    return buffer;
}

// Loads the first size bytes of bytes, copied so that a read beyond them is caught.
template <class Record>
bool LoadPrefix(Record& record, const Bytes& bytes, std::size_t size) {
    const Bytes prefix(bytes.begin(), bytes.begin() + static_cast<long>(size));
    return record.loadData(prefix.data(), size);
}

TEST(Records, CoordinateBytesUnsetStateAndTrimming) {
    CGeoCoordPersist coord;
    EXPECT_FALSE(coord == coord);
    EXPECT_TRUE(std::isnan(coord.GetLon()) && std::isnan(coord.GetHeight()));

    coord.Set(-0.1, -0.5, 2.0);
    EXPECT_NEAR(coord.GetLon(), 6.18318530717958, 1e-12);
    EXPECT_EQ(coord.GetLat(), -0.5);
    coord.Set(7.0, -0.5, 2.0);
    EXPECT_NEAR(coord.GetLon(), 0.71681469282041, 1e-12);
    coord.Set(CGeoCoord(1.0, -0.5, 2.0));
    EXPECT_TRUE(coord == CGeoCoord(1.0, -0.5, 2.0));

    const Bytes golden = {0, 0,    0,    0, 0, 0, 0xF0, 0x3F, 0, 0, 0,    0,   0,
                          0, 0xE0, 0xBF, 0, 0, 0, 0,    0,    0, 0, 0x40, 0xEE};
    EXPECT_EQ(coord.getSize(), 24u);
    EXPECT_EQ(Saved(coord, 25), golden);
    EXPECT_EQ(Saved(coord, 23), Bytes(23, 0xEE));

    Bytes seven = golden;
    seven[6] = 0x1C;  // 7.0 as the longitude: kept as it is
    seven[7] = 0x40;
    CGeoCoordPersist loaded;
    EXPECT_FALSE(LoadPrefix(loaded, seven, 23));
    EXPECT_TRUE(std::isnan(loaded.GetLat()));
    EXPECT_TRUE(LoadPrefix(loaded, seven, 24));
    EXPECT_EQ(loaded.GetLon(), 7.0);
    EXPECT_EQ(loaded.GetHeight(), 2.0);
    EXPECT_FALSE(loaded.loadData(nullptr, 24));
}

TEST(Records, RequestBytesAndTruncations) {
    CZemblaRequest request;
    EXPECT_EQ(request.getSize(), 10u);
    EXPECT_FALSE(request.HasData());
    request.SetNonce("n1");
    EXPECT_FALSE(request.HasData());
    request.SetCertificate(std::string("cert"));
    EXPECT_TRUE(request.HasData());

    const Bytes golden = {2, 0, 0, 0, 'n', '1', 0, 4, 0, 0, 0, 'c', 'e', 'r', 't', 0};
    ASSERT_EQ(request.getSize(), golden.size());
    EXPECT_EQ(Saved(request, golden.size()), golden);
    EXPECT_EQ(Saved(request, golden.size() - 1), Bytes(golden.size() - 1, 0xEE));
    for (std::size_t size = 0; size < golden.size(); ++size) {
        CZemblaRequest loaded;
        EXPECT_FALSE(LoadPrefix(loaded, golden, size)) << size;
        EXPECT_EQ(loaded.GetNonce(), size >= 7 ? "n1" : "") << "read before the cut stays";
    }
    CZemblaRequest loaded;
    ASSERT_TRUE(LoadPrefix(loaded, golden, golden.size()));
    EXPECT_EQ(loaded.GetCertificate(), "cert");
}

TEST(Records, ResponseBytesInWireOrderAndTruncations) {
    CZemblaResponse response;
    response.SetNonce("ab");
    EXPECT_EQ(response.getSize(), 27u);
    response.SetErrorReason("E");
    response.SetCertificate("c");
    // Nonce, certificate, signature, error reason, rover type; an empty string is its length
    // alone, the byte behind it untouched.
    const Bytes golden = {2, 0, 0,    0, 'a', 'b', 0, 1,   0, 0, 0, 'c', 0, 0,   0,
                          0, 0, 0xEE, 1, 0,   0,   0, 'E', 0, 0, 0, 0,   0, 0xEE};
    ASSERT_EQ(response.getSize(), golden.size());
    EXPECT_EQ(Saved(response, golden.size()), golden);
    EXPECT_EQ(Saved(response, golden.size() - 1), Bytes(golden.size() - 1, 0xEE));

    // The empty rover type needs its length only, so the last byte may be missing.
    for (std::size_t size = 0; size <= golden.size(); ++size) {
        CZemblaResponse loaded;
        EXPECT_EQ(LoadPrefix(loaded, golden, size), size >= golden.size() - 1) << size;
    }
    CZemblaResponse loaded;
    ASSERT_TRUE(LoadPrefix(loaded, golden, golden.size()));
    EXPECT_EQ(loaded.GetNonce(), "ab");
    EXPECT_EQ(loaded.GetCertificate(), "c");
    EXPECT_EQ(loaded.GetErrorReason(), "E");
    EXPECT_EQ(loaded.GetSignature() + loaded.GetZemblaType(), "");

    response.SetZemblaType("rover");
    EXPECT_EQ(Saved(response, response.getSize())[4], 'a') << "the nonce stands at offset 4";
    EXPECT_FALSE(loaded.loadData(nullptr, 100));
}

}  // namespace
