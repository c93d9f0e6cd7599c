// Fixtures shared by the store, record, bridge and frame tests: the toolkit
// up around each test, drawings closed after it, and raw blobs.
#pragma once

#include <cstdint>
#include <vector>

#include <gtest/gtest.h>

#include "driver/hooks.h"
#include "frame/fcb.h"
#include "frame/globals.h"
#include "frame/load.h"
#include "records/header.h"
#include "store/blob.h"

namespace zt {

using Bytes = std::vector<uint8_t>;

// The toolkit started before each test and shut down after it.
class ToolkitTest : public ::testing::Test {
protected:
    // Out of line (support.cpp): inlined into every test, the failure
    // message's string building sets off a false -Wrestrict in g++ 12.
    void SetUp() override;
    void TearDown() override { ksShutdown(); }
};

// Also a drawing, `fcb`, and any made by newDrawing; all closed after the test.
class DrawingTest : public ToolkitTest {
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(ToolkitTest::SetUp());
        ASSERT_NE(fcb = newDrawing(withHeader), nullptr);
    }
    void TearDown() override
    {
        for (ksFcb* d : drawings)
            EXPECT_EQ(ksCloseDrawing(d), 1);
        ToolkitTest::TearDown();
    }
    // With a default header when `header` is set.
    ksFcb* newDrawing(bool header = false)
    {
        ksFcb* d = drawings.emplace_back(ksNewFcb());
        if (d && header) {
            d->header = static_cast<ksHeader*>(ksMemAlloc(sizeof(ksHeader)));
            ksHeaderSetDefaults(d->header);
        }
        return d;
    }

    ksFcb* fcb = nullptr;
    bool withHeader = false;  // for `fcb`, set before SetUp
    std::vector<ksFcb*> drawings;
};

// A blob holding exactly these bytes, and the bytes a blob holds.
inline ksLoc blobOf(const Bytes& bytes)
{
    ksLoc blob = ksBlobNew();
    ksBlobCursor* w = ksBlobOpenWrite(blob);
    EXPECT_TRUE(bytes.empty() || ksBlobWrite(w, bytes.data(), static_cast<uint16_t>(bytes.size())));
    EXPECT_EQ(ksBlobCloseWrite(w), 1);
    return blob;
}
inline Bytes bytesOf(ksLoc blob)
{
    Bytes out(ksBlobSize(blob));
    ksBlobCursor* r = ksBlobOpenRead(blob);
    EXPECT_TRUE(out.empty() || ksBlobRead(r, out.data(), static_cast<uint16_t>(out.size())));
    EXPECT_EQ(ksBlobCloseRead(r), 1);
    return out;
}

}  // namespace zt
