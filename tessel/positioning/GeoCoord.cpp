#include "tessel/positioning/GeoCoord.h"

#include <cmath>
#include <limits>

#include "tessel/persistence/PackedField.h"
#include "tessel/positioning/GeoCalc.h"

using Tessel::LoadPackedField;
using Tessel::StorePackedField;

CGeoCoord::CGeoCoord()
    : m_dLon(std::numeric_limits<double>::quiet_NaN()),
      m_dLat(std::numeric_limits<double>::quiet_NaN()),
      m_dHeight(std::numeric_limits<double>::quiet_NaN()) {}

CGeoCoord::CGeoCoord(const double& lon, const double& lat, const double& height) {
    Set(lon, lat, height);
}

bool CGeoCoord::loadData(const unsigned char* buffer, size_t size) {
    if (buffer == nullptr || size < kSize) {
        return false;
    }
    m_dLon = LoadPackedField<double>(buffer);
    m_dLat = LoadPackedField<double>(buffer + 8);
    m_dHeight = LoadPackedField<double>(buffer + 16);
    return true;
}

void CGeoCoord::saveData(unsigned char* buffer, size_t size) const {
    if (buffer == nullptr || size < kSize) {
        return;
    }
    StorePackedField(buffer, m_dLon);
    StorePackedField(buffer + 8, m_dLat);
    StorePackedField(buffer + 16, m_dHeight);
}

void CGeoCoord::Set(const double& lon, const double& lat, const double& height) {
    m_dLon = lon;
    m_dLat = lat;
    m_dHeight = height;
    TrimTo2Pi(m_dLon);
}

void CGeoCoord::Set(const CGeoCoord& other) {
    m_dLon = other.m_dLon;
    m_dLat = other.m_dLat;
    m_dHeight = other.m_dHeight;
}

bool CGeoCoord::operator==(const CGeoCoord& other) const {
    return m_dLon == other.m_dLon && m_dLat == other.m_dLat && m_dHeight == other.m_dHeight;
}

void CGeoCoord::TrimTo2Pi(double& angle) {
    angle = std::fmod(angle, CGeoCalc::kTwoPi);
    if (angle < 0.0) {
        angle += CGeoCalc::kTwoPi;
    }
}
