#include <gtest/gtest.h>

#include <tuple>

#include "krfilter/krfilter.h"
#include "platform/memory.h"

namespace {

TEST(CKRImage, ConstructorsAccessorsAndTheWhiteLevelsLow16Bits) {
    CKRImage image(3, 4, 4095);
    EXPECT_EQ(image.ownership, 2);
    int height = 0, width = 0, white = 0;
    image.GetHeight(&height);
    image.GetWidth(&width);
    image.GetWhite(&white);
    EXPECT_EQ(std::tuple(height, width, white), std::tuple(3, 4, 4095));
    unsigned short** rows = nullptr;
    image.GetImage(&rows);
    ASSERT_NE(rows, nullptr);
    EXPECT_NE(rows[0], rows[1]);  // separate, zeroed rows
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 4; ++c) EXPECT_EQ(rows[r][c], 0);

    CKRImage empty(0, 100, 4095);  // zero size allocates nothing
    EXPECT_EQ(empty.ownership, 1);
    EXPECT_EQ(empty.rows, nullptr);
    unsigned char* rgb = reinterpret_cast<unsigned char*>(1);
    EXPECT_EQ(empty.GetRGBVector(&rgb), -1);
    EXPECT_EQ(rgb, nullptr);

    CKRImage set;
    set.SetWhite(70000);
    set.GetWhite(&white);
    EXPECT_EQ(white, 4464);
    CKRImage wrapped(nullptr, 1, 1, 65536 + 4095);
    wrapped.GetWhite(&white);
    EXPECT_EQ(white, 4095);
}

TEST(CKRImage, RgbBufferIsMadeOnceAndKeptAcrossResizes) {
    CKRImage image(2, 3, 255);
    unsigned char* first = nullptr;
    ASSERT_EQ(image.GetRGBVector(&first), 0);
    for (int i = 0; i < 2 * 3 * 3; ++i) EXPECT_EQ(first[i], 0);
    image.SetWidth(300);
    unsigned char* second = nullptr;
    ASSERT_EQ(image.GetRGBVector(&second), 0);
    EXPECT_EQ(first, second);
}

TEST(CKRImage, AssignmentIsShallowAndCopiesOwnership) {
    CKRImage owner(2, 2, 4095);
    CKRImage copy;
    copy.reserved = 7;
    owner.reserved = 42;
    copy = owner;
    EXPECT_EQ(std::tuple(copy.ownership, owner.ownership, copy.reserved), std::tuple(2, 2, 42u));
    EXPECT_EQ(copy.rows, owner.rows);
    copy.ownership = 1;  // exactly one of the two may free the shared rows
}

TEST(CKRImage, AllocationFailuresAndOverflow) {
    krf::testing::fail_allocation(1);
    {
        CKRImage image(4, 4, 4095);
        EXPECT_EQ(image.ownership, -2);
        EXPECT_EQ(image.rows, nullptr);
    }
    krf::testing::fail_allocation(3);  // array, row 0, then row 1 fails
    unsigned short** partial = nullptr;
    {
        CKRImage image(4, 4, 4095);
        EXPECT_EQ(image.ownership, -2);
        partial = image.rows;
        ASSERT_NE(partial, nullptr);
        EXPECT_NE(partial[0], nullptr);
        EXPECT_EQ(partial[1], nullptr);
    }
    // The destructor left the partial rows alone; the test releases them.
    krf::zfree(partial[0]);
    krf::zfree(partial);

    CKRImage image(2, 2, 4095);
    unsigned char* rgb = reinterpret_cast<unsigned char*>(1);
    krf::testing::fail_allocation(1);
    EXPECT_EQ(image.GetRGBVector(&rgb), -2);
    EXPECT_EQ(rgb, nullptr);
    krf::testing::fail_allocation(0);
    CKRImage huge(nullptr, 2147483647, 2147483647, 4095), negative(nullptr, -4, 5, 4095);
    EXPECT_EQ(huge.GetRGBVector(&rgb), -2);
    EXPECT_EQ(negative.GetRGBVector(&rgb), -2);
}

}  // namespace
