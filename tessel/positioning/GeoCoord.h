// CGeoCoord: one geodetic position, longitude first.
//
// Longitude and latitude in radians, height in metres above the ellipsoid. All three are NaN
// after default construction, which is how an unset coordinate is told: such a coordinate
// compares unequal to everything, itself included. Set keeps the longitude in [0, 2pi) by
// TrimTo2Pi; the other ways in (Set from another coordinate, loadData) store what they get.
//
// Serialised form, 24 bytes, little-endian IEEE doubles: longitude at 0, latitude at 8,
// height at 16.
//
// Lifetime: a value; copies copy the three numbers. Thread safety: none.
#pragma once

#include <cstddef>

#include "tessel/Export.h"
#include "tessel/persistence/IPersistData.h"

class TESSEL_API CGeoCoord : public IPersistData {
  public:
    // All three NaN.
    CGeoCoord();
    // As Set(lon, lat, height).
    CGeoCoord(const double& lon, const double& lat, const double& height);
    CGeoCoord(const CGeoCoord& other) = default;
    CGeoCoord& operator=(const CGeoCoord& other) = default;
    ~CGeoCoord() override = default;

    // Reads the three doubles as they are, without trimming. false for a null buffer or a
    // size below 24 (the coordinate is then unchanged).
    bool loadData(const unsigned char* buffer, size_t size) override;
    // Writes the 24 bytes; nothing for a null buffer or a size below 24.
    void saveData(unsigned char* buffer, size_t size) const override;
    // 24.
    size_t getSize() const override { return kSize; }

    // Stores the three, then trims the longitude with TrimTo2Pi; the latitude is not touched.
    void Set(const double& lon, const double& lat, const double& height);
    // Copies other, without trimming.
    void Set(const CGeoCoord& other);

    const double& GetLon() const { return m_dLon; }
    const double& GetLat() const { return m_dLat; }
    const double& GetHeight() const { return m_dHeight; }

    // All three equal; false wherever a NaN takes part.
    bool operator==(const CGeoCoord& other) const;

    // Brings angle (radians) into [0, 2pi): the remainder of fmod by 2pi, plus 2pi if it is
    // negative. A tiny negative angle gives 2pi itself, by rounding. NaN and infinities give
    // NaN.
    static void TrimTo2Pi(double& angle);

  private:
    static constexpr size_t kSize = 24;

    double m_dLon;
    double m_dLat;
    double m_dHeight;
};
