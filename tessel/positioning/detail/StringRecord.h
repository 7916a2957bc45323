// Records made of strings alone, each in the static form of CPersistableString, one after
// the other: the size, the save and the load of such a record over its fields in wire order.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <string>

#include "tessel/persistence/PersistableString.h"

namespace Tessel::Positioning {

// The bytes of the fields' forms together.
inline size_t StringRecordSize(std::initializer_list<const std::string*> fields) {
    size_t size = 0;
    for (const std::string* field : fields) {
        size += CPersistableString::getSize(*field);
    }
    return size;
}

// Writes the fields at their running offsets; nothing for a null buffer or one smaller than
// the record.
inline void SaveStringRecord(std::initializer_list<const std::string*> fields,
                             unsigned char* buffer, size_t size) {
    if (buffer == nullptr || StringRecordSize(fields) > size) {
        return;
    }
    size_t offset = 0;
    for (const std::string* field : fields) {
        CPersistableString::saveData(*field, buffer + offset, size - offset);
        offset += CPersistableString::getSize(*field);
    }
}

// Reads the fields at their running offsets, each from the bytes left; false for a null
// buffer and at the first field that cannot be read, with the fields before it changed.
inline bool LoadStringRecord(std::initializer_list<std::string*> fields,
                             const unsigned char* buffer, size_t size) {
    if (buffer == nullptr) {
        return false;
    }
    size_t offset = 0;
    for (std::string* field : fields) {
        if (offset > size ||
            !CPersistableString::loadData(*field, buffer + offset, size - offset)) {
            return false;
        }
        offset += CPersistableString::getSize(*field);
    }
    return true;
}

}  // namespace Tessel::Positioning
