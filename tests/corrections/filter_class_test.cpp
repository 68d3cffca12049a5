#include <gtest/gtest.h>

#include <functional>
#include <type_traits>

#include "corrections/filter_class.h"
#include "platform/memory.h"

namespace krf::test {
namespace {

static_assert(std::is_polymorphic_v<CMemClass> && std::has_virtual_destructor_v<CMemClass>);
static_assert(sizeof(CMemClass) == sizeof(void*), "no data beyond the virtual table pointer");
static_assert(std::is_abstract_v<FilterClass> && std::is_abstract_v<FilterParametersClass>);
static_assert(std::has_virtual_destructor_v<FilterClass>);

// A filter that only shows the ranges the base class built.
class RangeProbe : public FilterClass {
public:
    int Apply(FilterParametersClass*) override { return 0; }
    int first(int r) const { return RowFirst[r]; }
    int last(int r) const { return RowLast[r]; }
    bool bound() const { return image != nullptr || NRows != 0 || RowFirst != nullptr || RowLast != nullptr; }
};

TEST(FilterClass, RangesFromFirstAndLengthOrWholeRows) {
    Sample row[8] = {};
    Sample* rows[3] = {row, row, row};
    RangeProbe whole;
    EXPECT_FALSE(whole.bound());
    const int first[3] = {2, 5, 0}, length[3] = {3, 0, 20};
    ASSERT_EQ(whole.Init(rows, 4096, 3, 8, first, nullptr), 0);
    for (int r = 0; r < 3; ++r) {
        EXPECT_EQ(whole.first(r), 0);
        EXPECT_EQ(whole.last(r), 7);
    }
    EXPECT_EQ(whole.Hook(), 0);
    EXPECT_EQ(whole.Release(), 0);
    EXPECT_FALSE(whole.bound());

    RangeProbe ranged;
    ASSERT_EQ(ranged.Init(rows, 4096, 3, 8, first, length), 0);
    EXPECT_EQ(ranged.first(0), 2);
    EXPECT_EQ(ranged.last(0), 4);
    EXPECT_EQ(ranged.last(1), 4);  // length 0: an empty range, last = first - 1
    EXPECT_EQ(ranged.last(2), 7);  // cut at the end of the row
    EXPECT_EQ(ranged.Release(), 0);
}

template <class T>
int allocate_then_free(int (*allocate)(T***, int, int)) {
    T** plane = nullptr;
    const int code = allocate(&plane, 4, 5);
    free_plane(&plane, 4);
    return code;
}

TEST(FilterClass, WorkPlanesReportWhichPartFailedAndFreePartialPlanes) {
    const std::function<int()> allocators[] = {[] { return allocate_then_free(allocate_float_plane); },
                                               [] { return allocate_then_free(allocate_int_plane); },
                                               [] { return allocate_then_free(allocate_byte_plane); }};
    const int codes[][2] = {{1007210, 1007160}, {1007210, 1007160}, {1007200, 1007100}};
    for (int k = 0; k < 3; ++k) {
        krf::testing::fail_allocation(1);
        EXPECT_EQ(allocators[k](), codes[k][0]);
        krf::testing::fail_allocation(3);  // the second row; the first is freed (the sanitizer build checks)
        EXPECT_EQ(allocators[k](), codes[k][1]);
        krf::testing::fail_allocation(0);
        EXPECT_EQ(allocators[k](), 0);
    }
}

}  // namespace
}  // namespace krf::test
