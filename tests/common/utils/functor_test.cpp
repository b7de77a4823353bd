// Tests of the functor interface and its lambda wrapper.
#include "common/utils/functor.h"

#include <gtest/gtest.h>

TEST(Functor, InvokesLambda) {
    auto f = common::FunctorClass<false, int, common::TypeList<int, int>>::makeUnique([](int a, int b) { return a + b; });
    EXPECT_EQ(f->invoke(2, 3), 5);
}
