// Satellite identifiers: the state rules, the order, the wire form and the texts of sets of
// satellite systems.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "tessel/host/Util.h"
#include "tessel/positioning/PrnID.h"

namespace {

using Prn = CPrnID;

TEST(PrnID, StateOrderAndWireForm) {
    const Prn zero(0, Prn::PrnGlonass);
    EXPECT_TRUE(zero.GetPrn() == 0 && zero.GetPrnType() == Prn::PrnGlonass);
    EXPECT_FALSE(zero.IsSet() || zero.IsValid());
    EXPECT_EQ(Prn().GetPrnType(), 0);

    Prn prn(7, Prn::PrnGalileo);
    EXPECT_FALSE(prn.SetPrn(0));
    EXPECT_EQ(prn.GetPrn(), 7);
    EXPECT_FALSE(prn.SetPrnType(static_cast<Prn::PrnType>(129)));
    EXPECT_TRUE(prn.SetPrnType(static_cast<Prn::PrnType>(3)));
    EXPECT_TRUE(prn.SetPrnType(Prn::PrnGnss) && prn.IsValid());
    prn.Clear();
    EXPECT_EQ(prn, Prn(0, Prn::PrnGps));

    std::vector<Prn> prns = {{1, Prn::PrnGlonass}, {32, Prn::PrnGps}, {2, Prn::PrnGps}};
    std::sort(prns.begin(), prns.end());
    EXPECT_EQ(prns, (std::vector<Prn>{{2, Prn::PrnGps}, {32, Prn::PrnGps}, {1, Prn::PrnGlonass}}));

    const unsigned char bytes[] = {0, 200};
    EXPECT_FALSE(prn.loadData(bytes, 1) || prn.loadData(nullptr, 2));
    EXPECT_TRUE(prn.loadData(bytes, 2));
    EXPECT_TRUE(prn.GetPrnType() == 200 && !prn.IsValid());
    unsigned char saved[3] = {9, 9, 9};
    Prn(32, Prn::PrnQzss).saveData(saved, 1);
    EXPECT_EQ(saved[0], 9);
    Prn(32, Prn::PrnQzss).saveData(saved, 3);
    EXPECT_EQ(std::vector(saved, saved + 3), (std::vector<unsigned char>{32, 64, 9}));

    EXPECT_EQ(Prn::PrnBit2Type(Prn::PrnBeiDouBit), Prn::PrnBeiDou);
    EXPECT_EQ(Prn::PrnType2Bit(Prn::PrnGnss), Prn::PrnGnssBit);
    EXPECT_EQ(Prn::PrnType2Bit(static_cast<Prn::PrnType>(3)), Prn::PrnGpsBit);
}

struct TextCase {
    long mask;
    char letter;
    const char* letters;  // separator " "
    const char* names;    // separator ", "
    const char* shortNames;
    const char* display;
};

TEST(PrnID, TextsOfSetsOfSystems) {
    const TextCase cases[] = {
        {0, '-', "- - - - -", "No SatSystem", "No SatSystem", "No SatSystem"},
        {1, 'G', "G - - - -", "GPS", "GPS", "GPS"},
        {3, 'M', "G R - - -", "GPS, GLO", "GPS, GLO", "Glonass"},
        {4, '-', "- - - - -", "", "", "No SatSystem"},
        {9, 'M', "G - E - -", "GPS, GALILEO", "GPS, GAL", "Galileo"},
        {16, 'S', "- - - - -", "SBAS", "SBAS", "SBAS"},
        {32, 'C', "- - - C -", "BDS", "BDS", "BeiDou"},
        {96, 'M', "- - - C J", "BDS, QZSS", "BDS, QZSS", "QZSS"},
        {255, 'M', "G R E C J", "GPS, GLO, GALILEO, SBAS, BDS, QZSS",
         "GPS, GLO, GAL, SBAS, BDS, QZSS", "QZSS"},
    };
    for (const TextCase& c : cases) {
        SCOPED_TRACE(c.mask);
        EXPECT_EQ(Prn::GetPrnTypeChar(c.mask), c.letter);
        EXPECT_EQ(Prn::GetPrnTypeChar(c.mask, " "), c.letters);
        EXPECT_EQ(Prn::GetPrnTypeName(c.mask, ", "), c.names);
        EXPECT_EQ(Prn::GetPrnTypeNameShort(c.mask, ", "), c.shortNames);
        EXPECT_EQ(Prn::GetPrnTypeDisplayName(c.mask), c.display);
    }
    EXPECT_EQ(Prn::GetPrnTypeChar(16, ""), "-----");
    EXPECT_EQ(Prn(5, Prn::PrnGlonass).GetPrnTypeChar(), 'R');

    EXPECT_EQ(CUtil::SatelliteSystemToWString(0), L"");
    EXPECT_EQ(CUtil::SatelliteSystemToWString(0x109), L"Gps,Galileo");
    EXPECT_EQ(CUtil::SatelliteSystemToWString(255),
              L"Gps,Glonass,Transit,Galileo,SBAS,BeiDou,QZSS,GNSS");
}

}  // namespace
