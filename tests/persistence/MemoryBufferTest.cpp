// CMemoryBuffer and CMemoryBufferPersist: size rules, the saved form and loads of short input.
#include <gtest/gtest.h>

#include "PersistTest.h"
#include "tessel/persistence/MemoryBufferPersist.h"

using namespace TesselTest;

namespace {

TEST(MemoryBufferTest, AddBackAppendsOrRefuses) {
    const unsigned char more[] = {7, 8, 9};
    const struct {
        const unsigned char* data;
        size_t size;
        bool result;
    } cases[] = {{nullptr, 0, true}, {nullptr, 3, false}, {more, 0, false}, {more, 3, true}};
    for (const auto& c : cases) {
        CMemoryBuffer buffer;
        ASSERT_TRUE(buffer.AddBack(more + 1, 2));
        EXPECT_EQ(c.result, buffer.AddBack(c.data, c.size)) << c.size;
        EXPECT_EQ((c.data != nullptr && c.size != 0 ? Bytes{8, 9, 7, 8, 9} : Bytes{8, 9}),
                  Content(buffer));
    }
}

TEST(MemoryBufferTest, AllocateClearsOldBytesAssignCopySwapAndZero) {
    CMemoryBuffer buffer;
    EXPECT_EQ(1, buffer.Allocate(0));
    EXPECT_EQ(nullptr, buffer.GetBuffer());
    EXPECT_TRUE(buffer.IsEmpty());
    const unsigned char bytes[] = {5, 6, 7};
    ASSERT_TRUE(buffer.Assign(bytes, sizeof bytes));
    EXPECT_EQ(1, buffer.Allocate(4));
    EXPECT_EQ(Bytes(4, 0), Content(buffer));
    EXPECT_FALSE(buffer.Assign(nullptr, 3));
    EXPECT_FALSE(buffer.Assign(bytes, 0));
    EXPECT_EQ(Bytes(4, 0), Content(buffer));

    CMemoryBuffer a;
    ASSERT_TRUE(a.Assign(bytes, sizeof bytes));
    a.Assign(a);
    CMemoryBuffer b(a);
    buffer.Swap(a);
    EXPECT_EQ(Bytes(4, 0), Content(a));
    EXPECT_EQ(Content(b), Content(buffer));
    buffer.ZeroMem();
    EXPECT_EQ(Bytes(3, 0), Content(buffer));
    EXPECT_EQ((Bytes{5, 6, 7}), Content(b));
}

TEST(MemoryBufferTest, CapacityIsKeptByRemoveFrontOfAllAndClearAndFreedByTheRest) {
    const Bytes bytes = {1, 2, 3, 4, 5, 6};
    CMemoryBuffer buffer;
    ASSERT_TRUE(buffer.Assign(bytes.data(), bytes.size()));
    buffer.RemoveFront(0);
    EXPECT_EQ(bytes, Content(buffer));
    buffer.RemoveFront(4);
    EXPECT_EQ((Bytes{5, 6}), Content(buffer));
    EXPECT_EQ(2u, buffer.GetCapacity());
    ASSERT_TRUE(buffer.Assign(bytes.data(), bytes.size()));
    const size_t capacity = buffer.GetCapacity();
    buffer.RemoveFront(bytes.size());
    EXPECT_TRUE(buffer.IsEmpty());
    EXPECT_EQ(capacity, buffer.GetCapacity());
    ASSERT_EQ(1, buffer.Allocate(100));
    buffer.Clear();
    EXPECT_TRUE(buffer.IsEmpty());
    EXPECT_EQ(100u, buffer.GetCapacity());
    buffer.ShrinkToFit();
    EXPECT_EQ(0u, buffer.GetCapacity());
    ASSERT_EQ(1, buffer.Allocate(100));
    buffer.Free();
    EXPECT_EQ(0u, buffer.GetCapacity());
    buffer.ZeroMem();
    EXPECT_EQ(nullptr, buffer.GetBuffer());
}

TEST(MemoryBufferPersistTest, SavesTheLayoutAndLoadsNoTruncationOfIt) {
    const unsigned char bytes[] = {0xA1, 0xB2, 0xC3};
    CMemoryBufferPersist buffer;
    ASSERT_TRUE(buffer.Assign(bytes, sizeof bytes));
    ExpectForm(buffer, {0x03, 0x00, 0x00, 0x00, 0xA1, 0xB2, 0xC3});
    Bytes untouched(6, 0xEE);
    buffer.saveData(untouched.data(), untouched.size());
    EXPECT_EQ(Bytes(6, 0xEE), untouched);
}

TEST(MemoryBufferPersistTest, RefusesWhereItsOwnFormDoesNotFit) {
    Bytes input(50, 0);
    input[0] = 10;
    auto copy = HeapCopy(input, input.size());
    CMemoryBufferPersist full;
    ASSERT_EQ(1, full.Allocate(100));
    EXPECT_FALSE(full.loadData(copy.get(), input.size()));
    EXPECT_EQ(100u, full.getDataSize());
    CMemoryBufferPersist fresh;
    EXPECT_FALSE(fresh.loadData(copy.get(), 13));  // 10 bytes said, 9 there
    EXPECT_TRUE(fresh.IsEmpty());
    EXPECT_TRUE(fresh.loadData(copy.get(), input.size()));
    EXPECT_EQ(10u, fresh.getDataSize());
    EXPECT_FALSE(fresh.loadData(nullptr, 50));
}

TEST(MemoryBufferPersistTest, TruncateToCutsOrAppendsZeros) {
    CMemoryBufferPersist buffer;
    const unsigned char bytes[] = {4, 5, 6};
    ASSERT_TRUE(buffer.Assign(bytes, sizeof bytes));
    buffer.TruncateTo(5);
    EXPECT_EQ((Bytes{4, 5, 6, 0, 0}), Content(buffer));
    buffer.TruncateTo(1);
    EXPECT_EQ((Bytes{4}), Content(buffer));
    CMemoryBuffer plain;
    ASSERT_TRUE(plain.Assign(bytes, sizeof bytes));
    buffer = plain;
    EXPECT_EQ(7u, buffer.getSize());
}

}  // namespace
