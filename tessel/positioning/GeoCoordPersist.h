// CGeoCoordPersist: a CGeoCoord handed around where persistable objects are expected.
//
// It adds no data; its persistence operations are those of CGeoCoord, with the same 24-byte
// form, and its copies copy the three numbers.
#pragma once

#include <cstddef>

#include "tessel/Export.h"
#include "tessel/positioning/GeoCoord.h"

class TESSEL_API CGeoCoordPersist : public CGeoCoord {
  public:
    CGeoCoordPersist() = default;
    CGeoCoordPersist(const CGeoCoordPersist& other) = default;
    CGeoCoordPersist& operator=(const CGeoCoordPersist& other) = default;
    ~CGeoCoordPersist() override = default;

    bool loadData(const unsigned char* buffer, size_t size) override;
    void saveData(unsigned char* buffer, size_t size) const override;
    size_t getSize() const override;
};
