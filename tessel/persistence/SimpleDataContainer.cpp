#include "tessel/persistence/SimpleDataContainer.h"

#include "tessel/persistence/detail/ValueBytes.h"

using namespace Tessel::Persistence::Detail;

namespace {

constexpr size_t kCountBytes = 4;
constexpr size_t kKeyBytes = 4;

// The next instance number: a plain read and write of counter, no atomic increment.
std::uint64_t nextInstanceNr(std::atomic<std::uint64_t>& counter) {
    const std::uint64_t next = counter.load(std::memory_order_relaxed) + 1;
    counter.store(next, std::memory_order_relaxed);
    return next;
}

}  // namespace

std::atomic<std::uint64_t> CSimpleDataContainer::s_InstanceCounter{0};

CSimpleDataContainer::CSimpleDataContainer()
    : m_ui64InstanceNr(nextInstanceNr(s_InstanceCounter)) {}

CSimpleDataContainer::CSimpleDataContainer(const CSimpleDataContainer& source)
    : IPersistData(),
      m_mapValues(source.m_mapValues),
      m_ui64InstanceNr(nextInstanceNr(s_InstanceCounter)) {}

CSimpleDataContainer& CSimpleDataContainer::operator=(const CSimpleDataContainer& source) {
    Assign(source);
    return *this;
}

void CSimpleDataContainer::Assign(const CSimpleDataContainer& source) {
    if (this != &source) {
        m_mapValues = source.m_mapValues;
    }
}

void CSimpleDataContainer::Clear() {
    m_mapValues.clear();
}

std::uint64_t CSimpleDataContainer::MapKey(long key) {
    return static_cast<std::uint64_t>(static_cast<std::int64_t>(static_cast<std::int32_t>(key)));
}

template <class T>
void CSimpleDataContainer::SetEntry(long key, const T& value) {
    m_mapValues[MapKey(key)].SetValue(value);
}

template <class T>
int CSimpleDataContainer::GetEntry(long key, T& value) const {
    const auto found = m_mapValues.find(MapKey(key));
    return found != m_mapValues.end() ? found->second.GetValue(value) : 0;
}

void CSimpleDataContainer::SetValue(long key, long value) {
    SetEntry(key, value);
}

void CSimpleDataContainer::SetValue(long key, long long value) {
    SetEntry(key, value);
}

void CSimpleDataContainer::SetValue(long key, double value) {
    SetEntry(key, value);
}

void CSimpleDataContainer::SetValue(long key, const CStringA& value) {
    SetEntry(key, value);
}

int CSimpleDataContainer::GetValue(long key, long& value) const {
    return GetEntry(key, value);
}

int CSimpleDataContainer::GetValue(long key, long long& value) const {
    return GetEntry(key, value);
}

int CSimpleDataContainer::GetValue(long key, double& value) const {
    return GetEntry(key, value);
}

int CSimpleDataContainer::GetValue(long key, CStringA& value) const {
    return GetEntry(key, value);
}

bool CSimpleDataContainer::loadData(const unsigned char* buffer, size_t size) {
    std::uint32_t count = 0;
    if (!ReadAt(buffer, size, 0, count)) {
        return false;
    }
    size_t position = kCountBytes;
    for (std::uint32_t entry = 0; entry < count; ++entry) {
        std::uint32_t key = 0;
        if (!ReadAt(buffer, size, position, key)) {
            return false;
        }
        position += kKeyBytes;
        CSimpleVariant& value = m_mapValues[key];
        if (!value.loadData(buffer + position, size - position)) {
            return false;
        }
        position += value.getSize();
    }
    return true;
}

void CSimpleDataContainer::saveData(unsigned char* buffer, size_t size) const {
    if (buffer == nullptr || getSize() > size) {
        return;
    }
    WriteAt(buffer, 0, static_cast<std::uint32_t>(m_mapValues.size()));
    size_t position = kCountBytes;
    for (const auto& [key, value] : m_mapValues) {
        WriteAt(buffer, position, static_cast<std::uint32_t>(key));
        position += kKeyBytes;
        value.saveData(buffer + position, size - position);
        position += value.getSize();
    }
}

size_t CSimpleDataContainer::getSize() const {
    size_t size = kCountBytes;
    for (const auto& entry : m_mapValues) {
        size += kKeyBytes + entry.second.getSize();
    }
    return size;
}
