// Persistable strings, variants and the data container: their forms, loads and rules.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <string>

#include "PersistTest.h"
#include "support/TestSupport.h"
#include "tessel/persistence/PersistableString.h"
#include "tessel/persistence/PersistableStringW.h"
#include "tessel/persistence/SimpleDataContainer.h"
#include "tessel/persistence/SimpleVariant.h"
#include "tessel/persistence/TesselString.h"

using namespace TesselTest;

namespace {

CSimpleDataContainer ContainerOf3And1() {
    CSimpleDataContainer container;
    container.SetValue(3, 5L);
    container.SetValue(1, CStringA("x"));
    return container;
}

// Empty strings load from their length alone.
TEST(PersistableValues, SaveGivesTheLayoutAndOnlyTruncationsFromTheShortestLoad) {
    ExpectForm(CPersistableString("abc"), {3, 0, 0, 0, 'a', 'b', 'c', 0});
    ExpectForm(CPersistableString(), {0, 0, 0, 0, 0}, 4);
    ExpectForm(CPersistableStringW(u"a\u00e9"), {2, 0, 0, 0, 'a', 0, 0xE9, 0, 0, 0});
    ExpectForm(CPersistableStringW(), {0, 0, 0, 0, 0, 0}, 4);
    ExpectForm(CSimpleVariant(), {0, 0, 0, 0});
    ExpectForm(CSimpleVariant(5L), {1, 0, 0, 0, 5, 0, 0, 0});
    ExpectForm(CSimpleVariant(0x0102030405060708LL), {2, 0, 0, 0, 8, 7, 6, 5, 4, 3, 2, 1});
    ExpectForm(CSimpleVariant(-2.5), {3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 4, 0xC0});
    ExpectForm(CSimpleVariant(CStringA("hi")), {4, 0, 0, 0, 'h', 'i', 0});
    ExpectForm(CSimpleDataContainer(), {0, 0, 0, 0});
    ExpectForm(ContainerOf3And1(),  // in the order of the keys
               {2, 0, 0, 0, 1, 0, 0, 0, 4, 0, 0, 0, 'x', 0, 3, 0, 0, 0, 1, 0, 0, 0, 5, 0, 0, 0});
    CSimpleDataContainer negative;
    negative.SetValue(-1, 1.0);
    ExpectForm(negative,
               {1, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xF0, 0x3F});
}

// The entries whose key lies within the input stay after a failed load.
TEST(SimpleDataContainer, TruncatedLoadKeepsTheEntriesReadSoFar) {
    const Bytes form = Saved(ContainerOf3And1());  // key 1 at 4, key 3 at 14
    ForEachPrefix(form, [&](const unsigned char* data, size_t length) {
        CSimpleDataContainer container;
        EXPECT_EQ(container.loadData(data, length), length == form.size());
        EXPECT_EQ(Saved(container)[0], (length >= 8) + (length >= 18));
    });
}

// Loads succeed exactly where the form lies within random input, else leave the value alone.
TEST(PersistableValues, RandomBytesLoadAsTheFormsSay) {
    std::mt19937 random(20240611);
    for (int run = 0; run < 3000; ++run) {
        Bytes bytes(random() % 24);
        for (unsigned char& byte : bytes) {
            byte = static_cast<unsigned char>(random() % 4 == 0 ? random() % 6 : random());
        }
        if (bytes.size() >= 4 && run % 2 == 0) {
            bytes[1] = bytes[2] = bytes[3] = 0;  // a small count or tag
        }
        SCOPED_TRACE(testing::PrintToString(bytes));
        const auto input = HeapCopy(bytes, bytes.size());
        const unsigned char* const data = input.get();
        const size_t size = bytes.size();
        std::uint32_t tag = 0;
        if (size >= 4) {
            std::memcpy(&tag, bytes.data(), sizeof tag);
        }
        const bool flagZero = size >= 4 && tag == 0;
        bool narrowEnds = false;
        bool wideEnds = false;
        for (size_t i = 4; i < size; ++i) {
            narrowEnds = narrowEnds || bytes[i] == 0;
            wideEnds = wideEnds || (i % 2 == 1 && bytes[i - 1] == 0 && bytes[i] == 0);
        }

        CPersistableString narrow("keep");
        const bool narrowLoads = size >= 4 && (flagZero || narrowEnds);
        EXPECT_EQ(narrow.loadData(data, size), narrowLoads);
        EXPECT_TRUE(narrowLoads || narrow == "keep");
        CPersistableStringW wide(u"keep");
        const bool wideLoads = size >= 4 && (flagZero || wideEnds);
        EXPECT_EQ(wide.loadData(data, size), wideLoads);
        EXPECT_TRUE(wideLoads || wide == u"keep");

        CSimpleVariant variant(7L);
        const size_t need[] = {4, 8, 12, 12, 5};
        const bool known = tag >= 1 && tag <= 4;
        const bool fits = size >= 4 && (!known || (size >= need[tag] && (tag != 4 || narrowEnds)));
        EXPECT_EQ(variant.loadData(data, size), fits);
        if (!fits || !known) {
            EXPECT_EQ(Saved(variant), Saved(CSimpleVariant(7L)));
        }

        CSimpleDataContainer container;
        if (container.loadData(data, size)) {
            const Bytes form = Saved(container);
            CSimpleDataContainer again;
            EXPECT_TRUE(again.loadData(HeapCopy(form, form.size()).get(), form.size()));
            EXPECT_EQ(Saved(again), form);
        }
    }
}

TEST(PersistableString, EmptyAndEmbeddedZeroForms) {
    // An empty string writes its length alone; the byte behind stays as it was.
    Bytes buffer(5, 0xAA);
    CPersistableString::saveData(CStringA(), buffer.data(), buffer.size());
    EXPECT_EQ(buffer, (Bytes{0, 0, 0, 0, 0xAA}));
    EXPECT_EQ(CPersistableString::getSize(CStringA()), 5u);
    EXPECT_EQ(CPersistableString::getSize(size_t{7}), 12u);

    // A zero inside a narrow string is saved with the rest and cuts the loaded text.
    const CStringA embedded("a\0b", 3);
    Bytes form(CPersistableString::getSize(embedded));
    CPersistableString::saveData(embedded, form.data(), form.size());
    EXPECT_EQ(form, (Bytes{3, 0, 0, 0, 'a', 0, 'b', 0}));
    CStringA loaded;
    EXPECT_TRUE(CPersistableString::loadData(loaded, form.data(), form.size()));
    EXPECT_EQ(loaded, "a");

    // Narrow and wide forms are not interchangeable.
    CStringW wide;
    EXPECT_FALSE(CPersistableString::loadData(wide, form.data(), form.size()) && wide == u"a");
    const Bytes wideForm = Saved(CPersistableStringW(u"ab"));
    EXPECT_TRUE(CPersistableString::loadData(loaded, wideForm.data(), wideForm.size()));
    EXPECT_EQ(loaded, "a");
}

TEST(PersistableString, WcharTextTravelsAsUtf16) {
    const std::wstring text = L"x\U0001F600";
    EXPECT_EQ(CPersistableString::getSize(text), 12u);  // three code units
    Bytes form(12);
    CPersistableString::saveData(text, form.data(), form.size());
    EXPECT_EQ(form, (Bytes{3, 0, 0, 0, 'x', 0, 0x3D, 0xD8, 0x00, 0xDE, 0, 0}));
    std::wstring loaded;
    EXPECT_TRUE(CPersistableString::loadData(loaded, form.data(), form.size()));
    EXPECT_EQ(loaded, text);

    CPersistableStringW object(u"old");
    object.SetString(text.c_str());
    EXPECT_EQ(Saved(object), form);
    object.SetString(nullptr);
    EXPECT_TRUE(object.empty());
}

// Short buffers are reported and cleared, not overrun; the wide object's own save is silent.
TEST(PersistableString, SmallBuffersAreReportedAndNeverOverrun) {
    {
        InvalidParameterThrows throws;
        EXPECT_THROW(CPersistableString::saveData(CStringA("abc"), nullptr, 8),
                     InvalidParameterError);
    }
    static int reports = 0;
    const auto previous = Tessel::Platform::SetInvalidParameterHandler(
        [](const char*, const char*, const char*, unsigned int) { ++reports; });
    for (size_t size = 0; size < 8; ++size) {
        const auto buffer = HeapCopy(Bytes(8), size);
        CPersistableString::saveData(CStringA("abc"), buffer.get(), size);
        CPersistableString::saveData(CStringW(u"ab"), buffer.get(), size);
    }
    Bytes small(3, 0xAA);
    CPersistableString::saveData(CStringA("abc"), small.data(), small.size());
    Bytes room(6, 0xAA);  // length fits, text does not
    CPersistableString::saveData(CStringA("abc"), room.data(), room.size());
    const CPersistableStringW wide(u"ab");
    Bytes tiny(3, 0xAA);
    wide.saveData(nullptr, 10);
    wide.saveData(tiny.data(), tiny.size());
    Tessel::Platform::SetInvalidParameterHandler(previous);
    EXPECT_EQ(reports, 8 + 8 + 2);
    EXPECT_EQ(small, Bytes(3, 0));
    EXPECT_EQ(room, (Bytes{3, 0, 0, 0, 0, 0}));
    EXPECT_EQ(tiny, Bytes(3, 0xAA));
}

TEST(SimpleVariant, ValuesAreNeverConverted) {
    CSimpleVariant variant(5L);
    double number = 1.5;
    EXPECT_EQ(variant.GetValue(number), 0);
    EXPECT_EQ(number, 1.5);
    CStringA text = "old";
    EXPECT_EQ(variant.GetValue(text), 0);
    EXPECT_EQ(text, "");  // emptied whatever the type
    long value = 0;
    variant.SetValue(0x100000007L);  // a long keeps its low 32 bits
    EXPECT_EQ(variant.GetValue(value), 1);
    EXPECT_EQ(value, 7);
    variant.SetValue(CStringA("text"));
    CSimpleVariant copy(variant);
    const CSimpleVariant& self = copy;
    copy = self;
    EXPECT_EQ(copy.GetValue(text), 1);
    EXPECT_EQ(text, "text");
    variant.Clear();
    EXPECT_EQ(variant.GetType(), CSimpleVariant::ValEmpty);
    copy = variant;
    EXPECT_EQ(copy.GetType(), CSimpleVariant::ValEmpty);

    Bytes buffer(7, 0xAA);  // one byte short of "text"
    CSimpleVariant(CStringA("text")).saveData(buffer.data(), buffer.size());
    EXPECT_EQ(buffer, Bytes(7, 0xAA));
}

TEST(SimpleDataContainer, LoadsMergeAndKeysAre32Bit) {
    CSimpleDataContainer source = ContainerOf3And1();
    source.SetValue(2, CStringA("two"));
    source.SetValue(-1, 9L);
    const Bytes form = Saved(source);

    CSimpleDataContainer target;
    target.SetValue(2, 2.5);
    target.SetValue(8, 8LL);
    ASSERT_TRUE(target.loadData(form.data(), form.size()));
    ASSERT_TRUE(target.loadData(form.data(), form.size()));  // the second load overwrites
    CStringA text = "untouched";
    long number = 0;
    long long wide = 0;
    EXPECT_EQ(target.GetValue(2, text), 1);
    EXPECT_EQ(text, "two");
    EXPECT_EQ(target.GetValue(8, wide), 1);
    EXPECT_EQ(target.GetValue(-1, number), 0);  // came back as 4294967295
    EXPECT_EQ(target.GetValue(99, text), 0);
    EXPECT_EQ(text, "two");  // a missing key leaves a text alone
    // Keys 1, 2, 3, 8 and 4294967295: 4 + (4 + 6) + (4 + 8) + (4 + 8) + (4 + 12) + (4 + 8).
    EXPECT_EQ(Saved(target).size(), size_t{66});

    // An entry saved empty leaves the value under its key.
    CSimpleDataContainer empty;
    empty.SetValue(8, CStringA("gone"));
    Bytes emptyForm = Saved(empty);
    emptyForm.resize(12);
    emptyForm[8] = 0;  // the tag of ValEmpty
    ASSERT_TRUE(target.loadData(emptyForm.data(), emptyForm.size()));
    EXPECT_EQ(target.GetValue(8, wide), 1);

    // Instance numbers: one more per construction, also by copy, kept by assignment.
    const CSimpleDataContainer copy(target);
    EXPECT_EQ(copy.GetInstanceNr(), empty.GetInstanceNr() + 1);
    const std::uint64_t kept = empty.GetInstanceNr();
    empty = copy;
    EXPECT_EQ(empty.GetInstanceNr(), kept);
    Bytes small(Saved(copy).size() - 1, 0xAA);
    copy.saveData(small.data(), small.size());
    EXPECT_EQ(small, Bytes(small.size(), 0xAA));
}

TEST(TesselString, CopiesAndPrintingCharacters) {
    char target[8] = "xxxxxxx";
    CTesselString::TCharToAscii("abc", target);
    EXPECT_STREQ(target, "abc");
    CTesselString::TCharToAscii("abcdef", target, 4);
    EXPECT_STREQ(target, "abcd");
    CTesselString::TCharToAscii("ab", target, 4);
    EXPECT_STREQ(target, "ab");

    std::string expected;
    for (char c = 0x21; c <= 0x7E; ++c) {
        expected += c == '\'' ? '`' : c;
    }
    EXPECT_EQ(CTesselString::getPrintingAsciiChars(), expected);
}

}  // namespace
