// Tessel::CHandle and Tessel::CEvent: ownership that moves on copy, and the event operations.
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "tessel/base/Event.h"
#include "tessel/base/Handle.h"
#include "tessel/platform/Event.h"
#include "tessel/platform/Handle.h"
#include "tessel/platform/LastError.h"

using namespace Tessel::Platform;
using Tessel::CEvent;
using Tessel::CHandle;

namespace {

HANDLE newEvent() {
    return CreateEventA(nullptr, TRUE, FALSE, nullptr);
}

bool isOpen(HANDLE handle) {
    return WaitForSingleObject(handle, 0) != WAIT_FAILED;
}

bool signalled(HANDLE event) {
    return WaitForSingleObject(event, 0) == WAIT_OBJECT_0;
}

HANDLE raw(const CHandle& handle) {
    return handle;
}

const std::string kOverlongName(261, 'n');  // MAX_PATH is 260

}  // namespace

TEST(Handle, OwnsItsHandleAndCopyingMovesIt) {
    HANDLE a = newEvent(), b = newEvent(), c = newEvent();
    {
        CHandle source(a);
        CHandle copy(source);
        EXPECT_EQ(raw(source), nullptr);
        EXPECT_EQ(raw(copy), a);
        CHandle target(b);
        target = copy;
        EXPECT_EQ(raw(target), a);
        EXPECT_EQ(raw(copy), nullptr);
        EXPECT_FALSE(isOpen(b)) << "assignment closes the handle held";
        CHandle& same = target;
        target = same;
        target = std::move(same);
        EXPECT_EQ(raw(target), a);

        CHandle detached(c);
        EXPECT_EQ(detached.Detach(), c);
        EXPECT_EQ(raw(detached), nullptr);
        CHandle closed(newEvent());
        const HANDLE d = closed;
        closed.Close();
        EXPECT_EQ(raw(closed), nullptr);
        EXPECT_FALSE(isOpen(d));
        closed.Close();  // empty: nothing happens
    }
    EXPECT_FALSE(isOpen(a)) << "closed by its one owner";
    EXPECT_TRUE(isOpen(c)) << "detached";
    CloseHandle(c);
}

TEST(Event, ConstructorCreatesAtOnceOrThrowsTheLastErrorAsHresult) {
    CEvent manualSet(TRUE, TRUE), manualUnset(TRUE, FALSE), automaticSet(FALSE, TRUE);
    EXPECT_TRUE(signalled(manualSet));
    EXPECT_TRUE(signalled(manualSet)) << "stays signalled";
    EXPECT_FALSE(signalled(manualUnset));
    EXPECT_TRUE(signalled(automaticSet));
    EXPECT_FALSE(signalled(automaticSet)) << "the first test took it";
    try {
        CEvent event(nullptr, TRUE, FALSE, kOverlongName.c_str());
        FAIL() << "no exception";
    } catch (const Tessel::CHResultException& e) {
        EXPECT_EQ(static_cast<std::uint32_t>(e.GetHResult()), 0x800700CEu);  // error 206
        EXPECT_STREQ(e.what(), "HRESULT 0x800700CE");
    }
}

TEST(Event, CreateAndOpenStoreOverTheHeldHandleWithoutThrowing) {
    CEvent event(TRUE, FALSE);
    HANDLE first = event;
    ASSERT_NE(event.Create(nullptr, TRUE, FALSE, "TesselThreadsEventTest"), 0);
    HANDLE named = event;

    CEvent opened;
    ASSERT_NE(opened.Open(SYNCHRONIZE, FALSE, "TesselThreadsEventTest"), 0);
    EXPECT_NE(raw(opened), named);
    EXPECT_NE(event.Set(), 0);
    EXPECT_TRUE(signalled(opened));

    EXPECT_EQ(opened.Open(SYNCHRONIZE, FALSE, "TesselThreadsNoSuchEvent"), 0);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(raw(opened), nullptr);
    EXPECT_EQ(event.Create(nullptr, TRUE, FALSE, kOverlongName.c_str()), 0);
    EXPECT_EQ(GetLastError(), ERROR_FILENAME_EXCED_RANGE);
    EXPECT_EQ(raw(event), nullptr);

    EXPECT_TRUE(isOpen(first));
    EXPECT_TRUE(isOpen(named));
    CloseHandle(first);
    CloseHandle(named);
}

TEST(Event, OperationsForward) {
    CEvent event(TRUE, FALSE);
    EXPECT_NE(event.Set(), 0);
    EXPECT_TRUE(signalled(event));
    EXPECT_NE(event.Reset(), 0);
    EXPECT_FALSE(signalled(event));
    EXPECT_NE(event.Set(), 0);
    EXPECT_NE(event.Pulse(), 0);  // nobody waits: releases nobody, leaves it reset
    EXPECT_FALSE(signalled(event));

    CEvent copy(event);
    EXPECT_EQ(raw(event), nullptr);
    for (auto operation : {&CEvent::Set, &CEvent::Reset, &CEvent::Pulse}) {
        EXPECT_EQ((event.*operation)(), 0);
        EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    }
}
