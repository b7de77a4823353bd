// Tests of the functor interface and its lambda wrapper.
#include "common/utils/functor.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <type_traits>
#include <utility>

namespace {

using common::DefaultFunctor;
using common::FunctorClass;
using common::TypeList;

// Counts how often it is copied and moved, and notes its destruction.
struct Tracker {
    int* copies;
    int* moves;
    int* destroyed;
    bool live = true;

    Tracker(int* c, int* m, int* d) : copies(c), moves(m), destroyed(d) {}
    Tracker(const Tracker& other) : copies(other.copies), moves(other.moves), destroyed(other.destroyed) { ++*copies; }
    Tracker(Tracker&& other) noexcept : copies(other.copies), moves(other.moves), destroyed(other.destroyed) {
        ++*moves;
        other.live = false;
    }
    Tracker& operator=(const Tracker&) = delete;
    Tracker& operator=(Tracker&&) = delete;
    ~Tracker() {
        if (live)
            ++*destroyed;
    }
};

using NonConstIntFunctor = FunctorClass<false, int, TypeList<int, int>>;
using ConstIntFunctor = FunctorClass<true, int, TypeList<int>>;

// --- the interface itself ---

static_assert(std::is_abstract_v<NonConstIntFunctor>);
static_assert(std::is_abstract_v<ConstIntFunctor>);
static_assert(std::has_virtual_destructor_v<NonConstIntFunctor>);
static_assert(std::has_virtual_destructor_v<ConstIntFunctor>);
static_assert(sizeof(NonConstIntFunctor) == sizeof(void*), "the interface carries no data besides its vtable");
static_assert(sizeof(ConstIntFunctor) == sizeof(void*), "the interface carries no data besides its vtable");
static_assert(std::is_same_v<decltype(NonConstIntFunctor::makeUnique([](int, int) { return 0; })),
                             std::unique_ptr<NonConstIntFunctor>>);
static_assert(
    std::is_same_v<decltype(ConstIntFunctor::makeUnique([](int) { return 0; })), std::unique_ptr<ConstIntFunctor>>);

// `invoke` is callable on a const functor only when the functor is const-callable.
template <typename F, typename = void>
struct InvocableOnConst : std::false_type {};
template <typename F>
struct InvocableOnConst<F, std::void_t<decltype(std::declval<const F&>().invoke(0))>> : std::true_type {};
static_assert(InvocableOnConst<ConstIntFunctor>::value);
static_assert(!InvocableOnConst<FunctorClass<false, int, TypeList<int>>>::value);

TEST(Functor, InvokesLambda) {
    auto f = NonConstIntFunctor::makeUnique([](int a, int b) { return a + b; });
    EXPECT_EQ(f->invoke(2, 3), 5);
}

TEST(Functor, ConstFunctorInvokesThroughConstReference) {
    const std::unique_ptr<ConstIntFunctor> f = ConstIntFunctor::makeUnique([](int a) { return a * 2; });
    const ConstIntFunctor& ref = *f;
    EXPECT_EQ(ref.invoke(21), 42);
}

TEST(Functor, MakeUniqueBuildsADefaultFunctor) {
    auto lambda = [](int a, int b) { return a - b; };
    auto f = NonConstIntFunctor::makeUnique(lambda);
    using Expected = DefaultFunctor<decltype(lambda), false, int, int, int>;
    static_assert(std::is_base_of_v<NonConstIntFunctor, Expected>);
    EXPECT_NE(dynamic_cast<Expected*>(f.get()), nullptr);
    EXPECT_EQ(f->invoke(5, 3), 2);
}

TEST(Functor, VoidResult) {
    int seen = 0;
    auto f = FunctorClass<false, void, TypeList<int>>::makeUnique([&seen](int v) { seen = v; });
    f->invoke(9);
    EXPECT_EQ(seen, 9);
}

TEST(Functor, NoArguments) {
    auto f = FunctorClass<true, std::string, TypeList<>>::makeUnique([] { return std::string("done"); });
    EXPECT_EQ(f->invoke(), "done");
}

TEST(Functor, MutableLambdaKeepsItsStateBetweenCalls) {
    auto f = FunctorClass<false, int, TypeList<>>::makeUnique([n = 0]() mutable { return ++n; });
    EXPECT_EQ(f->invoke(), 1);
    EXPECT_EQ(f->invoke(), 2);
    EXPECT_EQ(f->invoke(), 3);
}

// --- arguments ---

TEST(Functor, ReferenceArgumentsAreForwarded) {
    const int value = 5;
    const int* seen = nullptr;
    auto f = FunctorClass<true, void, TypeList<int const&>>::makeUnique([&seen](int const& v) { seen = &v; });
    f->invoke(value);
    EXPECT_EQ(seen, &value);

    int target = 1;
    auto g = FunctorClass<false, void, TypeList<int&>>::makeUnique([](int& v) { v = 7; });
    g->invoke(target);
    EXPECT_EQ(target, 7);
}

TEST(Functor, ValueArgumentsAreMovedIntoTheLambda) {
    std::string received;
    auto f = FunctorClass<false, void, TypeList<std::string, int>>::makeUnique(
        [&received](std::string text, int level) { received = text + "/" + std::to_string(level); });
    f->invoke(std::string("message"), 2);
    EXPECT_EQ(received, "message/2");
}

TEST(Functor, MoveOnlyArgument) {
    auto f =
        FunctorClass<false, int, TypeList<std::unique_ptr<int>>>::makeUnique([](std::unique_ptr<int> p) { return *p; });
    EXPECT_EQ(f->invoke(std::make_unique<int>(11)), 11);
}

TEST(Functor, CallbackWithTheFailureHandlerShape) {
    std::string seen;
    using Handler = FunctorClass<false, void, TypeList<char const*, char const*, char const*>>;
    auto f = Handler::makeUnique([&seen](char const* reserved, char const* expression, char const* message) {
        seen = std::string(reserved ? reserved : "(null)") + "|" + expression + "|" + message;
    });
    f->invoke(nullptr, "m_counter > 0", "");
    EXPECT_EQ(seen, "(null)|m_counter > 0|");
}

// --- ownership of the lambda ---

TEST(Functor, LambdaIsMovedInWithoutCopies) {
    int copies = 0, moves = 0, destroyed = 0;
    {
        auto lambda = [t = Tracker(&copies, &moves, &destroyed)] { return t.live; };
        const int movesBefore = moves;
        auto f = FunctorClass<true, bool, TypeList<>>::makeUnique(std::move(lambda));
        EXPECT_EQ(copies, 0);
        EXPECT_GT(moves, movesBefore);
        EXPECT_TRUE(f->invoke());
        EXPECT_EQ(destroyed, 0);
    }
    EXPECT_EQ(copies, 0);
    EXPECT_EQ(destroyed, 1);
}

TEST(Functor, DestructionDestroysTheCapturedState) {
    auto marker = std::make_shared<int>(1);
    std::weak_ptr<int> watch = marker;
    auto f = FunctorClass<false, int, TypeList<>>::makeUnique([marker = std::move(marker)] { return *marker; });
    EXPECT_FALSE(watch.expired());
    EXPECT_EQ(f->invoke(), 1);
    f.reset();
    EXPECT_TRUE(watch.expired());
}

TEST(Functor, OwnershipMovesBetweenHolders) {
    auto marker = std::make_shared<int>(3);
    std::weak_ptr<int> watch = marker;
    auto f = FunctorClass<true, int, TypeList<>>::makeUnique([marker = std::move(marker)] { return *marker; });
    std::unique_ptr<FunctorClass<true, int, TypeList<>>> holder = std::move(f);
    EXPECT_EQ(f, nullptr);
    EXPECT_EQ(holder->invoke(), 3);
    EXPECT_FALSE(watch.expired());
    holder.reset();
    EXPECT_TRUE(watch.expired());
}

TEST(Functor, MoveOnlyCapture) {
    auto owned = std::make_unique<int>(8);
    auto f = FunctorClass<true, int, TypeList<int>>::makeUnique(
        [owned = std::move(owned)](int add) { return *owned + add; });
    EXPECT_EQ(f->invoke(2), 10);
}

// --- other implementations behind the same interface ---

class CountingFunctor final : public FunctorClass<false, void, TypeList<int>> {
public:
    explicit CountingFunctor(int* total) : m_total(total) {}
    void invoke(int value) override { *m_total += value; }

private:
    int* m_total;
};

TEST(Functor, HolderDoesNotKnowTheImplementation) {
    int total = 0;
    std::unique_ptr<FunctorClass<false, void, TypeList<int>>> holders[2] = {
        std::make_unique<CountingFunctor>(&total),
        FunctorClass<false, void, TypeList<int>>::makeUnique([&total](int v) { total += 10 * v; }),
    };
    for (auto& h : holders)
        h->invoke(2);
    EXPECT_EQ(total, 22);
}

}  // namespace
