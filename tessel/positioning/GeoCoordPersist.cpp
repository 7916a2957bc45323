#include "tessel/positioning/GeoCoordPersist.h"

bool CGeoCoordPersist::loadData(const unsigned char* buffer, size_t size) {
    return CGeoCoord::loadData(buffer, size);
}

void CGeoCoordPersist::saveData(unsigned char* buffer, size_t size) const {
    CGeoCoord::saveData(buffer, size);
}

size_t CGeoCoordPersist::getSize() const {
    return CGeoCoord::getSize();
}
